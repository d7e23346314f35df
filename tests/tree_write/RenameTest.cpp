// renameByKey, renameFile and renameFolder, for the generic and the Lustre
// record.
#include <string>
#include <vector>

#include <boost/pointer_cast.hpp>
#include <gtest/gtest.h>

#include "runtime/LogCapture.h"
#include "tree_write/TreeWriteFixture.h"

namespace {

constexpr const char* kRenameFolderSig =
    "CKoError WzScanDB::renameFolder(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr, std::string, "
    "std::string)";
constexpr unsigned long long kRenameTime = 0x60000001ULL;

template <class Tree>
class RenameTest : public TreeWriteTest<Tree> {
 protected:
  // Adds a record with a given status size and flags (addFile/addFolder keep
  // the visited bit and set the directory bit from `isDir`).
  WzScanDBRecordBasePtr AddWith(const std::string& path, bool isDir, uint64_t size, int flags) {
    WzScanDBRecordBasePtr record = this->Make(path, isDir);
    this->SetStatSize(record, size);
    record->setFlags(flags);
    CKoError err = isDir ? this->db_->addFolder(record) : this->db_->addFile(record);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    return record;
  }
  void ExpectError(const CKoError& err, EKoErrorKind kind, int code, const std::string& text,
                   int line) {
    ASSERT_TRUE(err.IsError()) << text;
    EXPECT_EQ(kind, err.GetKind());
    EXPECT_EQ(code, err.GetCode());
    EXPECT_EQ(text, err.GetTopMessage());
    EXPECT_EQ(line, err.GetFrames().back().location.line);
  }
};
TYPED_TEST_SUITE(RenameTest, TreeTypes, TreeTypeNames);

TYPED_TEST(RenameTest, RenameByKeyCarriesStoredFieldsOver) {
  this->AddFolder("/d");
  this->AddWith("/d/old.txt", false, 4242, kRecordFlagVisited);
  const size_t before = this->CountRecords();

  // The caller's old record is a bare key: its own fields must not be used.
  WzScanDBRecordBasePtr oldRecord = this->Make("/d/old.txt", false);
  WzScanDBRecordBasePtr newRecord = this->Make("/d/new.txt", false);
  this->SetStatSize(newRecord, 1);
  this->db_->setRefTime(kRenameTime);

  ScopedLogLevel level(6);
  auto capture = CLogCapture::Install();
  CKoError err = this->db_->renameByKey(oldRecord, newRecord);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();

  EXPECT_FALSE(this->IsStored("/d/old.txt", false));
  WzScanDBRecordBasePtr stored = this->Stored(newRecord);
  ASSERT_TRUE(stored);
  EXPECT_EQ("new.txt", stored->getName());
  EXPECT_EQ(kRecordFlagVisited, stored->getFlags());
  EXPECT_EQ(kRenameTime, stored->getRefTime());
  // The generic record carries its status over; the Lustre record only its flags.
  EXPECT_EQ(TypeParam::kCarriesStatus ? 4242u : 1u, this->StatSize(stored));
  EXPECT_EQ(before, this->CountRecords());
  auto lines = capture->Find("Rename Record : " + oldRecord->toString() + " ----------> : " +
                             newRecord->toString());
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(894, lines[0].line);

  // A record that is not stored: error 2, nothing added.
  WzScanDBRecordBasePtr ghost = this->Make("/d/ghost", false);
  WzScanDBRecordBasePtr target = this->Make("/d/target", false);
  this->ExpectError(this->db_->renameByKey(ghost, target), EKoErrorKind::kErrNo, 2,
                    "Cannot rename since the record doesn't exist in the database.", 871);
  EXPECT_FALSE(this->Stored(target));

  // Empty arguments: error 22, nothing changes.
  for (auto pair : {std::make_pair(WzScanDBRecordBasePtr(), target),
                    std::make_pair(stored, WzScanDBRecordBasePtr())})
    this->ExpectError(this->db_->renameByKey(pair.first, pair.second), EKoErrorKind::kErrNo, 22,
                      "One or both of the given records for Rename is NULL", 855);
  EXPECT_EQ(before, this->CountRecords());
  EXPECT_TRUE(this->Stored(newRecord));
}

TYPED_TEST(RenameTest, RenameFileStoresCallersFieldsAndAddsFirst) {
  this->AddFolder("/d");
  this->AddWith("/d/old.txt", false, 4242, kRecordFlagVisited);
  const size_t before = this->CountRecords();

  WzScanDBRecordBasePtr newRecord = this->Make("/d/new.txt", false);
  this->SetStatSize(newRecord, 77);
  newRecord->setRefTime(5);
  this->db_->setRefTime(kRenameTime);
  ASSERT_TRUE(this->db_->renameFile(this->Make("/d/old.txt", false), newRecord).IsSuccess());

  EXPECT_FALSE(this->IsStored("/d/old.txt", false));
  WzScanDBRecordBasePtr stored = this->Stored(newRecord);
  ASSERT_TRUE(stored);
  EXPECT_EQ(0, stored->getFlags());
  EXPECT_EQ(77u, this->StatSize(stored));
  EXPECT_EQ(kRenameTime, stored->getRefTime());
  EXPECT_EQ(before, this->CountRecords());

  // The old record is missing: error 2, but the new record is already added.
  WzScanDBRecordBasePtr target = this->Make("/d/target", false);
  this->ExpectError(this->db_->renameFile(this->Make("/d/ghost", false), target),
                    EKoErrorKind::kErrNo, 2,
                    "Cannot rename file since the file doesn't exist in the database.", 922);
  EXPECT_TRUE(this->Stored(target));

  const size_t after = this->CountRecords();
  this->ExpectError(this->db_->renameFile(WzScanDBRecordBasePtr(), this->Make("/d/x", false)),
                    EKoErrorKind::kErrNo, 22,
                    "One or both of the given records for Rename File is NULL", 904);
  this->ExpectError(this->db_->renameFile(stored, WzScanDBRecordBasePtr()), EKoErrorKind::kErrNo,
                    22, "One or both of the given records for Rename File is NULL", 904);
  EXPECT_EQ(after, this->CountRecords());
}

// The tree renamed below, /x -> /y, with /xx as an untouched neighbour:
//   /x/a/  /x/a/b/  /x/a/b/f1  /x/a/f  /x/c/  /x/g
struct Item {
  const char* oldPath;
  const char* newPath;  // as renameFolder builds it: folders end with '/'
  bool isDir;
  uint64_t size;
};
const std::vector<Item>& Items() {
  // Breadth-first, by name within a folder: the order of the per-item lines.
  static const std::vector<Item> items = {
      {"/x/a", "/y/a/", true, 11},          {"/x/c", "/y/c/", true, 12},
      {"/x/g", "/y/g", false, 13},          {"/x/a/b", "/y/a/b/", true, 14},
      {"/x/a/f", "/y/a/f", false, 15},      {"/x/a/b/f1", "/y/a/b/f1", false, 16},
  };
  return items;
}

// After renameFolder every descendant is stored under the key made from its
// new path, with the old record's flags (and, generic record, status) and the
// database's reference time; the old keys are gone.
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
  WzScanDBRecordBasePtr oldFolder = this->AddWith("/x", true, 10, 0);
  for (const Item& item : Items()) this->AddWith(item.oldPath, item.isDir, item.size, 0);
  this->AddFolder("/xx");
  this->AddFile("/xx/h");
  const size_t before = this->CountRecords();

