// validateTree, printStats, and cycles of parent links.
#include "tree_write/TreeWriteFixture.h"

namespace {

template <class Tree>
class ValidateTest : public TreeWriteTest<Tree> {
 protected:
  // Gives `record` the parent link `parent` (null: none) and stores it.
  void Link(const WzScanDBRecordBasePtr& record, const WzScanDBRecordBasePtr& parent) {
    char* image = static_cast<char*>(record->getStructure()) + Tree::kIdBytes;
    parent ? (void)std::memcpy(image, parent->getStructure(), Tree::kIdBytes)
           : (void)std::memset(image, 0, Tree::kIdBytes);
    ASSERT_TRUE((record->isDir() ? this->db_->addFolder(record) : this->db_->addFile(record))
                    .IsSuccess());
  }
  // `err` is the cycle error of a walk (its origin frame), meeting `met`
  // again as stored, or as a marking walk had marked it.
  void ExpectCycle(const CKoError& err, const WzScanDBRecordBasePtr& met, bool marked = false) {
    ASSERT_TRUE(err.IsError());
    EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
    EXPECT_EQ(40, err.GetCode());
    WzScanDBRecordBasePtr seen = this->Stored(met);
    if (marked) seen->setFlags(seen->getFlags() | kRecordFlagVisited);
    EXPECT_EQ("The record " + seen->toString() + " is its own descendant: its parent links form a cycle",
              err.GetOriginMessage());
  }
};
TYPED_TEST_SUITE(ValidateTest, TreeTypes);

std::vector<std::string> Names(const std::vector<WzScanDBRecordBasePtr>& records) {
  std::vector<std::string> names;
  for (const auto& record : records) names.push_back(record->getName());
  return names;
}

// validateTree of a consistent tree (the root alone, then a small tree):
// true, the marking and unmarking passes logged with their counts at level
// 5, one count per batch of the walk, then the closing empty batch; no
// record left marked. Records whose parents are missing make it false with
// exactly one line, naming one of them. printStats
// counts the root's descendants on stdout and leaves every reachable record
// marked; an unreachable one is neither counted nor marked. Without the root
// record in the table, or without any root record, printStats and
// validateTree fail at the walk, each in its own words.
TYPED_TEST(ValidateTest, ConsistencyDisconnectedRecordsAndStats) {
  LogAt log(5);
  bool consistent = false;
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_TRUE(consistent);
  for (const char* folder : {"/etc", "/home", "/home/ann"}) this->AddFolder(folder);
  for (const char* file : {"/etc/hosts", "/home/ann/a.txt", "/home/ann/b.txt", "/home/notes", "/vmlinuz"})
    this->AddFile(file);
  consistent = false;
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_TRUE(consistent);
  EXPECT_EQ(0u, this->Marked());
  const std::string start = "0 1037 Validate Function Called. Expensive Function, May Take Time. "
                            "Performing BFS Search marking all nodes as visited.",
                    reached = "0 1055 Visited All Reachable Nodes from the Root. Now Checking if "
                              "any of the Nodes are disconnected.",
                    done = "0 1082 Marked all Nodes Reachable from Root as Not Visited. The "
                           "Database is Consistent";
  EXPECT_EQ((std::vector<std::string>{start, "5 1049 0 Records marked as Visited", reached,
                                      "5 1076 0 Records marked as Not Visited", done, start,
                                      "5 1049 8 Records marked as Visited",
                                      "5 1053 0 Records marked as Visited", reached,
                                      "5 1076 8 Records marked as Not Visited",
                                      "5 1080 0 Records marked as Not Visited", done}),
            Logged(log));

  const std::vector<WzScanDBRecordBasePtr> orphans = {
      this->AddFile("/lost/o1"), this->AddFolder("/lost/o2"), this->AddFile("/lost/sub/o3")};
  log->Clear();
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_FALSE(consistent);
  const auto lines = Logged(log, "Found a disconnected node : ");
  ASSERT_EQ(1u, lines.size());
  bool namesAnOrphan = false;
  for (const WzScanDBRecordBasePtr& orphan : orphans)
    namesAnOrphan |= lines[0] == "-1 1065 Found a disconnected node : " +
                                     this->Stored(orphan)->toString() + "\n";
  EXPECT_TRUE(namesAnOrphan) << lines[0];
  EXPECT_EQ("CKoError WzScanDB::validateTree(bool&)",
            log->FindContaining("Found a disconnected node")[0].function);
  EXPECT_EQ(1u, log->Find("Marked all Nodes Reachable from Root as Not Visited. The Database is "
                          "Not Consistent").size());
  EXPECT_EQ(0u, this->Marked());

  CKoError err;
  auto printStats = [&] {
    testing::internal::CaptureStdout();
    err = this->db_->printStats();
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ("\nTotal Number of Records : 8 , Number of Directories : 3  , Number of Files : 5 \n",
            printStats());
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(9u, this->Marked());  // the root and its 8 descendants
  EXPECT_FALSE(this->Stored(orphans[0])->getFlags() & kRecordFlagVisited);

  ASSERT_TRUE(this->db_->removeFile(this->root_).IsSuccess());
  consistent = false;
  ExpectError(this->db_->validateTree(consistent), EKoErrorKind::kErrNo, 2,
              "getSubtree(" + this->db_->getRoot()->toString() + ") with validate = true Failed",
              1048);
  EXPECT_TRUE(consistent);
  log->Clear();
  const std::string out = printStats();
  ExpectError(err, EKoErrorKind::kErrNo, 2,
              "Couldn't get the subtree to print the stats of the database", 476);
  EXPECT_STREQ("CKoError WzScanDB::printStats()", err.GetFrames().back().location.function);
  EXPECT_EQ(0u, out.find("Couldn't get the subtree due to : "));
  EXPECT_NE(std::string::npos, out.find("is not present in the database to retrieve a subtree"));
  log.ExpectOnce(out, 472, -1);  // the same text, without a newline

  // No root record at all (no tree database made in this process).
  WzScanDB::sptrDbRoot.reset();
  ExpectError(this->db_->validateTree(consistent), EKoErrorKind::kErrNo, 22,
              "getSubtree(NULL) with validate = true Failed", 1048);
  EXPECT_EQ(22, printStats().empty() ? 0 : err.GetCode());
}

// Cycles of parent links. Each record has one parent link, so a walk can
// come back only to its start record; met again as a folder it would be
// expanded for ever. Every walk ends there with errno 40 (ELOOP) naming that
// record, wrapped by each caller in its own words, and has changed no more
// of the table than the walk up to that record did; validateTree takes its
// marks back. getPathFromRecord stops at a cycle with errno 40 too.
// First /a and /a/b are each other's parent: below a, b and d come first,
// then b's children lead back to a.
TYPED_TEST(ValidateTest, EveryWalkStopsWhereItMeetsItsStartAgain) {
  WzScanDBRecordBasePtr a = this->AddFolder("/a"), b = this->AddFolder("/a/b");
  WzScanDBRecordBasePtr c = this->AddFile("/a/b/c");
  this->AddFile("/a/d");
  this->Link(a, b);
  const size_t records = this->CountRecords();
  bool consistent = true;
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_FALSE(consistent);  // the cycle hangs from nothing
  EXPECT_EQ(0u, this->Marked());

  std::vector<WzScanDBRecordBasePtr> batch;
  std::vector<std::string> paths;
  CKoError err = this->db_->getSubTree(a, batch, paths, true);
  this->ExpectCycle(err, a);
  EXPECT_EQ((std::vector<std::string>{"b", "d"}), Names(batch));
  EXPECT_EQ((std::vector<std::string>{"b", "d"}), paths);
  // Batched: the batch that meets a fails, and the walk is over.
  ASSERT_TRUE(this->db_->getSubTree(a, batch, 0, false).IsSuccess());
  EXPECT_EQ((std::vector<std::string>{"b", "d"}), Names(batch));
  this->ExpectCycle(this->db_->getSubTree(nullptr, batch, 0, true), a);
  ASSERT_TRUE(this->db_->getSubTree(nullptr, batch, 0, true).IsSuccess());
  EXPECT_TRUE(batch.empty());

  WzScanDBRecordBasePtr item;
  std::string path;
  err = this->db_->getFirstItem(a, item, path);
  this->ExpectCycle(err, a);
  ExpectError(err, EKoErrorKind::kErrNo, 40, "getSubtree(" + a->toString() + ") Failed", 1538);
  err = this->db_->removeFolder(a);
  this->ExpectCycle(err, a);
  ExpectError(err, EKoErrorKind::kErrNo, 40, "getSubTree(" + a->toString() + ") Failed", 824);
  err = this->db_->renameFolder(a, this->Make("/z", true), "/a", "/z");
  ExpectError(err, EKoErrorKind::kErrNo, 40, "getSubTree( /a ) Failed", 961);
  EXPECT_EQ(records, this->CountRecords());

  // c -> b -> a -> b: the climb stops at the second b.
  err = this->db_->getPathFromRecord(c, path);
  EXPECT_EQ(40, err.GetCode());
  EXPECT_EQ("The parent links above " + c->toString() + " form a cycle through " +
                this->Stored(b)->toString() + ": the record has no path",
            err.GetTopMessage());
  EXPECT_EQ("b/a/b/c", path);

  // A root that is its own parent, and a folder with the empty path (the
  // null identifier, which is also every root's parent link): validateTree
  // fails at the cycle and leaves no mark. A file that is its own parent
  // ends a walk at once and is returned once, as it always was.
  const size_t marked = this->Marked();  // by the walk above, up to the cycle
  this->Link(this->root_, this->root_);
  err = this->db_->validateTree(consistent);
  this->ExpectCycle(err, this->root_, true);
  ExpectError(err, EKoErrorKind::kErrNo, 40,
              "getSubtree(" + this->db_->getRoot()->toString() + ") with validate = true Failed",
              1048);
  EXPECT_EQ(marked, this->Marked());
  EXPECT_EQ(40, this->db_->getPathFromRecord(this->AddFile("/x"), path).GetCode());

  this->Link(this->root_, nullptr);
  this->Link(a, this->root_);
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_TRUE(consistent);
  WzScanDBRecordBasePtr empty = this->AddFolder("");
  ASSERT_EQ(empty, this->db_->getRoot());
  err = this->db_->validateTree(consistent);
  this->ExpectCycle(err, empty, true);
  EXPECT_EQ(1048, err.GetFrames().back().location.line);
  EXPECT_EQ(0u, this->Marked());

  WzScanDBRecordBasePtr selfish = this->AddFile("/selfish");
  this->Link(selfish, selfish);
  ASSERT_TRUE(this->db_->getSubTree(selfish, batch, false).IsSuccess());
  EXPECT_EQ((std::vector<std::string>{"selfish"}), Names(batch));
}

}  // namespace
