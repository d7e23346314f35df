// CTimeStamp: a point in time with nanosecond resolution.
//
// Now() reads the wall clock (CLOCK_REALTIME); Monotonic() reads CLOCK_MONOTONIC
// for measuring intervals. A stamp made from Unix seconds converts back to the
// same seconds; the zero stamp stays zero.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/WzRuntimeExport.h"

class WZRT_API CTimeStamp {
 public:
  constexpr CTimeStamp() noexcept = default;
  static CTimeStamp Now() noexcept;
  static CTimeStamp Monotonic() noexcept;
  static constexpr CTimeStamp FromUnixSeconds(long long seconds) noexcept {
    return CTimeStamp(seconds * 1000000000LL);
  }
  static constexpr CTimeStamp FromNanoseconds(long long ns) noexcept {
    return CTimeStamp(ns);
  }

  long long ToUnixSeconds() const noexcept;  // floor division
  long long Nanoseconds() const noexcept { return ns_; }
  bool IsZero() const noexcept { return ns_ == 0; }

  // Difference in nanoseconds.
  long long operator-(const CTimeStamp& other) const noexcept { return ns_ - other.ns_; }
  bool operator==(const CTimeStamp& o) const noexcept { return ns_ == o.ns_; }
  bool operator<(const CTimeStamp& o) const noexcept { return ns_ < o.ns_; }

  // "YYYY-MM-DD hh:mm:ss.uuuuuu" in UTC.
  std::string AsString() const;

 private:
  constexpr explicit CTimeStamp(long long ns) noexcept : ns_(ns) {}
  long long ns_ = 0;
};