  WzScanDBRecordBasePtr newFolder = this->Make("/y", true);
  this->SetStatSize(newFolder, 20);
  this->db_->setRefTime(kRenameTime);
  ScopedLogLevel level(6);
  auto capture = CLogCapture::Install();
  CKoError err = this->db_->renameFolder(this->Make("/x", true), newFolder, "/x", "/y");
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();

  EXPECT_EQ(before, this->CountRecords());
  EXPECT_FALSE(this->Stored(oldFolder));
  WzScanDBRecordBasePtr storedFolder = this->Stored(newFolder);
  ASSERT_TRUE(storedFolder);
  EXPECT_EQ(20u, this->StatSize(storedFolder));  // the caller's new record, as it is
  EXPECT_EQ(kRenameTime, storedFolder->getRefTime());
  for (const Item& item : Items()) {
    SCOPED_TRACE(item.newPath);
    EXPECT_FALSE(this->IsStored(item.oldPath, item.isDir));
    WzScanDBRecordBasePtr stored = this->Stored(this->Make(item.newPath, item.isDir));
    ASSERT_TRUE(stored);
    EXPECT_EQ(item.isDir, stored->isDir());
    EXPECT_EQ(kRenameTime, stored->getRefTime());
    EXPECT_EQ(TypeParam::kCarriesStatus ? item.size : 0u, this->StatSize(stored));
  }
  EXPECT_TRUE(this->IsStored("/xx", true));
  EXPECT_TRUE(this->IsStored("/xx/h", false));

