// WZDebugFunction: entry and exit trace lines of a scope.
#include "runtime/WZDebugFunction.h"

#include "runtime/LogWriter.h"

WZDebugFunction::WZDebugFunction(int traceLevel, const char* function)
    : traceLevel_(traceLevel), function_(function ? function : "") {
  if (!g_ptrLogWriter->IsEnabled(traceLevel_)) return;
  g_ptrLogWriter->Write(traceLevel_, function_, 0, "Entering %s", function_);
  // The clock is read only when the entry line was written; a zero start
  // tells the destructor there is no exit line to write.
  start_ = CTimeStamp::Monotonic();
}

WZDebugFunction::~WZDebugFunction() {
  if (start_.IsZero() || !g_ptrLogWriter->IsEnabled(traceLevel_)) return;
  const long long elapsed = CTimeStamp::Monotonic() - start_;
  g_ptrLogWriter->Write(traceLevel_, function_, 0, "Leaving %s after %.3f ms", function_,
                        static_cast<double>(elapsed) / 1000000.0);
}
