// System call faults planted under the runtime library (defined in
// FXFileTest.cpp). While set: write() puts at most `writeLimit` bytes per call,
// copy_file_range() fails with `copyRangeErrno`, the next `renameFailures`
// renames fail with `renameErrno`, and renameat2() with flags fails as on a
// file system that cannot refuse to replace.
#pragma once

#include <cstddef>

struct PlantedFaults {
  size_t writeLimit = 0;
  int copyRangeErrno = 0;
  int renameFailures = 0, renameErrno = 0;
  bool noRenameFlags = false;
};
extern PlantedFaults g_faults;
