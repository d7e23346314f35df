// addFile, addFolder and removeFile; removeFolder is in RemoveFolderTest.
#include "tree_write/TreeWriteFixture.h"

namespace {

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
  const WzScanDBRecordBasePtr none, some = this->root_;
  for (auto [from, to] : {std::make_pair(none, some), std::make_pair(some, none)}) {
    ExpectError(this->db_->renameByKey(from, to), EKoErrorKind::kErrNo, 22,
                "One or both of the given records for Rename is NULL", 855);
    ExpectError(this->db_->renameFile(from, to), EKoErrorKind::kErrNo, 22,
                "One or both of the given records for Rename File is NULL", 904);
  }
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

}  // namespace
