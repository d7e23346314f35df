// CAutoTimeCounter: scope timer. Adds the time from its construction to its
// destruction to the counter as one sample. A null counter makes it a no-op
// (no clock is read).
#pragma once

#include "runtime/CTimeCounter.h"
#include "runtime/CTimeStamp.h"

class CAutoTimeCounter {
 public:
  explicit CAutoTimeCounter(CTimeCounter* counter) noexcept : counter_(counter) {
    if (counter_) start_ = CTimeStamp::Monotonic();
  }
  ~CAutoTimeCounter() {
    if (counter_) counter_->Add(CTimeStamp::Monotonic() - start_);
  }
  CAutoTimeCounter(const CAutoTimeCounter&) = delete;
  CAutoTimeCounter& operator=(const CAutoTimeCounter&) = delete;

 private:
  CTimeCounter* counter_;
  CTimeStamp start_;
};
