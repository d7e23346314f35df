// The counter set of one scan database and its statistics thread.
#include "WzScanDB/WzScanDBPerformanceCounter.h"

#include <chrono>
#include <mutex>

#include "runtime/LogWriter.h"
#include "runtime/WZPlatformInfo.h"
#include "runtime/auto_lock.h"

namespace {

const char kSigConstructor[] = "WzScanDBPerformanceCounter::WzScanDBPerformanceCounter()";
const char kSigLogOne[] = "void WzScanDBPerformanceCounter::LogPerformanceCounter(int)";
const char kSigLogAll[] = "void WzScanDBPerformanceCounter::LogAllPerformanceCounters()";
const char kSigThread[] = "void* PrintScanDBStatistics(void*)";

// One line format per ScanDBCounter value, in enumeration order.
const char* const kCounterFormats[] = {
    " ADD_RECORD : %s ",    " CHECK_RECORD : %s ", " DELETE_RECORD : %s ",
    " UPDATE_RECORD : %s ", " READ_RECORD : %s ",  " LLAPI_PATH2FID : %s ",
};
const int kCounterCount = sizeof(kCounterFormats) / sizeof(kCounterFormats[0]);

// The statistics thread sleeps in steps of this many seconds.
const int kWakeUpSeconds = 10;

}  // namespace

WzScanDBPerformanceCounter::WzScanDBPerformanceCounter()
    : stopLogging(false), loggingInterval(600) {
  CreateAllPerformanceCounters();
  // An absent or malformed setting leaves the default.
  WZPlatformInfo::getRegInt("~FileSystemAgent", "nWzScanDBPerformanceLoggingInterval",
                            &loggingInterval);
  WZ_LOG(0, kSigConstructor, __LINE__,
         "The Logging Interval of the WzScanDBPerformanceCounters : %d seconds",
         loggingInterval);
}

WzScanDBPerformanceCounter::~WzScanDBPerformanceCounter() {
  for (CTimeCounter* counter : counters) delete counter;
  counters.clear();
}

void WzScanDBPerformanceCounter::CreateAllPerformanceCounters() {
  auto_lock<FXMutex> lock(counterLock);
  for (int i = 0; i < kCounterCount; ++i) counters.push_back(new CTimeCounter());
}

CTimeCounter* WzScanDBPerformanceCounter::GetCounter(ScanDBCounter which) {
  auto_lock<FXMutex> lock(counterLock);
  int index = static_cast<int>(which);
  if (index < 0 || static_cast<size_t>(index) >= counters.size()) return nullptr;
  return counters[index];
}

void WzScanDBPerformanceCounter::LogPerformanceCounter(int which) {
  auto_lock<FXMutex> lock(counterLock);
  logCounterLocked(which);
}

void WzScanDBPerformanceCounter::logCounterLocked(int which) {
  if (which < 0 || which >= kCounterCount) return;
  if (static_cast<size_t>(which) >= counters.size()) return;
  const CTimeCounter* counter = counters[which];
  if (!counter) return;
  // The path-to-FID counter is only shown once something has used it.
  if (which == LLAPI_PATH2FID && counter->GetTotalTime() == 0 &&
      counter->GetTotalSamples() == 0)
    return;
  if (!g_ptrLogWriter->IsEnabled(0)) return;
  g_ptrLogWriter->Write(0, kSigLogOne, __LINE__, kCounterFormats[which],
                        counter->AsString().c_str());
}

void WzScanDBPerformanceCounter::LogAllPerformanceCounters() {
  auto_lock<FXMutex> lock(counterLock);
  WZ_LOG(0, kSigLogAll, __LINE__,
         "--------------------- WzScanDB Performance Counters -------------------------------");
  for (int i = 0; i < kCounterCount; ++i) logCounterLocked(i);
  WZ_LOG(0, kSigLogAll, __LINE__,
         "-----------------------------------------------------------------------------------");
}

void WzScanDBPerformanceCounter::SetStopLogging(bool stop) {
  {
    auto_lock<FXMutex> lock(counterLock);
    stopLogging = stop;
  }
  stopSignal.notify_all();
}

bool WzScanDBPerformanceCounter::GetStopLogging() {
  auto_lock<FXMutex> lock(counterLock);
  return stopLogging;
}

bool WzScanDBPerformanceCounter::WaitForStop(unsigned milliseconds) {
  std::unique_lock<std::mutex> lock(counterLock.Native());
  return stopSignal.wait_for(lock, std::chrono::milliseconds(milliseconds),
                             [this] { return stopLogging; });
}

void WzScanDBPerformanceCounter::MarkOwnerGone() {
  auto_lock<FXMutex> lock(counterLock);
  ownerGone = true;
}

bool WzScanDBPerformanceCounter::IsOwnerGone() {
  auto_lock<FXMutex> lock(counterLock);
  return ownerGone;
}

void* PrintScanDBStatistics(void* counterSet) {
  WZ_LOG(0, kSigThread, __LINE__, "Started WzScanDB Performance Logging Thread");
  if (!counterSet) return nullptr;
  WzScanDBPerformanceCounter* counters = static_cast<WzScanDBPerformanceCounter*>(counterSet);

  long long elapsed = 0;
  for (;;) {
    int interval = counters->GetLoggingInterval();
    if (interval > 0 && elapsed % interval == 0) counters->LogAllPerformanceCounters();
    counters->WaitForStop(kWakeUpSeconds * 1000);
    if (counters->GetStopLogging()) break;
    // A database destroyed without close() leaves its set behind: end here
    // rather than log a set that nobody updates any more.
    if (counters->IsOwnerGone()) break;
    elapsed += kWakeUpSeconds;
  }
  WZ_LOG(0, kSigThread, __LINE__, "Stopped WzScanDB Performance Logging Thread");
  return nullptr;
}
