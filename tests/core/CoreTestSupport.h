// Shared helpers of the scan database core tests: record makers and a
// fixture that captures every log line (level 7) of a fresh directory.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"
#include "support/LogAt.h"
#include "support/TempDir.h"
#include "table/TableStatus.h"

namespace coretest {

inline WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir = false, unsigned long long refTime = 0) {
  return boost::make_shared<WzScanDBRecord>(path, isDir, refTime);
}
inline WzScanDBPtr NewDb(WzScanDBRecordBasePtr prototype) { return WzScanDBPtr(new WzScanDB(prototype)); }
inline WzScanDBPtr NewGenericDb() { return NewDb(boost::make_shared<WzScanDBRecord>()); }
// Looks `probe` up on `index`; `*stored` receives the stored record.
inline bool Find(WzScanDB& db, WzScanDBRecordBasePtr probe, int index = 0, bool exact = true,
                 WzScanDBRecordBasePtr* stored = nullptr) {
  WzScanDBRecordBasePtr out = probe->Clone();
  bool found = false;
  CKoError error = db.checkDBRecord(probe, out, index, exact, found);
  EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  if (stored) *stored = out;
  return found;
}

class CoreTest : public ::testing::Test {
 protected:
  void SetUp() override { capture = InstallQuietCapture(7); }
  void TearDown() override {
    capture->Remove();
    g_ptrLogWriter->SetLevel(0);
  }
  size_t Count(const std::string& message) const { return capture->Find(message).size(); }
  // The last line containing " <name> : ", the counter's line in the last block.
  std::string LastCounter(const std::string& name) const {
    auto lines = capture->FindContaining(" " + name + " : ");
    return lines.empty() ? std::string() : lines.back().message;
  }
  // Waits up to `seconds` for `count` lines with `message`.
  bool WaitFor(const std::string& message, size_t count, int seconds) const {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (Count(message) < count) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  std::shared_ptr<CLogCapture> capture;
  TempDir dir;
};

}  // namespace coretest
