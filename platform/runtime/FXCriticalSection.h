// FXCriticalSection: a recursive lock. The thread that holds it may take it
// again; it is released when every Lock has been matched by an Unlock.
#pragma once

#include <mutex>

#include "runtime/WzRuntimeExport.h"

class WZRT_API FXCriticalSection {
 public:
  FXCriticalSection() = default;
  FXCriticalSection(const FXCriticalSection&) = delete;
  FXCriticalSection& operator=(const FXCriticalSection&) = delete;

  void Lock() { mutex_.lock(); }
  void Unlock() { mutex_.unlock(); }
  bool TryLock() { return mutex_.try_lock(); }

 private:
  std::recursive_mutex mutex_;
};
