// Shared helpers of the scan database core tests: a fixture that captures
// every log line (level 7) in memory, record makers for the three record
// types, and FaultyRecord, a generic record that can misdescribe its schema
// or its keys on request.
#pragma once

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"

namespace coretest {

const char kSource[] = "WzScanDB/WzScanDB";

inline WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir = false,
                                     unsigned long long refTime = 0) {
  return boost::make_shared<WzScanDBRecord>(path, isDir, refTime);
}

inline WzScanDBRecordBasePtr Lustre(unsigned long long seq, unsigned oid,
                                    unsigned long long parentSeq, unsigned parentOid,
                                    const std::string& name) {
  auto fid = boost::make_shared<LustreAPI::CLustreFID>(seq, oid, 0);
  auto parent = boost::make_shared<LustreAPI::CLustreFID>(parentSeq, parentOid, 0);
  return boost::make_shared<WzScanDBLustreRecord>(fid, parent, name, false, 0);
}

inline WzScanDBRecordBasePtr BackupTime(unsigned long long inode, unsigned long long ctime) {
  return boost::make_shared<CBackupTimeRecord>(inode, ctime);
}

inline WzScanDBPtr NewDb(WzScanDBRecordBasePtr prototype) {
  return WzScanDBPtr(new WzScanDB(prototype));
}

inline CKoError Open(WzScanDB& db, const std::string& directory) {
  return db.initialize(directory);  // the std::string form: create or open
}

// Every test starts with no settings file, no output on stderr, the log at
// level 7 and a fresh capture.
class CoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("WZ_SETTINGS_FILE");
    g_ptrLogWriter->SetNone();
    g_ptrLogWriter->SetLevel(7);
    capture = CLogCapture::Install();
  }
  void TearDown() override {
    capture->Remove();
    g_ptrLogWriter->SetLevel(0);
  }

  // Lines with exactly this message.
  size_t Count(const std::string& message) const { return capture->Find(message).size(); }
  // Waits up to `seconds` for `count` lines with `message`.
  bool WaitFor(const std::string& message, size_t count, int seconds) const {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < until) {
      if (Count(message) >= count) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  std::shared_ptr<CLogCapture> capture;
  TempDir dir;
};

// A generic record that can break one thing on request. Clones keep the fault
// and share the call counter.
class FaultyRecord : public WzScanDBRecord {
 public:
  enum Fault {
    kNone,
    kBadField,        // field 0 registered with an unknown type
    kBadIndex,        // index 0 registered with an unknown key type
    kBadSegment,      // segment 0 taken from a field that does not exist
    kBadKeyLength,    // index 0 announces 17 key bytes for a 16-byte segment
    kBadKeySegment,   // the key request names a segment the index lacks
    kBadFinish,       // the key request names an index the table lacks
    kEqualOnce,       // checkEqualOnIndex is true only on its first call
    kNeverEqual,      // checkEqualOnIndex is always false
  };

  FaultyRecord(const std::string& path, Fault fault)
      : WzScanDBRecord(path, false, 0), fault_(fault), calls_(std::make_shared<int>(0)) {}
  FaultyRecord(const FaultyRecord& other) = default;

  SFields getFieldInformation(int i) override {
    SFields field = WzScanDBRecord::getFieldInformation(i);
    if (fault_ == kBadField && i == 0) field.type = 1;
    return field;
  }
  SIndices getIndexInformation(int i) override {
    SIndices index = WzScanDBRecord::getIndexInformation(i);
    if (fault_ == kBadIndex && i == 0) index.keyType = static_cast<TKeyType>(5);
    if (fault_ == kBadKeyLength && i == 0) index.keyLength = 17;
    return index;
  }
  SSegments getSegmentInformation(int i) override {
    SSegments segment = WzScanDBRecord::getSegmentInformation(i);
    if (fault_ == kBadSegment && i == 0) segment.fieldNumber = 40;
    return segment;
  }
  SPrepareIndexKeyStructure prepareIndexKey(int index) override {
    SPrepareIndexKeyStructure key = WzScanDBRecord::prepareIndexKey(index);
    if (fault_ == kBadKeySegment) key.segmentNumbers[0] = 9;
    if (fault_ == kBadFinish) {
      key.indexNumber = 7;
      key.numSegments = 0;
    }
    return key;
  }
  bool checkEqualOnIndex(WzScanDBRecordBasePtr other, int index) override {
    ++*calls_;
    if (fault_ == kNeverEqual) return false;
    if (fault_ == kEqualOnce && *calls_ > 1) return false;
    return WzScanDBRecord::checkEqualOnIndex(other, index);
  }
  WzScanDBRecordBasePtr Clone() override { return boost::make_shared<FaultyRecord>(*this); }

 private:
  Fault fault_;
  std::shared_ptr<int> calls_;
};

}  // namespace coretest
