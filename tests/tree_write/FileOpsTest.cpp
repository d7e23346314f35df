// addFile, addFolder, removeFile and removeFolder, and renameFolder of a
// sub-tree larger than one batch.

#include "tree_write/TreeWriteFixture.h"

namespace {

template <class Tree>
using FileOpsTest = TreeWriteTest<Tree>;
TYPED_TEST_SUITE(FileOpsTest, TreeTypes);

// The directory bit comes from the operation, not the caller's record; the
// visited bit is kept; the reference time is the database's, also when an
// add updates a stored record. removeFile of a folder takes that record
// only; removing what is not stored is no error. Log lines only at level 6.
TYPED_TEST(FileOpsTest, AddStampsDirectoryBitAndReferenceTimeRemoveFileTakesOneRecord) {
  LogAt log(6);
  WzScanDBRecordBasePtr folder = this->Make("/docs", false), file = this->Make("/docs/a.txt", true);
  folder->setRefTime(7);
  file->setFlags(kRecordFlagDirectory | kRecordFlagVisited);
  file->setRefTime(99);
  ASSERT_TRUE(this->db_->addFolder(folder).IsSuccess());
  ASSERT_TRUE(this->db_->addFile(file).IsSuccess());
  std::vector<std::string> lines = {"6 789 Folder Record Added : " + folder->toString(),
                                    "6 768 File Record Added : " + file->toString()};
  EXPECT_EQ(kRecordFlagDirectory, this->Stored(folder)->getFlags());
  EXPECT_EQ(kRecordFlagVisited, this->Stored(file)->getFlags());
  EXPECT_EQ(this->kDbRefTime, this->Stored(folder)->getRefTime());
  EXPECT_EQ(this->kDbRefTime, this->Stored(file)->getRefTime());
  this->db_->setRefTime(this->kDbRefTime + 10);
  ASSERT_TRUE(this->db_->addFolder(file).IsSuccess());
  lines.push_back("0 158 The Reference Time for the Database is set to " +
                  std::to_string(this->kDbRefTime + 10));
  lines.push_back("6 789 Folder Record Added : " + file->toString());
  EXPECT_EQ(kRecordFlagDirectory | kRecordFlagVisited, this->Stored(file)->getFlags());
  EXPECT_EQ(this->kDbRefTime + 10, this->Stored(file)->getRefTime());
  for (int twice = 0; twice < 2; ++twice) {
    ASSERT_TRUE(this->db_->removeFile(folder).IsSuccess());
    lines.push_back("6 806 File Record Removed : " + folder->toString());
  }
  EXPECT_TRUE(!this->Stored(folder) && this->Stored(file));
  g_ptrLogWriter->SetLevel(5);
  ASSERT_TRUE(this->db_->removeFile(file).IsSuccess());
  EXPECT_EQ(lines, Logged(log));
  EXPECT_EQ(1u, this->CountRecords());
}

// Sub-trees larger than one batch of the sub-tree walk (10000, plus the
// children of the folder that crossed it), read from the walk state batch
// after batch, as the level-6 "Filled the Buffer with %lu Items" lines show:
// renameFolder moves every item exactly once (a trailing delimiter on the old
// path builds the same item paths); removeFolder removes exactly the
// sub-tree, and the folder itself only after an empty batch. An empty folder
// takes one empty batch; a folder that is not stored fails at the first walk.
TYPED_TEST(FileOpsTest, BigSubTreesMoveAndGoInBoundedBatches) {
  WzScanDBRecordBasePtr big = this->AddFolder("/big"), empty = this->AddFolder("/empty");
  this->AddWide("/big", 12, 1000);
  this->AddFolder("/x");
  this->AddWide("/x", 12, 1000);
  // Neighbours that must survive: a sibling whose name shares the prefix,
  // and a folder with its own children.
  for (const char* path : {"/big2", "/keep", "/keep/inner"}) this->AddFolder(path);
  for (const char* path : {"/big2/keep-a", "/keep/inner/keep-b", "/keep-c"}) this->AddFile(path);
  const size_t records = this->CountRecords();
  LogAt log(6);
  ASSERT_TRUE(this->db_->renameFolder(this->Make("/x", true), this->Make("/y", true), "/x/", "/y")
                  .IsSuccess());
  const std::string tail = " Items from the getSubtree function";
  EXPECT_EQ((std::vector<std::string>{"6 962 Filled the Buffer with 10012" + tail,
                                      "6 1000 Filled the Buffer with 2000" + tail,
                                      "6 1000 Filled the Buffer with 0" + tail}),
            Logged(log, "Filled the Buffer"));
  EXPECT_EQ(12u * 1001 + 1, log->FindContaining("Renaming path from : /x/").size());
  EXPECT_EQ(1u, log->Find("Renaming path from : /x/d7/f9 to /y/d7/f9").size());
  EXPECT_EQ(1u, log->Find("Renaming path from : /x/ to /y").size());
  EXPECT_EQ(records, this->CountRecords());
  EXPECT_TRUE(this->IsStored("/y", true) && this->IsStored("/y/d11/", true));
  EXPECT_TRUE(this->IsStored("/y/d11/f999", false) && !this->IsStored("/x/d11/f999", false));

  const char* kRemoveFolder = "CKoError WzScanDB::removeFolder(WzScanDBRecordBasePtr)";
  log->Clear();
  ASSERT_TRUE(this->db_->removeFolder(empty).IsSuccess());
  log.ExpectOnce("Filled the Buffer with 0 Items from the getSubtree() function", 825, 6,
                 kRemoveFolder);
  log->Clear();
  ASSERT_TRUE(this->db_->removeFolder(big).IsSuccess());
  const std::string removeTail = " Items from the getSubtree() function";
  EXPECT_EQ((std::vector<std::string>{"6 825 Filled the Buffer with 10012" + removeTail,
                                      "6 839 Filled the Buffer with 2000" + removeTail,
                                      "6 839 Filled the Buffer with 0" + removeTail,
                                      "6 845 Folder Record and its descendants Deleted : " +
                                          big->toString()}),
            Logged(log));
  EXPECT_EQ(records - 12 * 1001 - 2, this->CountRecords());
  for (const char* path : {"/big2", "/keep", "/keep/inner"}) EXPECT_TRUE(this->IsStored(path, true));
  for (const char* path : {"/big2/keep-a", "/keep/inner/keep-b", "/keep-c"})
    EXPECT_TRUE(this->IsStored(path, false)) << path;

  CKoError err = this->db_->removeFolder(big);
  ExpectError(err, EKoErrorKind::kErrNo, 2, "getSubTree(" + big->toString() + ") Failed", 824);
  EXPECT_EQ("The record " + big->toString() + " is not present in the database to retrieve a subtree",
            err.GetOriginMessage());
  EXPECT_STREQ(kRemoveFolder, err.GetFrames().back().location.function);
}

}  // namespace
