// renameByKey, renameFile and renameFolder.
#include <iterator>

#include "tree_write/TreeWriteFixture.h"

namespace {

constexpr const char* kRenameFolderSig =
    "CKoError WzScanDB::renameFolder(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr, std::string, "
    "std::string)";
constexpr unsigned long long kRenameTime = 0x60000001ULL;

template <class Tree>
using RenameTest = TreeWriteTest<Tree>;
TYPED_TEST_SUITE(RenameTest, TreeTypes);

// renameByKey takes the stored record's fields (the caller's old record is a
// bare key); renameFile stores the caller's new record as it is, adding it
// before it looks for the old one. Both stamp the database's reference time.
TYPED_TEST(RenameTest, RenameByKeyAndRenameFile) {
  this->AddFolder("/d");
  this->Add("/d/old.txt", false, 4242, kRecordFlagVisited);
  this->Add("/d/old2.txt", false, 4242, kRecordFlagVisited);
  WzScanDBRecordBasePtr oldRecord = this->Make("/d/old.txt", false);
  WzScanDBRecordBasePtr byKey = this->Make("/d/new.txt", false);
  WzScanDBRecordBasePtr byFile = this->Make("/d/new2.txt", false);
  this->SetStatSize(byKey, 1);
  this->SetStatSize(byFile, 77);
  byFile->setRefTime(5);
  this->db_->setRefTime(kRenameTime);
  LogAt log(6);
  ASSERT_TRUE(this->db_->renameByKey(oldRecord, byKey).IsSuccess());
  ASSERT_TRUE(this->db_->renameFile(this->Make("/d/old2.txt", false), byFile).IsSuccess());
  log.ExpectOnce("Rename Record : " + oldRecord->toString() + " ----------> : " + byKey->toString(),
                 894);
  EXPECT_FALSE(this->IsStored("/d/old.txt", false) || this->IsStored("/d/old2.txt", false));
  WzScanDBRecordBasePtr stored = this->Stored(byKey);
  ASSERT_TRUE(stored);
  EXPECT_EQ("new.txt", stored->getName());
  EXPECT_EQ(kRecordFlagVisited, stored->getFlags());
  EXPECT_EQ(kRenameTime, stored->getRefTime());
  EXPECT_EQ(TypeParam::kKeyedOnPath ? 4242u : 1u, this->StatSize(stored));
  ASSERT_TRUE(stored = this->Stored(byFile));
  EXPECT_EQ(0, stored->getFlags());
  EXPECT_EQ(77u, this->StatSize(stored));
  EXPECT_EQ(kRenameTime, stored->getRefTime());
  EXPECT_EQ(4u, this->CountRecords());

  // Old record not stored: renameByKey adds nothing, renameFile has already
  // added the new one.
  WzScanDBRecordBasePtr target = this->Make("/d/target", false);
  ExpectError(this->db_->renameByKey(this->Make("/d/ghost", false), target), EKoErrorKind::kErrNo,
              2, "Cannot rename since the record doesn't exist in the database.", 871);
  EXPECT_FALSE(this->Stored(target));
  ExpectError(this->db_->renameFile(this->Make("/d/ghost", false), target), EKoErrorKind::kErrNo,
              2, "Cannot rename file since the file doesn't exist in the database.", 922);
  EXPECT_TRUE(this->Stored(target));
}

// renameFolder /x -> /y of a sub-tree with nested folders, /xx an untouched
// neighbour: every descendant is stored under the key made from its new
// path (folders with a trailing '/'), with the old record's flags (and,
// generic record, status) and the database's reference time; the old keys
// are gone; one log line per item in walk order, then the folder's own.
//
// What validateTree then reports for generic records: a renamed sub-folder's
// key is the MD5 of its new path WITH the trailing delimiter ("/y/a/b/"),
// while the records below it were made from "/y/a/b/f1", whose parent path
// is "/y/a/b" without it. So /y/a/b/, /y/a/f and /y/a/b/f1 are unreachable:
// consistent == false, with one "Found a disconnected node" line. The Lustre
// record keys on the FID, which the file system gives the entry whatever the
// spelling of its path: that tree stays connected. A folder that is not
// stored is error 2, nothing moves.
struct Item {
  const char *oldPath, *newPath;
  bool isDir;
  uint64_t size;
};
const Item kItems[] = {  // breadth-first, by name within a folder
    {"/x/a", "/y/a/", true, 11},     {"/x/c", "/y/c/", true, 12},
    {"/x/g", "/y/g", false, 13},     {"/x/a/b", "/y/a/b/", true, 14},
    {"/x/a/f", "/y/a/f", false, 15}, {"/x/a/b/f1", "/y/a/b/f1", false, 16},
};

TYPED_TEST(RenameTest, RenameFolderMovesEverythingBelowItUnderNewKeys) {
  WzScanDBRecordBasePtr oldFolder = this->Add("/x", true, 10);
  for (const Item& item : kItems)
    this->Add(item.oldPath, item.isDir, item.size, item.size < 14 ? kRecordFlagVisited : 0);
  this->AddFolder("/xx");
  this->AddFile("/xx/h");
  WzScanDBRecordBasePtr newFolder = this->Make("/y", true);
  this->SetStatSize(newFolder, 20);
  this->db_->setRefTime(kRenameTime);
  LogAt log(6);
  CKoError err = this->db_->renameFolder(this->Make("/x", true), newFolder, "/x", "/y");
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();

  EXPECT_EQ(10u, this->CountRecords());
  EXPECT_FALSE(this->Stored(oldFolder));
  WzScanDBRecordBasePtr storedFolder = this->Stored(newFolder);
  ASSERT_TRUE(storedFolder);
  EXPECT_EQ(20u, this->StatSize(storedFolder));  // the caller's new record, as it is
  EXPECT_EQ(kRenameTime, storedFolder->getRefTime());
  EXPECT_TRUE(this->IsStored("/xx/h", false));
  std::vector<std::string> lines;
  for (const Item& item : kItems) {
    lines.push_back(std::string("6 994 Renaming path from : ") + item.oldPath + " to " + item.newPath);
    EXPECT_FALSE(this->IsStored(item.oldPath, item.isDir));
    WzScanDBRecordBasePtr stored = this->Stored(this->Make(item.newPath, item.isDir));
    ASSERT_TRUE(stored) << item.newPath;
    EXPECT_EQ((item.isDir ? kRecordFlagDirectory : 0) | (item.size < 14 ? kRecordFlagVisited : 0),
              stored->getFlags());
    EXPECT_EQ(kRenameTime, stored->getRefTime());
    EXPECT_EQ(TypeParam::kKeyedOnPath ? item.size : 0u, this->StatSize(stored));
  }
  lines.push_back("6 1010 Renaming path from : /x to /y");
  EXPECT_EQ(lines, Logged(log, "Renaming path from : "));
  EXPECT_EQ(kRenameFolderSig, log->FindContaining("Renaming path from : ")[0].function);
  EXPECT_EQ(1u, log->Find("Rename Operation from /x to /y performed successfully").size());
  EXPECT_EQ((std::vector<std::string>{
                "6 962 Filled the Buffer with 6 Items from the getSubtree function",
                "6 1000 Filled the Buffer with 0 Items from the getSubtree function"}),
            Logged(log, "Filled the Buffer"));

  // A folder that is not stored is error 2, nothing moves.
  err = this->db_->renameFolder(this->Make("/nope", true), this->Make("/z", true), "/nope", "/z");
  ExpectError(err, EKoErrorKind::kErrNo, 2,
              "Cannot rename folder /nope since the folder doesn't exist in the database", 944);
  EXPECT_STREQ(kRenameFolderSig, err.GetFrames().back().location.function);
  EXPECT_FALSE(this->IsStored("/z", true));

  bool consistent = true;
  log->Clear();
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_EQ(!TypeParam::kKeyedOnPath, consistent);
  EXPECT_EQ(TypeParam::kKeyedOnPath ? 1u : 0u, log->FindContaining("Found a disconnected node").size());
}

}  // namespace
