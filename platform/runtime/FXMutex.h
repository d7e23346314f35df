// FXMutex: a plain (non-recursive) lock. Taking it twice on one thread
// deadlocks. Native() gives the std::mutex for use with condition variables.
#pragma once

#include <mutex>

#include "runtime/WzRuntimeExport.h"

class WZRT_API FXMutex {
 public:
  FXMutex() = default;
  FXMutex(const FXMutex&) = delete;
  FXMutex& operator=(const FXMutex&) = delete;

  void Lock() { mutex_.lock(); }
  void Unlock() { mutex_.unlock(); }
  bool TryLock() { return mutex_.try_lock(); }
  std::mutex& Native() { return mutex_; }

 private:
  std::mutex mutex_;
};
