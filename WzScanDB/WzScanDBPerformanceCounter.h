// WzScanDBPerformanceCounter: the timing counters of one scan database and the
// thread function that writes them to the log.
//
// The counter set owns one CTimeCounter per ScanDBCounter value. Callers time
// table operations with CAutoTimeCounter(GetCounter(...)); the statistics
// thread (PrintScanDBStatistics) dumps every counter at the interval read from
// the setting "nWzScanDBPerformanceLoggingInterval" of "~FileSystemAgent"
// (default 600 s) until SetStopLogging(true) wakes it and ends it.
//
// Thread-safe: counterLock guards the counter list and the stop flag; counters
// themselves add lock-free. Lock order: a caller holding the database's dbLock
// may take counterLock, never the reverse.
#pragma once

#include <condition_variable>
#include <vector>

#include "WzScanDB/WzScanDBExport.h"
#include "runtime/CTimeCounter.h"
#include "runtime/FXMutex.h"

enum ScanDBCounter {
  ADD_RECORD = 0,
  CHECK_RECORD = 1,
  DELETE_RECORD = 2,
  UPDATE_RECORD = 3,
  READ_RECORD = 4,
  LLAPI_PATH2FID = 5,
};

class WZSCANDB_API WzScanDBPerformanceCounter {
 public:
  WzScanDBPerformanceCounter();
  virtual ~WzScanDBPerformanceCounter();

  void CreateAllPerformanceCounters();
  CTimeCounter* GetCounter(ScanDBCounter which);
  void LogPerformanceCounter(int which);
  void LogAllPerformanceCounters();
  void SetStopLogging(bool stop);
  bool GetStopLogging();
  int GetLoggingInterval() const { return loggingInterval; }

  // Sleeps up to `milliseconds`, returning early (true) once a stop is asked.
  bool WaitForStop(unsigned milliseconds);

  // ---- owner liveness (WzScanDBPerformanceCounter.cpp) ----------------------
  // The database that created this set calls MarkOwnerGone() when it is
  // destroyed without close(). It does not wake the statistics thread: the
  // thread sees the mark at its next wake-up and ends, so a detached thread
  // never outlives its database by more than one sleep. IsOwnerGone() reads it.
  void MarkOwnerGone();
  bool IsOwnerGone();

 private:
  std::vector<CTimeCounter*> counters;
  bool stopLogging;
  int loggingInterval;
  FXMutex counterLock;
  std::condition_variable stopSignal;

  // ---- owner liveness and helpers (WzScanDBPerformanceCounter.cpp) ----------
  bool ownerGone = false;  // guarded by counterLock
  // Writes the line of one counter; the caller holds counterLock.
  void logCounterLocked(int which);
};

// Thread function of the statistics thread; `counterSet` is the database's
// WzScanDBPerformanceCounter. Returns null.
WZSCANDB_API void* PrintScanDBStatistics(void* counterSet);
