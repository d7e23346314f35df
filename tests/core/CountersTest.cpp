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
const char kStarted[] = "Started WzScanDB Performance Logging Thread";
const char kStopped[] = "Stopped WzScanDB Performance Logging Thread";

class CountersTest : public CoreTest {
 protected:
  void UseInterval(const std::string& value) {
    std::ofstream(dir / "settings.ini")
        << "[Other]\nnWzScanDBPerformanceLoggingInterval = 5\n"
        << "[~FileSystemAgent]\nnWzScanDBPerformanceLoggingInterval = " << value << "\n";
    setenv("WZ_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
  }
  WzScanDBPtr OpenDb() {
    WzScanDBPtr db = NewGenericDb();
    EXPECT_TRUE(Open(*db, dir.path()).IsSuccess());
    return db;
  }
};

TEST_F(CountersTest, BlockAtStartAndAtCloseCountsTheOperationsAndCloseIsPrompt) {
  WzScanDBPtr db = OpenDb();
  ASSERT_TRUE(WaitFor(kHead, 1, 5)) << "the thread dumps as soon as it starts";
  for (const char* path : {"/c/0", "/c/1", "/c/2"})
    ASSERT_TRUE(db->addDBRecord(Generic(path)).IsSuccess());
  ASSERT_TRUE(db->updateDBRecord(Generic("/c/0", false, 4)).IsSuccess());
  ASSERT_TRUE(db->deleteDBRecord(Generic("/c/1")).IsSuccess());
  ASSERT_TRUE(db->addRecordWithoutCheck(Generic("/c/9")).IsSuccess());
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the thread is asleep now
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << "close is prompt";
  EXPECT_EQ(Count(kStopped), 1u) << "close joined the thread";

  EXPECT_EQ(Count(kHead), 2u);
  EXPECT_EQ(Count(std::string(83, '-')), 2u);
  EXPECT_TRUE(capture->FindContaining("LLAPI_PATH2FID").empty());
  // The block of close is the last one: 4 adds, 5 lookups (3 adds, 1 update,
  // 1 delete), 1 delete, 1 update, no reads.
  for (const char* expected : {" ADD_RECORD : samples=4 ", " CHECK_RECORD : samples=5 ",
                               " DELETE_RECORD : samples=1 ", " UPDATE_RECORD : samples=1 ",
                               " READ_RECORD : samples=0 "}) {
    std::string name = std::string(expected).substr(1, std::string(expected).find(" : ") - 1);
    EXPECT_EQ(LastCounter(name).find(expected), 0u) << LastCounter(name);
  }
}

TEST_F(CountersTest, PathToFidLineOnlyOnceUsedAndNothingBeyondTheList) {
  WzScanDBPerformanceCounter counters;
  for (int i : {-1, 6}) {
    EXPECT_EQ(counters.GetCounter(static_cast<ScanDBCounter>(i)), nullptr) << i;
    CAutoTimeCounter harmless(counters.GetCounter(static_cast<ScanDBCounter>(i)));
  }
  counters.LogAllPerformanceCounters();
  EXPECT_TRUE(capture->FindContaining("LLAPI_PATH2FID").empty());
  EXPECT_EQ(capture->FindContaining("_RECORD : samples=0 ").size(), 5u);
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

  // The thread function without a counter set returns at once.
  capture->Clear();
  EXPECT_EQ(PrintScanDBStatistics(nullptr), nullptr);
  EXPECT_EQ(Count(kStarted), 1u);
  EXPECT_EQ(capture->Entries().size(), 1u);
}

TEST_F(CountersTest, IntervalComesFromTheSettingsFile) {
  EXPECT_EQ(WzScanDBPerformanceCounter().GetLoggingInterval(), 600);
  UseInterval("45");
  capture->Clear();
  EXPECT_EQ(WzScanDBPerformanceCounter().GetLoggingInterval(), 45);
  EXPECT_EQ(Count("The Logging Interval of the WzScanDBPerformanceCounters : 45 seconds"), 1u);
  UseInterval("often");
  EXPECT_EQ(WzScanDBPerformanceCounter().GetLoggingInterval(), 600);

  // Zero: the thread never dumps, close does.
  UseInterval("0");
  WzScanDBPtr db = OpenDb();
  ASSERT_TRUE(WaitFor(kStarted, 1, 5));
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_EQ(Count(kHead), 1u);
  EXPECT_EQ(Count(kStopped), 1u);
}

// Slow (about ten seconds): the periodic dump follows the ten-second clock.
TEST_F(CountersTest, PeriodicDumpEveryInterval) {
  UseInterval("10");
  WzScanDBPtr db = OpenDb();
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
  WzScanDBPtr again = OpenDb();
  EXPECT_TRUE(Find(*again, Generic("/kept")));
  again->close();
}

}  // namespace
}  // namespace coretest
