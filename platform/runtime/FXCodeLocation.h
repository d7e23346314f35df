// FXCodeLocation: where an error was made or a log line written.
//
// A location is three plain values: the source path ("WzScanDB/WzScanDB"),
// the function's full signature text, and a source line. The two texts are
// not copied: they must outlive the location (string literals do).
#pragma once

#include "runtime/WzRuntimeExport.h"

struct WZRT_API FXCodeLocation {
  const char* file;
  const char* function;
  int line;

  constexpr FXCodeLocation(const char* f, const char* fn, int l) noexcept
      : file(f), function(fn), line(l) {}
};
