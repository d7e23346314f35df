#include "LogFlusher.h"

#include <system_error>

#include "table/TableStatus.h"

namespace wztable {

int LogFlusher::start(TableLog* log, std::chrono::milliseconds interval,
                      std::function<void(int)> report) {
  stop();
  log_ = log;
  interval_ = interval;
  report_ = std::move(report);
  stopping_ = false;
  failure_.store(TBL_OK);
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error&) {
    return TBL_NO_MEMORY;
  }
  return TBL_OK;
}

void LogFlusher::stop() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void LogFlusher::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    wake_.wait_for(lock, interval_, [this] { return stopping_; });
    if (stopping_) break;
    lock.unlock();
    const int status = log_->sync();
    if (status != TBL_OK && failure_.load() == TBL_OK) {
      failure_.store(status);
      if (report_) report_(status);
    }
    lock.lock();
  }
}

}  // namespace wztable
