// The performance counters and the statistics thread.
#include <chrono>
#include <fstream>
#include <thread>

#include "CoreTestSupport.h"
#include "WzScanDB/WzHandle.h"
#include "runtime/CAutoTimeCounter.h"

namespace coretest {
namespace {

const char kHead[] = "--------------------- WzScanDB Performance Counters -------------------------------";
const char kStopped[] = "Stopped WzScanDB Performance Logging Thread";

class CountersTest : public CoreTest {
 protected:
  void UseSettings(const std::string& text) {
    settings = dir / "settings.ini";
    std::ofstream(settings) << text;
    setenv("WZ_SETTINGS_FILE", settings.c_str(), 1);
  }
  std::string settings;
};

TEST_F(CountersTest, BlockAtStartAndAtCloseCountsTheOperations) {
  WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  ASSERT_TRUE(WaitFor(kHead, 1, 5)) << "the thread dumps as soon as it starts";
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(db->addDBRecord(Generic("/c/" + std::to_string(i))).IsSuccess());
  ASSERT_TRUE(db->updateDBRecord(Generic("/c/0", false, 4)).IsSuccess());
  ASSERT_TRUE(db->deleteDBRecord(Generic("/c/1")).IsSuccess());
  ASSERT_TRUE(db->addRecordWithoutCheck(Generic("/c/9")).IsSuccess());
  ASSERT_TRUE(db->close().IsSuccess());

  EXPECT_EQ(Count(kHead), 2u);
  EXPECT_EQ(Count(std::string(83, '-')), 2u);
  EXPECT_TRUE(capture->FindContaining("LLAPI_PATH2FID").empty());
  // The block of close is the last one written: 4 adds, 5 lookups (3 adds,
  // 1 update, 1 delete), 1 delete, 1 update, no reads.
  auto last = [&](const std::string& name) {
    auto lines = capture->FindContaining(" " + name + " : ");
    return lines.empty() ? std::string() : lines.back().message;
  };
  EXPECT_EQ(last("ADD_RECORD").find(" ADD_RECORD : samples=4 "), 0u) << last("ADD_RECORD");
  EXPECT_EQ(last("CHECK_RECORD").find(" CHECK_RECORD : samples=5 "), 0u) << last("CHECK_RECORD");
  EXPECT_EQ(last("DELETE_RECORD").find(" DELETE_RECORD : samples=1 "), 0u);
  EXPECT_EQ(last("UPDATE_RECORD").find(" UPDATE_RECORD : samples=1 "), 0u);
  EXPECT_EQ(last("READ_RECORD").find(" READ_RECORD : samples=0 "), 0u);
}

TEST_F(CountersTest, PathToFidLineOnlyOnceUsed) {
  WzScanDBPerformanceCounter counters;
  counters.LogAllPerformanceCounters();
  EXPECT_TRUE(capture->FindContaining("LLAPI_PATH2FID").empty());
  EXPECT_EQ(capture->FindContaining("_RECORD : ").size(), 5u);
  { CAutoTimeCounter timer(counters.GetCounter(LLAPI_PATH2FID)); }
  capture->Clear();
  counters.LogAllPerformanceCounters();
  auto lines = capture->FindContaining(" LLAPI_PATH2FID : ");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message.find(" LLAPI_PATH2FID : samples=1 "), 0u);
  // Single lines: beyond the list nothing is written.
  capture->Clear();
  counters.LogPerformanceCounter(6);
  counters.LogPerformanceCounter(-1);
  EXPECT_TRUE(capture->Entries().empty());
  counters.LogPerformanceCounter(DELETE_RECORD);
  EXPECT_EQ(capture->Entries().size(), 1u);
}

TEST_F(CountersTest, GetCounterBeyondTheListIsNull) {
  WzScanDBPerformanceCounter counters;
  for (int i = ADD_RECORD; i <= LLAPI_PATH2FID; ++i)
    EXPECT_NE(counters.GetCounter(static_cast<ScanDBCounter>(i)), nullptr);
  EXPECT_EQ(counters.GetCounter(static_cast<ScanDBCounter>(6)), nullptr);
  EXPECT_EQ(counters.GetCounter(static_cast<ScanDBCounter>(-1)), nullptr);
  { CAutoTimeCounter timer(counters.GetCounter(static_cast<ScanDBCounter>(6))); }
  for (int i = ADD_RECORD; i <= LLAPI_PATH2FID; ++i)
    EXPECT_EQ(counters.GetCounter(static_cast<ScanDBCounter>(i))->GetTotalSamples(), 0u);
}

TEST_F(CountersTest, ThreadFunctionWithoutCounterSetReturnsAtOnce) {
  EXPECT_EQ(PrintScanDBStatistics(nullptr), nullptr);
  EXPECT_EQ(Count("Started WzScanDB Performance Logging Thread"), 1u);
  EXPECT_EQ(Count(kStopped), 0u);
  EXPECT_EQ(Count(kHead), 0u);
}

TEST_F(CountersTest, IntervalComesFromTheSettingsFile) {
  {
    WzScanDBPerformanceCounter counters;
    EXPECT_EQ(counters.GetLoggingInterval(), 600);
  }
  UseSettings("[Other]\nnWzScanDBPerformanceLoggingInterval = 5\n"
              "[~FileSystemAgent]\nnWzScanDBPerformanceLoggingInterval = 45\n");
  capture->Clear();
  {
    WzScanDBPerformanceCounter counters;
    EXPECT_EQ(counters.GetLoggingInterval(), 45);
  }
  EXPECT_EQ(Count("The Logging Interval of the WzScanDBPerformanceCounters : 45 seconds"), 1u);
  UseSettings("[~FileSystemAgent]\nnWzScanDBPerformanceLoggingInterval = often\n");
  WzScanDBPerformanceCounter malformed;
  EXPECT_EQ(malformed.GetLoggingInterval(), 600);
}

TEST_F(CountersTest, ZeroIntervalDumpsOnlyAtClose) {
  UseSettings("[~FileSystemAgent]\nnWzScanDBPerformanceLoggingInterval = 0\n");
  WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  ASSERT_TRUE(WaitFor("Started WzScanDB Performance Logging Thread", 1, 5));
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_EQ(Count(kHead), 1u);
  EXPECT_EQ(Count(kStopped), 1u);
}

TEST_F(CountersTest, CloseReturnsPromptly) {
  WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  ASSERT_TRUE(WaitFor(kHead, 1, 5));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the thread is asleep now
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_EQ(Count(kStopped), 1u) << "close joined the thread";
}

// Slow (about ten seconds): the periodic dump follows the ten-second clock.
TEST_F(CountersTest, PeriodicDumpEveryInterval) {
  UseSettings("[~FileSystemAgent]\nnWzScanDBPerformanceLoggingInterval = 10\n");
  WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  EXPECT_TRUE(WaitFor(kHead, 2, 14)) << "a second dump after ten seconds";
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_EQ(Count(kHead), 3u);
}

// Slow (about ten seconds). A database destroyed without close() leaves its
// thread running on a counter set the thread owns; the thread ends at its
// next wake-up. Run under AddressSanitizer this shows no use after free.
TEST_F(CountersTest, DestroyWithoutCloseLetsTheThreadEndSafely) {
  {
    WzScanDBPtr db = WzMakeHandle(new WzScanDB(boost::make_shared<WzScanDBRecord>()));
    ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
    ASSERT_TRUE(db->addDBRecord(Generic("/kept")).IsSuccess());
    ASSERT_TRUE(WaitFor(kHead, 1, 5));
    WzDestroyHandleObject(db);  // destroyed; the handle lets go harmlessly later
  }
  EXPECT_EQ(Count(kStopped), 0u) << "the destructor does not stop the thread";
  EXPECT_EQ(Count(kHead), 1u) << "nor write the counters";
  EXPECT_TRUE(WaitFor(kStopped, 1, 15));

  // The files were closed by the destructor: another object opens them.
  WzScanDBPtr again = NewDb(boost::make_shared<WzScanDBRecord>());
  ASSERT_TRUE(Open(*again, dir.path()).IsSuccess());
  bool found = false;
  WzScanDBRecordBasePtr probe = Generic("/kept");
  ASSERT_TRUE(again->checkDBRecord(probe, probe->Clone(), found).IsSuccess());
  EXPECT_TRUE(found);
  again->close();
}

}  // namespace
}  // namespace coretest
