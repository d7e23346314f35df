// renameByKey, renameFile and renameFolder.
#include <iterator>
#include <string>
#include <vector>

#include <boost/pointer_cast.hpp>

#include "tree_write/TreeWriteFixture.h"

namespace {

constexpr const char* kRenameFolderSig =
    "CKoError WzScanDB::renameFolder(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr, std::string, "
    "std::string)";
constexpr unsigned long long kRenameTime = 0x60000001ULL;

template <class Tree>
using RenameTest = TreeWriteTest<Tree>;
TYPED_TEST_SUITE(RenameTest, TreeTypes, TreeTypeNames);

// renameByKey takes the stored record's fields (the caller's old record is a
// bare key); renameFile stores the caller's new record as it is, adding it
// before it looks for the old one. Both stamp the database's reference time.
TYPED_TEST(RenameTest, RenameByKeyAndRenameFile) {
  this->AddFolder("/d");
  this->Add("/d/old.txt", false, 4242, kRecordFlagVisited);
  this->Add("/d/old2.txt", false, 4242, kRecordFlagVisited);
  WzScanDBRecordBasePtr oldRecord = this->Make("/d/old.txt", false);
  WzScanDBRecordBasePtr byKey = this->Make("/d/new.txt", false);
  this->SetStatSize(byKey, 1);
  WzScanDBRecordBasePtr byFile = this->Make("/d/new2.txt", false);
  this->SetStatSize(byFile, 77);
  byFile->setRefTime(5);
  this->db_->setRefTime(kRenameTime);

  LogAt log(6);
  ASSERT_TRUE(this->db_->renameByKey(oldRecord, byKey).IsSuccess());
  ASSERT_TRUE(this->db_->renameFile(this->Make("/d/old2.txt", false), byFile).IsSuccess());
  EXPECT_FALSE(this->IsStored("/d/old.txt", false));
  EXPECT_FALSE(this->IsStored("/d/old2.txt", false));
  WzScanDBRecordBasePtr stored = this->Stored(byKey);
  ASSERT_TRUE(stored);
  EXPECT_EQ("new.txt", stored->getName());
  EXPECT_EQ(kRecordFlagVisited, stored->getFlags());
  EXPECT_EQ(kRenameTime, stored->getRefTime());
  EXPECT_EQ(TypeParam::kCarriesStatus ? 4242u : 1u, this->StatSize(stored));
  stored = this->Stored(byFile);
  ASSERT_TRUE(stored);
  EXPECT_EQ(0, stored->getFlags());
  EXPECT_EQ(77u, this->StatSize(stored));
  EXPECT_EQ(kRenameTime, stored->getRefTime());
  EXPECT_EQ(4u, this->CountRecords());
  log.ExpectOnce("Rename Record : " + oldRecord->toString() + " ----------> : " +
                     byKey->toString(),
                 894);

  // Old record not stored: renameByKey adds nothing, renameFile has already
  // added the new one.
  WzScanDBRecordBasePtr target = this->Make("/d/target", false);
  ExpectError(this->db_->renameByKey(this->Make("/d/ghost", false), target), EKoErrorKind::kErrNo,
              2, "Cannot rename since the record doesn't exist in the database.", 871);
  EXPECT_FALSE(this->Stored(target));
  ExpectError(this->db_->renameFile(this->Make("/d/ghost", false), target), EKoErrorKind::kErrNo,
              2, "Cannot rename file since the file doesn't exist in the database.", 922);
  EXPECT_TRUE(this->Stored(target));
  EXPECT_EQ(5u, this->CountRecords());
}

// renameFolder /x -> /y of a sub-tree with nested folders, /xx an untouched
// neighbour. Breadth-first, by name within a folder: the order of the
// per-item lines. New paths as renameFolder builds them: folders end with '/'.
struct Item {
  const char* oldPath;
  const char* newPath;
  bool isDir;
  uint64_t size;
};
const Item kItems[] = {
    {"/x/a", "/y/a/", true, 11},     {"/x/c", "/y/c/", true, 12},
    {"/x/g", "/y/g", false, 13},     {"/x/a/b", "/y/a/b/", true, 14},
    {"/x/a/f", "/y/a/f", false, 15}, {"/x/a/b/f1", "/y/a/b/f1", false, 16},
};

// Every descendant is stored under the key made from its new path, with the
// old record's flags (and, generic record, status) and the database's
// reference time; the old keys are gone.
//
// What validateTree then reports for generic records: a renamed sub-folder's
// key is the MD5 of its new path WITH the trailing delimiter ("/y/a/b/"),
// while the records below it were made from "/y/a/b/f1", whose parent path
// is "/y/a/b" without it. So /y/a/ is still reachable from the root (its
// parent /y is found from "/y"), but /y/a/b/, /y/a/f and /y/a/b/f1 are not:
// validateTree returns consistent == false and writes exactly one
// "Found a disconnected node" line naming one of those three. /y/c/ and /y/g
// stay reachable. The Lustre record keys on the FID, which the file system
// gives the entry whatever the spelling of its path, so the Lustre tree stays
// connected and validateTree finds it consistent.
TYPED_TEST(RenameTest, RenameFolderMovesEverythingBelowItUnderNewKeys) {
  WzScanDBRecordBasePtr oldFolder = this->Add("/x", true, 10);
  // The children of /x carry the visited bit (they stay reachable, see above).
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
  for (const Item& item : kItems) {
    SCOPED_TRACE(item.newPath);
    EXPECT_FALSE(this->IsStored(item.oldPath, item.isDir));
    WzScanDBRecordBasePtr stored = this->Stored(this->Make(item.newPath, item.isDir));
    ASSERT_TRUE(stored);
    EXPECT_EQ((item.isDir ? kRecordFlagDirectory : 0) | (item.size < 14 ? kRecordFlagVisited : 0),
              stored->getFlags());
    EXPECT_EQ(kRenameTime, stored->getRefTime());
    EXPECT_EQ(TypeParam::kCarriesStatus ? item.size : 0u, this->StatSize(stored));
  }
  EXPECT_TRUE(this->IsStored("/xx", true));
  EXPECT_TRUE(this->IsStored("/xx/h", false));
  if (TypeParam::kKeyedOnPath) {
    // The sub-folder is keyed on "/y/a/b/", its child points at "/y/a/b".
    EXPECT_FALSE(this->IsStored("/y/a/b", true));
    auto child =
        boost::dynamic_pointer_cast<WzScanDBRecord>(this->Stored(this->Make("/y/a/b/f1", false)));
    auto folder =
        boost::dynamic_pointer_cast<WzScanDBRecord>(this->Stored(this->Make("/y/a/b/", true)));
    ASSERT_TRUE(child && folder);
    EXPECT_EQ(WzScanDBKeyGUID("/y/a/b"), child->getParentGUID());
    EXPECT_EQ(WzScanDBKeyGUID("/y/a/b/"), folder->getGUID());
    EXPECT_EQ(WzScanDBKeyGUID("/y/a"), folder->getParentGUID());
    EXPECT_EQ("b", folder->getName());
  }

  // One line per item in walk order (old path without, new path with the
  // folder delimiter), then the folder's own two lines.
  auto lines = log->FindContaining("Renaming path from : ");
  ASSERT_EQ(std::size(kItems) + 1, lines.size());
  for (size_t i = 0; i < std::size(kItems); ++i) {
    EXPECT_EQ(std::string("Renaming path from : ") + kItems[i].oldPath + " to " +
                  kItems[i].newPath,
              lines[i].message);
    EXPECT_EQ(994, lines[i].line);
    EXPECT_EQ(6, lines[i].level);
    EXPECT_EQ(kRenameFolderSig, lines[i].function);
  }
  EXPECT_EQ("Renaming path from : /x to /y", lines.back().message);
  EXPECT_EQ(1010, lines.back().line);
  EXPECT_EQ(1u, log->Find("Rename Operation from /x to /y performed successfully").size());
  EXPECT_EQ(2u, log->FindContaining("Filled the Buffer with ").size());
  log.ExpectOnce("Filled the Buffer with 6 Items from the getSubtree function", 962);
  log.ExpectOnce("Filled the Buffer with 0 Items from the getSubtree function", 1000);

  log->Clear();
  bool consistent = true;
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  auto disconnected = log->FindContaining("Found a disconnected node : ");
  EXPECT_EQ(!TypeParam::kKeyedOnPath, consistent);
  ASSERT_EQ(TypeParam::kKeyedOnPath ? 1u : 0u, disconnected.size());
  if (!TypeParam::kKeyedOnPath) return;
  bool namesUnreachable = false;
  for (const char* path : {"/y/a/b/", "/y/a/f", "/y/a/b/f1"}) {
    WzScanDBRecordBasePtr stored = this->Stored(this->Make(path, false));
    namesUnreachable |= stored && disconnected[0].message ==
                                      "Found a disconnected node : " + stored->toString() + "\n";
  }
  EXPECT_TRUE(namesUnreachable) << disconnected[0].message;
}

// A sub-tree larger than one batch: the rename goes on batch after batch
// from the walk state, moving every item exactly once. A trailing delimiter
// on the old path builds the same item paths. An empty folder moves alone; a
// folder that is not stored is error 2, nothing moves.
TYPED_TEST(RenameTest, RenameFolderAcrossBatchesAndEdgeCases) {
  constexpr int kFolders = 12, kFiles = 1000;
  this->AddFolder("/x");
  for (int f = 0; f < kFolders; ++f) {
    const std::string folder = "/x/d" + std::to_string(f);
    this->AddFolder(folder);
    for (int i = 0; i < kFiles; ++i) this->AddFile(folder + "/f" + std::to_string(i));
  }
  this->AddFile("/other");
  this->AddFolder("/e");
  const size_t before = this->CountRecords();
  LogAt log(6);
  CKoError err =
      this->db_->renameFolder(this->Make("/x", true), this->Make("/y", true), "/x/", "/y");
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();

  // 12 folders, then 10 folders' files cross the bound of 10000; the rest follows.
  std::vector<std::string> filled;
  for (const CLogEntry& entry : log->FindContaining("Filled the Buffer with "))
    filled.push_back(entry.message);
  EXPECT_EQ((std::vector<std::string>{
                "Filled the Buffer with 10012 Items from the getSubtree function",
                "Filled the Buffer with 2000 Items from the getSubtree function",
                "Filled the Buffer with 0 Items from the getSubtree function"}),
            filled);
  EXPECT_EQ(size_t(kFolders) * (kFiles + 1) + 1,  // every item, then the folder
            log->FindContaining("Renaming path from : /x/").size());
  EXPECT_EQ(1u, log->Find("Renaming path from : /x/d7 to /y/d7/").size());
  EXPECT_EQ(1u, log->Find("Renaming path from : /x/d7/f9 to /y/d7/f9").size());
  EXPECT_EQ(1u, log->Find("Renaming path from : /x/ to /y").size());
  EXPECT_EQ(before, this->CountRecords());
  EXPECT_TRUE(this->IsStored("/y", true));
  EXPECT_TRUE(this->IsStored("/other", false));
  size_t moved = 0;
  for (int f = 0; f < kFolders; ++f) {
    const std::string suffix = "/d" + std::to_string(f);
    moved += this->IsStored("/y" + suffix + "/", true);
    for (int i = 0; i < kFiles; ++i)
      moved += this->IsStored("/y" + suffix + "/f" + std::to_string(i), false);
  }
  EXPECT_EQ(size_t(kFolders) * (kFiles + 1), moved);

  log->Clear();
  ASSERT_TRUE(this->db_->renameFolder(this->Make("/e", true), this->Make("/e2", true), "/e", "/e2")
                  .IsSuccess());
  EXPECT_EQ(1u, log->FindContaining("Filled the Buffer with ").size());
  EXPECT_FALSE(this->IsStored("/e", true));
  EXPECT_TRUE(this->IsStored("/e2", true));
  err = this->db_->renameFolder(this->Make("/nope", true), this->Make("/z", true), "/nope", "/z");
  ExpectError(err, EKoErrorKind::kErrNo, 2,
              "Cannot rename folder /nope since the folder doesn't exist in the database", 944);
  EXPECT_STREQ(kRenameFolderSig, err.GetFrames().back().location.function);
  EXPECT_FALSE(this->IsStored("/z", true));
  EXPECT_EQ(before, this->CountRecords());
}

}  // namespace
