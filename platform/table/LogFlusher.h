// LogFlusher: a thread that flushes a table's write-ahead log to the disk
// every sync interval, so that a power loss takes at most the writes of the
// last interval, whether or not more writes come.
//
// The thread calls TableLog::sync() only, which is safe beside the owner's
// appends; the owner must stop() the flusher before it closes the log. A
// failed flush is kept (failure()) and reported once through `report`.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "TableLog.h"

namespace wztable {

class LogFlusher {
 public:
  LogFlusher() = default;
  ~LogFlusher() { stop(); }
  LogFlusher(const LogFlusher&) = delete;
  LogFlusher& operator=(const LogFlusher&) = delete;

  // Starts flushing `log` every `interval`; `report` is called (on the
  // flusher's thread) with the status of the first flush that fails.
  // TBL_NO_MEMORY when the thread cannot be made (no memory for its stack).
  int start(TableLog* log, std::chrono::milliseconds interval, std::function<void(int)> report);
  void stop();
  bool running() const { return thread_.joinable(); }
  // TBL_OK, or the status of the first failed flush.
  int failure() const { return failure_.load(); }

 private:
  void run();

  TableLog* log_ = nullptr;
  std::chrono::milliseconds interval_{1000};
  std::function<void(int)> report_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::atomic<int> failure_{0};
  std::thread thread_;
};

}  // namespace wztable
