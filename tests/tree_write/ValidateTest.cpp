// validateTree and printStats.
#include <string>
#include <vector>

#include "tree_write/TreeWriteFixture.h"

namespace {

template <class Tree>
class ValidateTest : public TreeWriteTest<Tree> {
 protected:
  // 3 folders and 5 files below the root, two levels deep.
  void BuildSmallTree() {
    for (const char* folder : {"/etc", "/home", "/home/ann"}) this->AddFolder(folder);
    for (const char* file : {"/etc/hosts", "/home/ann/a.txt", "/home/ann/b.txt", "/home/notes",
                             "/vmlinuz"})
      this->AddFile(file);
  }
  // Number of records of the table that carry the visited bit.
  size_t Marked() {
    size_t marked = 0;
    this->ScanTable([&](const WzScanDBRecordBasePtr& r) {
      marked += (r->getFlags() & kRecordFlagVisited) != 0;
    });
    return marked;
  }
  static std::vector<unsigned long> Counts(LogAt& log, const char* suffix) {
    std::vector<unsigned long> counts;
    for (const CLogEntry& entry : log->FindContaining(suffix))
      counts.push_back(std::stoul(entry.message));
    return counts;
  }
};
TYPED_TEST_SUITE(ValidateTest, TreeTypes, TreeTypeNames);

// A consistent tree, and the table holding only the root: true, the marking
// and unmarking passes logged with their counts, no record left marked.
TYPED_TEST(ValidateTest, ConsistentTreesAreReportedAndLeftUnmarked) {
  for (unsigned long size : {0ul, 8ul}) {
    SCOPED_TRACE(size);
    if (size) this->BuildSmallTree();
    LogAt log(5);
    bool consistent = false;
    CKoError err = this->db_->validateTree(consistent);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    EXPECT_TRUE(consistent);
    EXPECT_EQ(size + 1, this->CountRecords());
    EXPECT_EQ(0u, this->Marked());
    EXPECT_TRUE(log->FindContaining("Found a disconnected node").empty());

    log.ExpectOnce(
        "Validate Function Called. Expensive Function, May Take Time. Performing BFS Search "
        "marking all nodes as visited.",
        1037, 0, "CKoError WzScanDB::validateTree(bool&)");
    EXPECT_EQ(1u, log->Find("Visited All Reachable Nodes from the Root. Now Checking if any of "
                            "the Nodes are disconnected.").size());
    log.ExpectOnce(
        "Marked all Nodes Reachable from Root as Not Visited. The Database is Consistent", 1082);
    // One count per batch of the walk, then the closing empty batch.
    const std::vector<unsigned long> counts =
        size ? std::vector<unsigned long>{size, 0} : std::vector<unsigned long>{0};
    EXPECT_EQ(counts, this->Counts(log, " Records marked as Visited"));
    if (size) {
      EXPECT_EQ(counts, this->Counts(log, " Records marked as Not Visited"));
    }
    for (const CLogEntry& entry : log->FindContaining(" Records marked as "))
      EXPECT_EQ(5, entry.level);
  }
}

// Several records whose parents are missing give exactly one line, naming
// one of them. The scan trusts the stored visited bit: an unreachable record
// stored already marked is not found.
TYPED_TEST(ValidateTest, DisconnectedRecordsGiveOneLine) {
  this->BuildSmallTree();
  WzScanDBRecordBasePtr marked = this->Make("/lost/marked", false);
  marked->setFlags(kRecordFlagVisited);
  ASSERT_TRUE(this->db_->addFile(marked).IsSuccess());
  bool consistent = false;
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_TRUE(consistent);
  EXPECT_EQ(1u, this->Marked());  // the orphan keeps its bit

  std::vector<WzScanDBRecordBasePtr> orphans = {
      this->AddFile("/lost/o1"), this->AddFolder("/lost/o2"), this->AddFile("/lost/sub/o3")};
  LogAt log(0);
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_FALSE(consistent);
  auto lines = log->FindContaining("Found a disconnected node : ");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(-1, lines[0].level);
  EXPECT_EQ(1065, lines[0].line);
  EXPECT_EQ("CKoError WzScanDB::validateTree(bool&)", lines[0].function);
  bool namesAnOrphan = false;
  for (const WzScanDBRecordBasePtr& orphan : orphans)
    namesAnOrphan |= lines[0].message ==
                     "Found a disconnected node : " + this->Stored(orphan)->toString() + "\n";
  EXPECT_TRUE(namesAnOrphan) << lines[0].message;
  EXPECT_EQ(1u, log->Find("Marked all Nodes Reachable from Root as Not Visited. The Database is "
                          "Not Consistent").size());
  EXPECT_EQ(1u, this->Marked());
}

// printStats counts the root's descendants on stdout and leaves every
// reachable record marked; an unreachable one is neither counted nor marked.
// Without the root record in the table, or without any root record,
// printStats and validateTree fail at the walk, each in its own words.
TYPED_TEST(ValidateTest, PrintStatsAndAMissingRoot) {
  this->BuildSmallTree();
  this->AddFile("/lost/orphan");
  CKoError err;
  auto printStats = [&] {
    testing::internal::CaptureStdout();
    err = this->db_->printStats();
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ("\nTotal Number of Records : 8 , Number of Directories : 3  , Number of Files : 5 \n",
            printStats());
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(9u, this->Marked());
  EXPECT_FALSE(this->Stored(this->Make("/lost/orphan", false))->getFlags() & kRecordFlagVisited);
  EXPECT_TRUE(this->Stored(this->root_)->getFlags() & kRecordFlagVisited);

  ASSERT_TRUE(this->db_->removeFile(this->root_).IsSuccess());
  bool consistent = false;
  ExpectError(this->db_->validateTree(consistent), EKoErrorKind::kErrNo, 2,
              "getSubtree(" + this->db_->getRoot()->toString() + ") with validate = true Failed",
              1048);
  EXPECT_TRUE(consistent);
  LogAt log(0);
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

}  // namespace
