// Fixture of the tree-changing suites, typed over the record type: a fresh
// database in a temporary directory with the root stored, records made from
// paths, and helpers that look records up and scan the table.
//
// Lustre FIDs come from a test resolver installed for the life of the
// fixture: every path gets its own FID the first time it is asked for, the
// same one afterwards; a trailing delimiter does not change the entry.
#pragma once

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "lustre/GetFIDFromPath.h"
#include "support/LogAt.h"
#include "support/TempDir.h"

struct GenericTree {
  static constexpr size_t kStatOffset = 32, kIdBytes = 16;  // own GUID first, the parent's next
  // Keyed on the MD5 of the path text, a trailing '/' included; renames keep
  // the stored status bytes.
  static constexpr bool kKeyedOnPath = true;
  static void Install() {}
  static WzScanDBRecordBasePtr Prototype() { return boost::make_shared<WzScanDBRecord>(); }
  static WzScanDBRecordBasePtr Root(WzScanDB& db) { return db.getRoot()->Clone(); }
  static WzScanDBRecordBasePtr FromPath(const std::string& path, bool isDir) {
    return boost::make_shared<WzScanDBRecord>(path, isDir, 0);
  }
};

struct LustreTree {
  static constexpr size_t kStatOffset = 48, kIdBytes = 24;  // own FID first, the parent's next
  static constexpr bool kKeyedOnPath = false;
  static constexpr uint64_t kSequence = 0x200000400ULL;
  static void Install() {
    auto ids = std::make_shared<std::map<std::string, uint32_t>>();
    (*ids)["/"] = 1;
    LustreAPI::SetFIDResolver([ids](const std::string& path, LustreAPI::lu_fid& fid) {
      if (path.empty()) return -ENOENT;
      std::string entry = path;
      while (entry.size() > 1 && entry.back() == '/') entry.pop_back();
      const uint32_t next = uint32_t(ids->size() + 1);
      fid = LustreAPI::lu_fid{kSequence, ids->emplace(entry, next).first->second, 0};
      return 0;
    });
  }
  static WzScanDBRecordBasePtr Prototype() { return boost::make_shared<WzScanDBLustreRecord>(); }
  // The mount's root: its own FID, no parent FID.
  static WzScanDBRecordBasePtr Root(WzScanDB&) {
    auto fid = boost::make_shared<LustreAPI::CLustreFID>(kSequence, 1, 0);
    return boost::make_shared<WzScanDBLustreRecord>(fid, LustreAPI::CLustreFIDPtr(), "", true, 0);
  }
  static WzScanDBRecordBasePtr FromPath(const std::string& path, bool isDir) {
    return boost::make_shared<WzScanDBLustreRecord>(path, isDir, 0);
  }
};

inline void ExpectError(const CKoError& err, EKoErrorKind kind, int code, const std::string& top,
                        int line) {
  ASSERT_TRUE(err.IsError()) << top;
  EXPECT_EQ(kind, err.GetKind()) << top;
  EXPECT_EQ(code, err.GetCode()) << top;
  EXPECT_EQ(top, err.GetTopMessage());
  EXPECT_STREQ("WzScanDB/WzScanDB", err.GetFrames().back().location.file);
  EXPECT_EQ(line, err.GetFrames().back().location.line) << top;
}

// What `log` captured from the library's own sites (not the entry and exit
// lines), whose message contains `fragment`, as "level line message".
inline std::vector<std::string> Logged(const LogAt& log, const std::string& fragment = "") {
  std::vector<std::string> lines;
  for (const CLogEntry& e : log->FindContaining(fragment))
    if (e.line > 0) lines.push_back(std::to_string(e.level) + " " + std::to_string(e.line) + " " + e.message);
  return lines;
}

template <class Tree>
class TreeWriteTest : public ::testing::Test {
 protected:
  static constexpr unsigned long long kDbRefTime = 0x5f5e1234ULL;

  void SetUp() override {
    Tree::Install();
    db_ = boost::make_shared<WzScanDB>(Tree::Prototype());
    ASSERT_TRUE(db_->initialize(dir_.path()).IsSuccess());
    db_->setRefTime(kDbRefTime);
    root_ = Tree::Root(*db_);
    ASSERT_TRUE(db_->addFolder(root_).IsSuccess());
  }
  void TearDown() override {
    db_->close();
    LustreAPI::ResetFIDResolver();
  }

  WzScanDBRecordBasePtr Make(const std::string& path, bool isDir) {
    return Tree::FromPath(path, isDir);
  }
  // Adds a record through addFolder/addFile, with a given stat size and flags.
  WzScanDBRecordBasePtr Add(const std::string& path, bool isDir, uint64_t size = 0, int flags = 0) {
    WzScanDBRecordBasePtr record = Make(path, isDir);
    SetStatSize(record, size);
    record->setFlags(flags);
    CKoError err = isDir ? db_->addFolder(record) : db_->addFile(record);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    return record;
  }
  WzScanDBRecordBasePtr AddFolder(const std::string& path) { return Add(path, true); }
  WzScanDBRecordBasePtr AddFile(const std::string& path) { return Add(path, false); }
  // `folders` folders "/d<n>" below `top`, each with `files` files "/f<n>".
  void AddWide(const std::string& top, int folders, int files) {
    for (int f = 0; f < folders; ++f) {
      AddFolder(top + "/d" + std::to_string(f));
      for (int i = 0; i < files; ++i)
        AddFile(top + "/d" + std::to_string(f) + "/f" + std::to_string(i));
    }
  }
  // The stored version of `record` (looked up by its own key), or null.
  WzScanDBRecordBasePtr Stored(const WzScanDBRecordBasePtr& record) {
    WzScanDBRecordBasePtr out = record->Clone();
    bool found = false;
    EXPECT_TRUE(db_->checkDBRecord(record, out, found).IsSuccess());
    return found ? out : WzScanDBRecordBasePtr();
  }
  bool IsStored(const std::string& path, bool isDir) { return !!Stored(Make(path, isDir)); }
  // How many records the table holds, and how many of them carry the visited bit.
  size_t CountRecords(bool markedOnly = false) {
    size_t count = 0;
    WzScanDBRecordBasePtr probe = Tree::Prototype();
    for (int status = db_->firstRecord(-1, probe->getStructure()); status == 0;
         status = db_->nextRecord(-1, probe->getStructure()))
      count += !markedOnly || (probe->getFlags() & kRecordFlagVisited);
    return count;
  }
  size_t Marked() { return CountRecords(true); }
  // The st_size of the record's status bytes.
  static uint64_t StatSize(const WzScanDBRecordBasePtr& record) {
    uint64_t size = 0;
    std::memcpy(&size, static_cast<char*>(record->getStructure()) + Tree::kStatOffset + 48, 8);
    return size;
  }
  static void SetStatSize(const WzScanDBRecordBasePtr& record, uint64_t size) {
    std::memcpy(static_cast<char*>(record->getStructure()) + Tree::kStatOffset + 48, &size, 8);
  }

  TempDir dir_;
  boost::shared_ptr<WzScanDB> db_;
  WzScanDBRecordBasePtr root_;
};

using TreeTypes = ::testing::Types<GenericTree, LustreTree>;
