// Cycles of parent links. Each record has one parent link, so a walk can come
// back only to its start record; met again as a folder it would be expanded
// for ever. Every walk ends there with errno 40 (ELOOP) naming that record,
// wrapped by each caller in its own words, and has changed no more of the
// table than the walk up to that record did; validateTree takes its marks
// back. getPathFromRecord stops at a cycle with errno 40 too.
#include <cstring>
#include <string>
#include <vector>

#include "tree_write/TreeWriteFixture.h"

namespace {

constexpr const char* kCycleText = " is its own descendant: its parent links form a cycle";

template <class Tree>
class ParentCycleTest : public TreeWriteTest<Tree> {
 protected:
  // Gives `record` the parent link `parent` (its own identifier; null:
  // none) and stores it as the folder or file it is.
  void Link(const WzScanDBRecordBasePtr& record, const WzScanDBRecordBasePtr& parent) {
    char* image = static_cast<char*>(record->getStructure());
    if (parent)
      std::memcpy(image + Tree::kIdBytes, parent->getStructure(), Tree::kIdBytes);
    else
      std::memset(image + Tree::kIdBytes, 0, Tree::kIdBytes);
    CKoError err = record->isDir() ? this->db_->addFolder(record) : this->db_->addFile(record);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  }
  size_t Marked() {
    size_t marked = 0;
    this->ScanTable([&](const WzScanDBRecordBasePtr& r) {
      marked += (r->getFlags() & kRecordFlagVisited) != 0;
    });
    return marked;
  }
  // `err` is the cycle error of a walk (its origin frame), meeting `met`
  // again as stored, or as a marking walk had marked it.
  void ExpectCycle(const CKoError& err, const WzScanDBRecordBasePtr& met, bool marked = false) {
    ASSERT_TRUE(err.IsError());
    EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
    EXPECT_EQ(40, err.GetCode());
    WzScanDBRecordBasePtr seen = this->Stored(met);
    if (marked) seen->setFlags(seen->getFlags() | kRecordFlagVisited);
    EXPECT_EQ("The record " + seen->toString() + kCycleText, err.GetOriginMessage());
  }
};
TYPED_TEST_SUITE(ParentCycleTest, TreeTypes, TreeTypeNames);

std::vector<std::string> Names(const std::vector<WzScanDBRecordBasePtr>& records) {
  std::vector<std::string> names;
  for (const auto& record : records) names.push_back(record->getName());
  return names;
}

// /a and /a/b are each other's parent: below a, b and d come first, then b's
// children lead back to a.
TYPED_TEST(ParentCycleTest, EveryWalkStopsWhereItMeetsItsStartAgain) {
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
  EXPECT_STREQ("CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr, "
               "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, "
               "std::vector<std::__cxx11::basic_string<char> >&, bool)",
               err.GetFrames().front().location.function);
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
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(40, err.GetCode());
  EXPECT_EQ("The parent links above " + c->toString() + " form a cycle through " +
                this->Stored(b)->toString() + ": the record has no path",
            err.GetTopMessage());
  EXPECT_EQ("b/a/b/c", path);
}

// A root that is its own parent, and a folder with the empty path (the null
// identifier, which is also every root's parent link): validateTree fails
// at the cycle and leaves no mark. A file that is its own parent ends a walk
// at once and is returned once, as it always was.
TYPED_TEST(ParentCycleTest, SelfLinksAndTheEmptyPath) {
  this->AddFolder("/x");
  WzScanDBRecordBasePtr file = this->AddFile("/x/f");
  this->Link(this->root_, this->root_);
  bool consistent = false;
  CKoError err = this->db_->validateTree(consistent);
  this->ExpectCycle(err, this->root_, true);
  ExpectError(err, EKoErrorKind::kErrNo, 40,
              "getSubtree(" + this->db_->getRoot()->toString() + ") with validate = true Failed",
              1048);
  EXPECT_EQ(0u, this->Marked());
  std::string path;
  EXPECT_EQ(40, this->db_->getPathFromRecord(file, path).GetCode());

  this->Link(this->root_, nullptr);
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
  std::vector<WzScanDBRecordBasePtr> records;
  ASSERT_TRUE(this->db_->getSubTree(selfish, records, false).IsSuccess());
  EXPECT_EQ((std::vector<std::string>{"selfish"}), Names(records));
}

}  // namespace
