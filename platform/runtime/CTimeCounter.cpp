// CTimeCounter: reset and rendering.
#include "runtime/CTimeCounter.h"

#include "runtime/FXString.h"

void CTimeCounter::Reset() noexcept {
  total_.store(0, std::memory_order_relaxed);
  samples_.store(0, std::memory_order_relaxed);
}

std::string CTimeCounter::AsString() const {
  // Read once each: Add() may run concurrently, so the pair is a near-snapshot.
  const unsigned long long samples = GetTotalSamples();
  const long long total = GetTotalTime();
  const double mean = samples ? static_cast<double>(total) / 1000.0 / static_cast<double>(samples)
                              : 0.0;
  return FXString::Format("samples=%llu total=%.3f ms mean=%.3f us", samples,
                          static_cast<double>(total) / 1000000.0, mean);
}