  // One line per item in walk order (old path without, new path with the
  // folder delimiter), then the folder's own two lines.
  auto lines = capture->FindContaining("Renaming path from : ");
  ASSERT_EQ(Items().size() + 1, lines.size());
  for (size_t i = 0; i < Items().size(); ++i) {
    EXPECT_EQ(std::string("Renaming path from : ") + Items()[i].oldPath + " to " +
                  Items()[i].newPath,
              lines[i].message);
    EXPECT_EQ(994, lines[i].line);
    EXPECT_EQ(6, lines[i].level);
    EXPECT_EQ(kRenameFolderSig, lines[i].function);
  }
  EXPECT_EQ("Renaming path from : /x to /y", lines.back().message);
  EXPECT_EQ(1010, lines.back().line);
  EXPECT_EQ(1u, capture->Find("Rename Operation from /x to /y performed successfully").size());
  auto filled = capture->FindContaining("Filled the Buffer with ");
  ASSERT_EQ(2u, filled.size());
  EXPECT_EQ("Filled the Buffer with 6 Items from the getSubtree function", filled[0].message);
  EXPECT_EQ(962, filled[0].line);
  EXPECT_EQ("Filled the Buffer with 0 Items from the getSubtree function", filled[1].message);
  EXPECT_EQ(1000, filled[1].line);

  capture->Clear();
  bool consistent = true;
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  auto disconnected = capture->FindContaining("Found a disconnected node : ");
  if (TypeParam::kKeyedOnPath) {
    EXPECT_FALSE(consistent);
    ASSERT_EQ(1u, disconnected.size());
    bool namesUnreachable = false;
    for (const char* path : {"/y/a/b/", "/y/a/f", "/y/a/b/f1"}) {
      WzScanDBRecordBasePtr stored = this->Stored(this->Make(path, false));
      if (stored && disconnected[0].message ==
                        "Found a disconnected node : " + stored->toString() + "\n")
        namesUnreachable = true;
    }
    EXPECT_TRUE(namesUnreachable) << disconnected[0].message;
  } else {
    EXPECT_TRUE(consistent);
    EXPECT_TRUE(disconnected.empty());
  }
}

// Keys derived from paths: the generic record only.
using GenericRenameTest = RenameTest<GenericTree>;
TEST_F(GenericRenameTest, RenameFolderKeysOfSubFolders) {
  this->AddFolder("/x");
  this->AddFolder("/x/a");
  this->AddFolder("/x/a/b");
  this->AddFile("/x/a/b/f1");
  ASSERT_TRUE(
      this->db_->renameFolder(this->Make("/x", true), this->Make("/y", true), "/x", "/y")
          .IsSuccess());

  // The sub-folder is keyed on "/y/a/b/", its child points at "/y/a/b".
  EXPECT_TRUE(this->IsStored("/y/a/b/", true));
  EXPECT_FALSE(this->IsStored("/y/a/b", true));
  auto child = boost::dynamic_pointer_cast<WzScanDBRecord>(
      this->Stored(this->Make("/y/a/b/f1", false)));
  ASSERT_TRUE(child);
  EXPECT_EQ(WzScanDBKeyGUID("/y/a/b"), child->getParentGUID());
  auto folder =
      boost::dynamic_pointer_cast<WzScanDBRecord>(this->Stored(this->Make("/y/a/b/", true)));
  ASSERT_TRUE(folder);
  EXPECT_EQ(WzScanDBKeyGUID("/y/a/b/"), folder->getGUID());
  EXPECT_EQ(WzScanDBKeyGUID("/y/a"), folder->getParentGUID());
  EXPECT_EQ("b", folder->getName());
}

