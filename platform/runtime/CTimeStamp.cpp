// CTimeStamp: clock reads and UTC rendering.
#include "runtime/CTimeStamp.h"

#include <ctime>

#include "runtime/FXString.h"

namespace {
long long ReadClock(clockid_t clock) noexcept {
  timespec ts{};
  clock_gettime(clock, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// Floor division, so instants before 1970 round towards the past.
long long FloorDiv(long long a, long long b) noexcept {
  long long q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}
}  // namespace

CTimeStamp CTimeStamp::Now() noexcept { return CTimeStamp(ReadClock(CLOCK_REALTIME)); }

CTimeStamp CTimeStamp::Monotonic() noexcept { return CTimeStamp(ReadClock(CLOCK_MONOTONIC)); }

long long CTimeStamp::ToUnixSeconds() const noexcept { return FloorDiv(ns_, 1000000000LL); }

std::string CTimeStamp::AsString() const {
  long long seconds = ToUnixSeconds();
  long long micros = (ns_ - seconds * 1000000000LL) / 1000;
  time_t t = static_cast<time_t>(seconds);
  tm parts{};
  if (gmtime_r(&t, &parts) == nullptr) return FXString::Format("@%lld", ns_);
  return FXString::Format("%04d-%02d-%02d %02d:%02d:%02d.%06lld", parts.tm_year + 1900,
                          parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                          parts.tm_sec, micros);
}
