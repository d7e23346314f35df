// WZDebugFunction: scope trace. Writes "Entering <function>" when it is made
// and "Leaving <function> after <n> ms" when it goes out of scope, both at its
// trace level through g_ptrLogWriter.
#pragma once

#include "runtime/CTimeStamp.h"
#include "runtime/WzRuntimeExport.h"

class WZRT_API WZDebugFunction {
 public:
  WZDebugFunction(int traceLevel, const char* function);
  ~WZDebugFunction();
  WZDebugFunction(const WZDebugFunction&) = delete;
  WZDebugFunction& operator=(const WZDebugFunction&) = delete;

 private:
  int traceLevel_;
  const char* function_;
  CTimeStamp start_;
};
