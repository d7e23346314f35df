// Test fixture for the tree-changing operations of WzScanDB, typed over the
// record type. A tree type (GenericTree, LustreTree) knows how to make the
// prototype, the root and a record for a path; the fixture opens a fresh
// database in a temporary directory with the root stored, and offers helpers
// to add entries, look them up and read the whole table.
//
// Lustre FIDs come from a test resolver installed for the life of the
// fixture: every path gets its own FID the first time it is asked for, the
// same one afterwards; a trailing delimiter does not change the entry.
#pragma once

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "lustre/GetFIDFromPath.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"

struct GenericTree {
  static constexpr const char* kName = "Generic";
  // Offset of stat_data in the record image, and whether a rename carries it.
  static constexpr size_t kStatOffset = 32;
  static constexpr bool kCarriesStatus = true;
  // Keys are the MD5 of the path text as given (a trailing '/' changes them).
  static constexpr bool kKeyedOnPath = true;

  static void Install() {}
  static void Uninstall() {}
  static WzScanDBRecordBasePtr Prototype() { return boost::make_shared<WzScanDBRecord>(); }
  static WzScanDBRecordBasePtr Root(WzScanDB& db) { return db.getRoot()->Clone(); }
  static WzScanDBRecordBasePtr FromPath(const std::string& path, bool isDir) {
    return boost::make_shared<WzScanDBRecord>(path, isDir, 0);
  }
};

struct LustreTree {
  static constexpr const char* kName = "Lustre";
  static constexpr size_t kStatOffset = 48;
  static constexpr bool kCarriesStatus = false;
  static constexpr bool kKeyedOnPath = false;
  static constexpr uint64_t kSequence = 0x200000400ULL;

  static std::map<std::string, uint32_t>& Ids() {
    static std::map<std::string, uint32_t> ids;
    return ids;
  }
  static void Install() {
    Ids().clear();
    Ids()["/"] = 1;
    LustreAPI::SetFIDResolver([](const std::string& path, LustreAPI::lu_fid& fid) {
      if (path.empty()) return -ENOENT;
      std::string entry = path;
      while (entry.size() > 1 && entry.back() == '/') entry.pop_back();
      auto& ids = Ids();
      auto it = ids.find(entry);
      if (it == ids.end()) it = ids.emplace(entry, static_cast<uint32_t>(ids.size() + 1)).first;
      fid = LustreAPI::lu_fid{kSequence, it->second, 0};
      return 0;
    });
  }
  static void Uninstall() { LustreAPI::ResetFIDResolver(); }
  static WzScanDBRecordBasePtr Prototype() { return boost::make_shared<WzScanDBLustreRecord>(); }
  // The mount's root: its own FID, no parent FID.
  static WzScanDBRecordBasePtr Root(WzScanDB&) {
    return boost::make_shared<WzScanDBLustreRecord>(
        boost::make_shared<LustreAPI::CLustreFID>(kSequence, 1, 0), LustreAPI::CLustreFIDPtr(),
        "", true, 0);
  }
  static WzScanDBRecordBasePtr FromPath(const std::string& path, bool isDir) {
    return boost::make_shared<WzScanDBLustreRecord>(path, isDir, 0);
  }
};

// Sets the log level for one scope.
class ScopedLogLevel {
 public:
  explicit ScopedLogLevel(int level) : saved_(g_ptrLogWriter->GetLevel()) {
    g_ptrLogWriter->SetLevel(level);
  }
  ~ScopedLogLevel() { g_ptrLogWriter->SetLevel(saved_); }

 private:
  int saved_;
};

template <class Tree>
class TreeWriteTest : public ::testing::Test {
 protected:
  static constexpr unsigned long long kDbRefTime = 0x5f5e1234ULL;

  void SetUp() override {
    Tree::Install();
    db_ = boost::make_shared<WzScanDB>(Tree::Prototype());
    ASSERT_TRUE(db_->initialize(std::string(dir_.path())).IsSuccess());
    db_->setRefTime(kDbRefTime);
    root_ = Tree::Root(*db_);
    ASSERT_TRUE(db_->addFolder(root_).IsSuccess());
  }
  void TearDown() override {
    db_->close();
    Tree::Uninstall();
  }

  static std::string Join(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
  }
  WzScanDBRecordBasePtr Make(const std::string& path, bool isDir) {
    return Tree::FromPath(path, isDir);
  }
  WzScanDBRecordBasePtr AddFolder(const std::string& path) {
    WzScanDBRecordBasePtr record = Make(path, true);
    CKoError err = db_->addFolder(record);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    return record;
  }
  WzScanDBRecordBasePtr AddFile(const std::string& path) {
    WzScanDBRecordBasePtr record = Make(path, false);
    CKoError err = db_->addFile(record);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    return record;
  }

  // The stored version of `record` (looked up by its own key), or null.
  WzScanDBRecordBasePtr Stored(const WzScanDBRecordBasePtr& record) {
    WzScanDBRecordBasePtr out = record->Clone();
    bool found = false;
    CKoError err = db_->checkDBRecord(record, out, found);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    return found ? out : WzScanDBRecordBasePtr();
  }
  bool IsStored(const std::string& path, bool isDir) { return !!Stored(Make(path, isDir)); }

  // Every record of the table, read in the engine's own order.
  std::vector<WzScanDBRecordBasePtr> AllRecords() {
    std::vector<WzScanDBRecordBasePtr> all;
    WzScanDBRecordBasePtr probe = Tree::Prototype();
    int status = db_->firstRecord(-1, probe->getStructure());
    while (status == 0) {
      all.push_back(probe);
      WzScanDBRecordBasePtr next = Tree::Prototype();
      status = db_->nextRecord(-1, next->getStructure());
      probe = next;
    }
    return all;
  }
  size_t CountRecords() {
    size_t count = 0;
    WzScanDBRecordBasePtr probe = Tree::Prototype();
    for (int status = db_->firstRecord(-1, probe->getStructure()); status == 0;
         status = db_->nextRecord(-1, probe->getStructure()))
      ++count;
    return count;
  }

  static uint64_t StatSize(const WzScanDBRecordBasePtr& record) {
    uint64_t size = 0;
    std::memcpy(&size, static_cast<char*>(record->getStructure()) + Tree::kStatOffset + 48,
                sizeof size);
    return size;
  }
  static void SetStatSize(const WzScanDBRecordBasePtr& record, uint64_t size) {
    std::memcpy(static_cast<char*>(record->getStructure()) + Tree::kStatOffset + 48, &size,
                sizeof size);
  }

  TempDir dir_;
  boost::shared_ptr<WzScanDB> db_;
  WzScanDBRecordBasePtr root_;
};

struct TreeTypeNames {
  template <class Tree>
  static std::string GetName(int) {
    return Tree::kName;
  }
};

using TreeTypes = ::testing::Types<GenericTree, LustreTree>;
