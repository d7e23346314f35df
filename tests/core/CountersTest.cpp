// The performance counters and the statistics thread.
#include <chrono>
#include <fstream>
#include <set>
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
    std::ofstream(dir / "settings.ini") << "[Other]\nnWzScanDBPerformanceLoggingInterval = 5\n[~FileSystemAgent]\n"
                                        << "nWzScanDBPerformanceLoggingInterval = " << value << "\n";
    setenv("WZ_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
  }
  WzScanDBPtr OpenDb(const std::string& where) {
    WzScanDBPtr db = WzMakeHandle(new WzScanDB(boost::make_shared<WzScanDBRecord>()));
    EXPECT_TRUE(db->initialize(where).IsSuccess());
    return db;
  }
  // The threads that wrote `message`.
  std::set<unsigned long> Writers(const std::string& message) const {
    std::set<unsigned long> ids;
    for (const CLogEntry& entry : capture->Find(message)) ids.insert(entry.threadId);
    return ids;
  }
};

TEST_F(CountersTest, BlocksAtStartAndAtCloseCountTheOperationsAndCloseIsPrompt) {
  WzScanDBPtr db = OpenDb(dir.path());
  ASSERT_TRUE(WaitFor(kHead, 1, 5)) << "the thread dumps as soon as it starts";
  for (const char* path : {"/c/0", "/c/1", "/c/2"}) ASSERT_TRUE(db->addDBRecord(Generic(path)).IsSuccess());
  ASSERT_TRUE(db->updateDBRecord(Generic("/c/0", false, 4)).IsSuccess());
  ASSERT_TRUE(db->deleteDBRecord(Generic("/c/1")).IsSuccess());
  ASSERT_TRUE(db->addRecordWithoutCheck(Generic("/c/9")).IsSuccess());
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the thread is asleep now
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << "close is prompt";
  EXPECT_EQ(Count(kStopped), 1u) << "close joined the thread";
  EXPECT_EQ(Count(kHead), 2u);
  // The block of close: 4 adds, 5 lookups (3 adds, 1 update, 1 delete), 1
  // delete, 1 update, no reads; the path-to-FID line only once it was used.
  for (const char* expected : {" ADD_RECORD : samples=4 ", " CHECK_RECORD : samples=5 ", " DELETE_RECORD : samples=1 ",
                               " UPDATE_RECORD : samples=1 ", " READ_RECORD : samples=0 "}) {
    std::string name = std::string(expected).substr(1, std::string(expected).find(" : ") - 1);
    EXPECT_EQ(LastCounter(name).find(expected), 0u) << LastCounter(name);
  }
  EXPECT_TRUE(capture->FindContaining("LLAPI_PATH2FID").empty());

  WzScanDBPerformanceCounter counters;
  { CAutoTimeCounter timer(counters.GetCounter(LLAPI_PATH2FID)); }
  for (int i : {-1, 6}) EXPECT_EQ(counters.GetCounter(static_cast<ScanDBCounter>(i)), nullptr) << i;
  capture->Clear();
  counters.LogPerformanceCounter(6);
  counters.LogPerformanceCounter(-1);
  EXPECT_TRUE(capture->Entries().empty()) << "nothing beyond the list";
  counters.LogAllPerformanceCounters();
  EXPECT_EQ(LastCounter("LLAPI_PATH2FID").find(" LLAPI_PATH2FID : samples=1 "), 0u);
  EXPECT_EQ(capture->Entries().size(), 8u);
  EXPECT_EQ(PrintScanDBStatistics(nullptr), nullptr) << "no counter set: returns at once";
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
  WzScanDBPtr db = OpenDb(dir.path());
  ASSERT_TRUE(WaitFor(kStarted, 1, 5));
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_EQ(Count(kHead), 1u);
  EXPECT_EQ(Count(kStopped), 1u);
}

// Slow (about ten seconds): the thread wakes every ten seconds. A database
// dumps again after its ten-second interval, one with a twenty-second interval
// not yet; one destroyed without close() leaves its thread running on a
// counter set the thread owns, and that thread ends at its next wake-up
// (under AddressSanitizer: no use after free).
TEST_F(CountersTest, PeriodicDumpsAndAThreadOutlivingItsDatabase) {
  TempDir sparseDir, other;
  UseInterval("20");
  WzScanDBPtr sparse = OpenDb(sparseDir.path());  // first, so that it wakes first
  ASSERT_TRUE(WaitFor(kHead, 1, 5));
  UseInterval("10");
  WzScanDBPtr kept = OpenDb(dir.path()), dropped = OpenDb(other.path());
  ASSERT_TRUE(dropped->addDBRecord(Generic("/kept")).IsSuccess());
  ASSERT_TRUE(WaitFor(kHead, 3, 5));
  const std::set<unsigned long> threads = Writers(kStarted);
  ASSERT_EQ(threads.size(), 3u);
  WzDestroyHandleObject(dropped);  // destroyed; the handle lets go harmlessly later
  EXPECT_EQ(Count(kStopped), 0u) << "the destructor does not stop the thread";
  EXPECT_EQ(Count(kHead), 3u) << "nor write the counters";
  EXPECT_TRUE(WaitFor(kStopped, 1, 15));
  EXPECT_TRUE(WaitFor(kHead, 4, 5)) << "the ten-second database dumps again";
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(Count(kHead), 4u) << "the twenty-second one does not, nor the ending thread";
  ASSERT_TRUE(kept->close().IsSuccess());
  ASSERT_TRUE(sparse->close().IsSuccess());
  EXPECT_EQ(Writers(kStopped), threads);
  // The destructor closed the files: another object opens them.
  WzScanDBPtr again = OpenDb(other.path());
  EXPECT_TRUE(Find(*again, Generic("/kept")));
  again->close();
}

}  // namespace
}  // namespace coretest
