// System call faults planted under the runtime library (defined in
// FXFileTest.cpp). While set: write() puts at most `writeLimit` bytes per call,
// copy_file_range() fails with `copyRangeErrno`, the next `renameFailures`
// renames fail with `renameErrno`, and renameat2() with flags fails as on a
// file system that cannot refuse to replace; the next `interrupts` writes and
// as many reads fail with EINTR, and fchmod() fails with `fchmodErrno`.
// `directorySyncs` counts fsync() calls on directories, faults or not.
#pragma once

#include <cstddef>

struct PlantedFaults {
  size_t writeLimit = 0;
  int copyRangeErrno = 0;
  int renameFailures = 0, renameErrno = 0;
  bool noRenameFlags = false;
  int interrupts = 0, fchmodErrno = 0, readInterrupts = interrupts, directorySyncs = 0;
};
extern PlantedFaults g_faults;
