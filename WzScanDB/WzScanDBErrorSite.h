// The code location of the database's errors and log lines: every member of
// WzScanDB, whatever .cpp file holds it, reports the source path
// "WzScanDB/WzScanDB". Internal to the library.
#pragma once

#include "runtime/FXCodeLocation.h"

namespace WzScanDBInternal {

constexpr const char kSourcePath[] = "WzScanDB/WzScanDB";

inline FXCodeLocation At(const char* signature, int line) {
  return FXCodeLocation(kSourcePath, signature, line);
}

}  // namespace WzScanDBInternal
