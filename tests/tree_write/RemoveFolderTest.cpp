// removeFolder. A sub-tree of more than 100 000 entries goes, exactly that
// sub-tree, and the records held in memory at any time stay within one
// batch (the bound, 10000, plus the children of the folder that crossed it).
// The buffer sizes are read from removeFolder's own level-6
// "Filled the Buffer with %lu Items" lines.
#include <algorithm>
#include <cstdio>
#include <string>

#include "tree_write/TreeWriteFixture.h"

namespace {

constexpr const char* kRemoveFolderSig = "CKoError WzScanDB::removeFolder(WzScanDBRecordBasePtr)";
constexpr int kFolders = 100, kFilesPerFolder = 1000;
constexpr size_t kSubTreeSize = kFolders + size_t(kFolders) * kFilesPerFolder;  // below /big
constexpr size_t kBatchBound = 10000 + kFilesPerFolder;

template <class Tree>
using RemoveFolderTest = TreeWriteTest<Tree>;
TYPED_TEST_SUITE(RemoveFolderTest, TreeTypes, TreeTypeNames);

TYPED_TEST(RemoveFolderTest, RemovesExactlyTheSubTreeInBoundedBatches) {
  char name[64];
  WzScanDBRecordBasePtr big = this->AddFolder("/big");
  for (int f = 0; f < kFolders; ++f) {
    std::snprintf(name, sizeof name, "/big/dir-%03d", f);
    const std::string folder = name;
    this->AddFolder(folder);
    for (int i = 0; i < kFilesPerFolder; ++i) {
      std::snprintf(name, sizeof name, "/file-%04d.dat", i);
      this->AddFile(folder + name);
    }
  }
  // Neighbours that must survive: a sibling whose name shares the prefix,
  // and a folder with its own children.
  const char* keptFolders[] = {"/big2", "/keep", "/keep/inner"};
  const char* keptFiles[] = {"/big2/keep-a", "/keep/inner/keep-b", "/keep-c"};
  for (const char* path : keptFolders) this->AddFolder(path);
  for (const char* path : keptFiles) this->AddFile(path);
  WzScanDBRecordBasePtr empty = this->AddFolder("/empty");
  ASSERT_EQ(7 + 2 + kSubTreeSize, this->CountRecords());

  // An empty folder: one sub-tree call, an empty buffer, then the folder.
  LogAt log(6);
  ASSERT_TRUE(this->db_->removeFolder(empty).IsSuccess());
  EXPECT_EQ(1u, log->FindContaining("Filled the Buffer with").size());
  log.ExpectOnce("Filled the Buffer with 0 Items from the getSubtree() function", 825, 6,
                 kRemoveFolderSig);
  log.ExpectOnce("Folder Record and its descendants Deleted : " + empty->toString(), 845);

  log->Clear();
  ASSERT_TRUE(this->db_->removeFolder(big).IsSuccess());
  size_t total = 0, largest = 0, batches = 0, last = 1;
  for (const CLogEntry& entry : log->FindContaining("Filled the Buffer with ")) {
    unsigned long items = 0;
    ASSERT_EQ(1, std::sscanf(entry.message.c_str(), "Filled the Buffer with %lu Items", &items));
    EXPECT_EQ(batches == 0 ? 825 : 839, entry.line);
    total += items;
    largest = std::max<size_t>(largest, items);
    last = items;
    ++batches;
  }
  EXPECT_EQ(kSubTreeSize, total);
  EXPECT_LE(largest, kBatchBound);
  EXPECT_GT(largest, 10000u);  // batches really are full ones, not one record at a time
  EXPECT_GE(batches, kSubTreeSize / kBatchBound + 1);
  EXPECT_EQ(0u, last);  // the folder goes only after an empty batch
  log.ExpectOnce("Folder Record and its descendants Deleted : " + big->toString(), 845);

  EXPECT_EQ(7u, this->CountRecords());
  EXPECT_TRUE(this->Stored(this->root_));
  for (const char* path : keptFolders) EXPECT_TRUE(this->IsStored(path, true)) << path;
  for (const char* path : keptFiles) EXPECT_TRUE(this->IsStored(path, false)) << path;

  // A folder that is not stored fails at the first sub-tree call.
  CKoError err = this->db_->removeFolder(big);
  ExpectError(err, EKoErrorKind::kErrNo, 2, "getSubTree(" + big->toString() + ") Failed", 824);
  EXPECT_EQ("The record " + big->toString() +
                " is not present in the database to retrieve a subtree",
            err.GetOriginMessage());
  EXPECT_STREQ(kRemoveFolderSig, err.GetFrames().back().location.function);
  EXPECT_EQ(7u, this->CountRecords());
}

}  // namespace
