// addFile, addFolder, removeFile and removeFolder on small trees, for the
// generic and the Lustre record.
#include <gtest/gtest.h>

#include "runtime/LogCapture.h"
#include "tree_write/TreeWriteFixture.h"

namespace {

constexpr const char* kAddFileSig = "CKoError WzScanDB::addFile(WzScanDBRecordBasePtr)";
constexpr const char* kAddFolderSig = "CKoError WzScanDB::addFolder(WzScanDBRecordBasePtr)";
constexpr const char* kRemoveFolderSig = "CKoError WzScanDB::removeFolder(WzScanDBRecordBasePtr)";

template <class Tree>
using FileOpsTest = TreeWriteTest<Tree>;
TYPED_TEST_SUITE(FileOpsTest, TreeTypes, TreeTypeNames);

TYPED_TEST(FileOpsTest, AddStampsDirectoryBitAndReferenceTime) {
  ScopedLogLevel level(6);
  auto capture = CLogCapture::Install();

  WzScanDBRecordBasePtr folder = this->Make("/docs", false);
  folder->setFlags(0);
  folder->setRefTime(7);
  ASSERT_TRUE(this->db_->addFolder(folder).IsSuccess());
  WzScanDBRecordBasePtr storedFolder = this->Stored(folder);
  ASSERT_TRUE(storedFolder);
  EXPECT_EQ(1, storedFolder->getFlags());
  EXPECT_EQ(this->kDbRefTime, storedFolder->getRefTime());

  // Flags 3 (directory and visited): the directory bit goes, the visited bit stays.
  WzScanDBRecordBasePtr file = this->Make("/docs/a.txt", true);
  file->setFlags(3);
  file->setRefTime(99);
  ASSERT_TRUE(this->db_->addFile(file).IsSuccess());
  WzScanDBRecordBasePtr storedFile = this->Stored(file);
  ASSERT_TRUE(storedFile);
  EXPECT_EQ(2, storedFile->getFlags());
  EXPECT_EQ(this->kDbRefTime, storedFile->getRefTime());

  // Adding again updates in place, still stamped with the current reference time.
  this->db_->setRefTime(this->kDbRefTime + 10);
  ASSERT_TRUE(this->db_->addFolder(file).IsSuccess());
  EXPECT_EQ(3, this->Stored(file)->getFlags());
  EXPECT_EQ(this->kDbRefTime + 10, this->Stored(file)->getRefTime());

  auto folderLines = capture->Find("Folder Record Added : " + folder->toString());
  ASSERT_EQ(1u, folderLines.size());
  EXPECT_EQ(6, folderLines[0].level);
  EXPECT_EQ(kAddFolderSig, folderLines[0].function);
  EXPECT_EQ(789, folderLines[0].line);
  auto fileLines = capture->FindContaining("File Record Added : ");
  ASSERT_EQ(1u, fileLines.size());
  EXPECT_EQ(kAddFileSig, fileLines[0].function);
  EXPECT_EQ(768, fileLines[0].line);

  // Below level 6 nothing is written.
  capture->Clear();
  {
    ScopedLogLevel quiet(5);
    ASSERT_TRUE(this->db_->addFile(this->Make("/docs/b.txt", false)).IsSuccess());
  }
  EXPECT_TRUE(capture->FindContaining("Record Added").empty());
}

TYPED_TEST(FileOpsTest, EmptyRecordArgumentsFailWith22AndWriteNothing) {
  const size_t before = this->CountRecords();
  struct Case {
    CKoError err;
    const char* text;
    int line;
  };
  const Case cases[] = {
      {this->db_->addFile(WzScanDBRecordBasePtr()), "The given record for Add File is NULL", 756},
      {this->db_->addFolder(WzScanDBRecordBasePtr()), "The given record for Add Folder is NULL",
       778},
      {this->db_->removeFile(WzScanDBRecordBasePtr()), "The given record for Remove File is NULL",
       800},
      {this->db_->removeFolder(WzScanDBRecordBasePtr()),
       "The given record for Remove Folder is NULL", 818},
  };
  for (const Case& c : cases) {
    ASSERT_TRUE(c.err.IsError()) << c.text;
    EXPECT_EQ(EKoErrorKind::kErrNo, c.err.GetKind());
    EXPECT_EQ(22, c.err.GetCode());
    ASSERT_EQ(1u, c.err.GetFrames().size());
    EXPECT_EQ(c.text, c.err.GetOriginMessage());
    EXPECT_STREQ("WzScanDB/WzScanDB", c.err.GetFrames()[0].location.file);
    EXPECT_EQ(c.line, c.err.GetFrames()[0].location.line);
  }
  EXPECT_EQ(before, this->CountRecords());
}

TYPED_TEST(FileOpsTest, RemoveFileOnFolderRemovesOnlyThatRecord) {
  WzScanDBRecordBasePtr folder = this->AddFolder("/music");
  this->AddFile("/music/one.mp3");
  this->AddFolder("/music/live");

  ScopedLogLevel level(6);
  auto capture = CLogCapture::Install();
  ASSERT_TRUE(this->db_->removeFile(folder).IsSuccess());
  EXPECT_FALSE(this->Stored(folder));
  EXPECT_TRUE(this->IsStored("/music/one.mp3", false));
  EXPECT_TRUE(this->IsStored("/music/live", true));
  EXPECT_EQ(1u, capture->Find("File Record Removed : " + folder->toString()).size());

  // Removing what is not there is not an error.
  EXPECT_TRUE(this->db_->removeFile(folder).IsSuccess());
}

TYPED_TEST(FileOpsTest, RemoveFolderRemovesSubTreeAndNothingElse) {
  WzScanDBRecordBasePtr empty = this->AddFolder("/empty");
  WzScanDBRecordBasePtr full = this->AddFolder("/full");
  this->AddFolder("/full/sub");
  this->AddFile("/full/sub/deep.bin");
  this->AddFile("/full/top.bin");
  this->AddFolder("/fuller");
  this->AddFile("/fuller/keep.bin");
  this->AddFile("/full.bin");
  const size_t before = this->CountRecords();

  ScopedLogLevel level(6);
  auto capture = CLogCapture::Install();

  // An empty folder: one sub-tree call, an empty buffer, then the folder alone.
  ASSERT_TRUE(this->db_->removeFolder(empty).IsSuccess());
  auto filled = capture->FindContaining("Filled the Buffer with");
  ASSERT_EQ(1u, filled.size());
  EXPECT_EQ("Filled the Buffer with 0 Items from the getSubtree() function", filled[0].message);
  EXPECT_EQ(825, filled[0].line);
  EXPECT_EQ(kRemoveFolderSig, filled[0].function);
  auto done = capture->Find("Folder Record and its descendants Deleted : " + empty->toString());
  ASSERT_EQ(1u, done.size());
  EXPECT_EQ(845, done[0].line);
  EXPECT_EQ(before - 1, this->CountRecords());

  // A folder with a sub-folder: all four records go, the neighbours stay.
  capture->Clear();
  ASSERT_TRUE(this->db_->removeFolder(full).IsSuccess());
  filled = capture->FindContaining("Filled the Buffer with");
  ASSERT_EQ(2u, filled.size());
  EXPECT_EQ("Filled the Buffer with 3 Items from the getSubtree() function", filled[0].message);
  EXPECT_EQ("Filled the Buffer with 0 Items from the getSubtree() function", filled[1].message);
  EXPECT_EQ(839, filled[1].line);
  EXPECT_EQ(before - 5, this->CountRecords());
  for (const char* gone : {"/full", "/full/sub"}) EXPECT_FALSE(this->IsStored(gone, true)) << gone;
  for (const char* gone : {"/full/sub/deep.bin", "/full/top.bin"})
    EXPECT_FALSE(this->IsStored(gone, false)) << gone;
  EXPECT_TRUE(this->IsStored("/fuller", true));
  EXPECT_TRUE(this->IsStored("/fuller/keep.bin", false));
  EXPECT_TRUE(this->IsStored("/full.bin", false));
  EXPECT_TRUE(this->Stored(this->root_));
}

TYPED_TEST(FileOpsTest, RemoveFolderOfAbsentRecordFailsAtFirstSubTreeCall) {
  this->AddFolder("/present");
  const size_t before = this->CountRecords();
  WzScanDBRecordBasePtr absent = this->Make("/absent", true);
  CKoError err = this->db_->removeFolder(absent);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
  EXPECT_EQ(2, err.GetCode());
  EXPECT_EQ("The record " + absent->toString() +
                " is not present in the database to retrieve a subtree",
            err.GetOriginMessage());
  EXPECT_EQ("getSubTree(" + absent->toString() + ") Failed", err.GetTopMessage());
  EXPECT_EQ(824, err.GetFrames().back().location.line);
  EXPECT_STREQ(kRemoveFolderSig, err.GetFrames().back().location.function);
  EXPECT_EQ(before, this->CountRecords());
}

}  // namespace
