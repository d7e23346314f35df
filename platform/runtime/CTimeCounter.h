// CTimeCounter: accumulates measured intervals: a total time and the number of
// samples. Add() is lock-free and may be called from any thread while others
// read. AsString() renders "samples=<n> total=<t> ms mean=<m> us".
#pragma once

#include <atomic>
#include <string>

#include "runtime/WzRuntimeExport.h"

class WZRT_API CTimeCounter {
 public:
  CTimeCounter() = default;
  CTimeCounter(const CTimeCounter&) = delete;
  CTimeCounter& operator=(const CTimeCounter&) = delete;

  void Add(long long nanoseconds) noexcept {
    total_.fetch_add(nanoseconds, std::memory_order_relaxed);
    samples_.fetch_add(1, std::memory_order_relaxed);
  }
  // Total time in nanoseconds.
  long long GetTotalTime() const noexcept { return total_.load(std::memory_order_relaxed); }
  unsigned long long GetTotalSamples() const noexcept {
    return samples_.load(std::memory_order_relaxed);
  }
  void Reset() noexcept;
  std::string AsString() const;

 private:
  std::atomic<long long> total_{0};
  std::atomic<unsigned long long> samples_{0};
};
