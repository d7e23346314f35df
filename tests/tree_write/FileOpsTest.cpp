// addFile, addFolder, removeFile and removeFolder on small trees.
#include "tree_write/TreeWriteFixture.h"

namespace {

constexpr const char* kRemoveFolderSig = "CKoError WzScanDB::removeFolder(WzScanDBRecordBasePtr)";

template <class Tree>
using FileOpsTest = TreeWriteTest<Tree>;
TYPED_TEST_SUITE(FileOpsTest, TreeTypes, TreeTypeNames);

// The directory bit comes from the operation, not the caller's record; the
// visited bit is kept; the reference time is the database's, also when an
// add updates a stored record. Log lines only at level 6.
TYPED_TEST(FileOpsTest, AddStampsDirectoryBitAndReferenceTime) {
  LogAt log(6);
  WzScanDBRecordBasePtr folder = this->Make("/docs", false);
  folder->setFlags(0);
  folder->setRefTime(7);
  ASSERT_TRUE(this->db_->addFolder(folder).IsSuccess());
  EXPECT_EQ(1, this->Stored(folder)->getFlags());
  EXPECT_EQ(this->kDbRefTime, this->Stored(folder)->getRefTime());

  WzScanDBRecordBasePtr file = this->Make("/docs/a.txt", true);
  file->setFlags(kRecordFlagDirectory | kRecordFlagVisited);
  file->setRefTime(99);
  ASSERT_TRUE(this->db_->addFile(file).IsSuccess());
  log.ExpectOnce("File Record Added : " + file->toString(), 768, 6,
                 "CKoError WzScanDB::addFile(WzScanDBRecordBasePtr)");
  EXPECT_EQ(kRecordFlagVisited, this->Stored(file)->getFlags());
  EXPECT_EQ(this->kDbRefTime, this->Stored(file)->getRefTime());

  this->db_->setRefTime(this->kDbRefTime + 10);
  ASSERT_TRUE(this->db_->addFolder(file).IsSuccess());
  EXPECT_EQ(3, this->Stored(file)->getFlags());
  EXPECT_EQ(this->kDbRefTime + 10, this->Stored(file)->getRefTime());
  EXPECT_EQ(3u, this->CountRecords());

  log.ExpectOnce("Folder Record Added : " + folder->toString(), 789, 6,
                 "CKoError WzScanDB::addFolder(WzScanDBRecordBasePtr)");

  log->Clear();
  g_ptrLogWriter->SetLevel(5);
  ASSERT_TRUE(this->db_->addFile(this->Make("/docs/b.txt", false)).IsSuccess());
  EXPECT_TRUE(log->FindContaining("Record Added").empty());
}

TYPED_TEST(FileOpsTest, EmptyRecordArgumentsFailWith22AndWriteNothing) {
  const WzScanDBRecordBasePtr none;
  ExpectError(this->db_->addFile(none), EKoErrorKind::kErrNo, 22,
              "The given record for Add File is NULL", 756);
  ExpectError(this->db_->addFolder(none), EKoErrorKind::kErrNo, 22,
              "The given record for Add Folder is NULL", 778);
  ExpectError(this->db_->removeFile(none), EKoErrorKind::kErrNo, 22,
              "The given record for Remove File is NULL", 800);
  ExpectError(this->db_->removeFolder(none), EKoErrorKind::kErrNo, 22,
              "The given record for Remove Folder is NULL", 818);
  EXPECT_EQ(1u, this->CountRecords());
}

// removeFile of a folder takes that record only; removing what is not
// stored is not an error.
TYPED_TEST(FileOpsTest, RemoveFileOnFolderRemovesOnlyThatRecord) {
  WzScanDBRecordBasePtr folder = this->AddFolder("/music");
  this->AddFile("/music/one.mp3");
  this->AddFolder("/music/live");
  LogAt log(6);
  ASSERT_TRUE(this->db_->removeFile(folder).IsSuccess());
  EXPECT_FALSE(this->Stored(folder));
  EXPECT_TRUE(this->IsStored("/music/one.mp3", false));
  EXPECT_TRUE(this->IsStored("/music/live", true));
  EXPECT_EQ(1u, log->Find("File Record Removed : " + folder->toString()).size());
  EXPECT_TRUE(this->db_->removeFile(folder).IsSuccess());
}

// The sub-tree goes batch by batch until an empty one, then the folder;
// neighbours sharing the name prefix stay.
TYPED_TEST(FileOpsTest, RemoveFolderRemovesSubTreeAndNothingElse) {
  WzScanDBRecordBasePtr empty = this->AddFolder("/empty");
  WzScanDBRecordBasePtr full = this->AddFolder("/full");
  this->AddFolder("/full/sub");
  this->AddFile("/full/sub/deep.bin");
  this->AddFile("/full/top.bin");
  this->AddFolder("/fuller");
  this->AddFile("/fuller/keep.bin");
  this->AddFile("/full.bin");
  LogAt log(6);

  ASSERT_TRUE(this->db_->removeFolder(empty).IsSuccess());
  EXPECT_EQ(1u, log->FindContaining("Filled the Buffer with").size());
  log.ExpectOnce("Filled the Buffer with 0 Items from the getSubtree() function", 825, 6,
                 kRemoveFolderSig);
  log.ExpectOnce("Folder Record and its descendants Deleted : " + empty->toString(), 845);
  EXPECT_EQ(8u, this->CountRecords());

  log->Clear();
  ASSERT_TRUE(this->db_->removeFolder(full).IsSuccess());
  auto filled = log->FindContaining("Filled the Buffer with");
  ASSERT_EQ(2u, filled.size());
  EXPECT_EQ("Filled the Buffer with 3 Items from the getSubtree() function", filled[0].message);
  EXPECT_EQ("Filled the Buffer with 0 Items from the getSubtree() function", filled[1].message);
  EXPECT_EQ(839, filled[1].line);
  EXPECT_EQ(4u, this->CountRecords());
  EXPECT_TRUE(this->IsStored("/fuller", true));
  EXPECT_TRUE(this->IsStored("/fuller/keep.bin", false));
  EXPECT_TRUE(this->IsStored("/full.bin", false));
  EXPECT_TRUE(this->Stored(this->root_));

  // A folder that is not stored fails at the first sub-tree call.
  WzScanDBRecordBasePtr absent = this->Make("/absent", true);
  CKoError err = this->db_->removeFolder(absent);
  ExpectError(err, EKoErrorKind::kErrNo, 2, "getSubTree(" + absent->toString() + ") Failed", 824);
  EXPECT_EQ("The record " + absent->toString() +
                " is not present in the database to retrieve a subtree",
            err.GetOriginMessage());
  EXPECT_STREQ(kRemoveFolderSig, err.GetFrames().back().location.function);
  EXPECT_EQ(4u, this->CountRecords());
}

}  // namespace