TYPED_TEST(RenameTest, RenameFolderEdgeCases) {
  this->AddFolder("/x");
  this->AddFolder("/x/a");
  this->AddFile("/x/a/f");
  this->AddFolder("/e");
  const size_t before = this->CountRecords();
  ScopedLogLevel level(6);
  auto capture = CLogCapture::Install();

  // An old path with a trailing delimiter builds the same item paths.
  ASSERT_TRUE(
      this->db_->renameFolder(this->Make("/x", true), this->Make("/y", true), "/x/", "/y")
          .IsSuccess());
  EXPECT_EQ(1u, capture->Find("Renaming path from : /x/a to /y/a/").size());
  EXPECT_EQ(1u, capture->Find("Renaming path from : /x/a/f to /y/a/f").size());
  EXPECT_EQ(1u, capture->Find("Renaming path from : /x/ to /y").size());
  EXPECT_TRUE(this->IsStored("/y/a/f", false));

  // An empty folder: one sub-tree call, then the folder itself moves.
  capture->Clear();
  ASSERT_TRUE(
      this->db_->renameFolder(this->Make("/e", true), this->Make("/e2", true), "/e", "/e2")
          .IsSuccess());
  EXPECT_EQ(1u, capture->FindContaining("Filled the Buffer with ").size());
  EXPECT_FALSE(this->IsStored("/e", true));
  EXPECT_TRUE(this->IsStored("/e2", true));
  EXPECT_EQ(before, this->CountRecords());

  // A folder that is not stored: error 2 naming the old path, nothing changes.
  CKoError err =
      this->db_->renameFolder(this->Make("/nope", true), this->Make("/z", true), "/nope", "/z");
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
  EXPECT_EQ(2, err.GetCode());
  EXPECT_EQ("Cannot rename folder /nope since the folder doesn't exist in the database",
            err.GetTopMessage());
  EXPECT_EQ(944, err.GetFrames().back().location.line);
  EXPECT_STREQ(kRenameFolderSig, err.GetFrames().back().location.function);
  EXPECT_FALSE(this->IsStored("/z", true));
  EXPECT_EQ(before, this->CountRecords());
}

// A sub-tree larger than one batch: the rename goes on batch after batch
// from the walk state, moving every item exactly once.
TYPED_TEST(RenameTest, RenameFolderAcrossBatches) {
  constexpr int kFolders = 12;
  constexpr int kFiles = 1000;
  this->AddFolder("/x");
  for (int f = 0; f < kFolders; ++f) {
    const std::string folder = "/x/d" + std::to_string(f);
    this->AddFolder(folder);
    for (int i = 0; i < kFiles; ++i) this->AddFile(folder + "/f" + std::to_string(i));
  }
  this->AddFile("/other");
  const size_t before = this->CountRecords();

  ScopedLogLevel level(6);
  auto capture = CLogCapture::Install();
  CKoError err =
      this->db_->renameFolder(this->Make("/x", true), this->Make("/y", true), "/x", "/y");
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();

  // 12 folders, then 10 folders' files cross the bound of 10000; the rest follows.
  std::vector<std::string> filled;
  for (const CLogEntry& entry : capture->FindContaining("Filled the Buffer with "))
    filled.push_back(entry.message);
  EXPECT_EQ((std::vector<std::string>{
                "Filled the Buffer with 10012 Items from the getSubtree function",
                "Filled the Buffer with 2000 Items from the getSubtree function",
                "Filled the Buffer with 0 Items from the getSubtree function"}),
            filled);
  EXPECT_EQ(size_t(kFolders) * (kFiles + 1),
            capture->FindContaining("Renaming path from : /x/").size());

  EXPECT_EQ(before, this->CountRecords());
  EXPECT_FALSE(this->IsStored("/x", true));
  EXPECT_TRUE(this->IsStored("/y", true));
  EXPECT_TRUE(this->IsStored("/other", false));
  size_t moved = 0;
  for (int f = 0; f < kFolders; ++f) {
    const std::string suffix = "/d" + std::to_string(f);
    EXPECT_FALSE(this->IsStored("/x" + suffix, true));
    moved += this->IsStored("/y" + suffix + "/", true);
    for (int i = 0; i < kFiles; ++i) {
      const std::string file = suffix + "/f" + std::to_string(i);
      EXPECT_FALSE(this->IsStored("/x" + file, false)) << file;
      moved += this->IsStored("/y" + file, false);
    }
  }
  EXPECT_EQ(size_t(kFolders) * (kFiles + 1), moved);
}

}  // namespace
