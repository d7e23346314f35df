// ScratchFile: an anonymous temporary file for data that does not fit in
// memory. It has no name from the moment it exists (O_TMPFILE, or a file
// made and unlinked at once), so its disk space goes back when it is closed
// or the process ends, whatever way it ends.
//
// open() prefers the given directory (the database's, so that the space comes
// from the volume sized for the table) and falls back to the system's
// temporary directory ($TMPDIR, else /tmp) when that directory refuses.
// Reads and writes are positional; release() hands the blocks before an
// offset back to the file system (where it can punch holes) while the file
// stays open. Calls return 0 or an errno value. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace WzScanDBInternal {

class ScratchFile {
 public:
  ScratchFile() = default;
  ~ScratchFile();
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  // Opens a fresh, empty file in `directory` or, failing that, in the
  // system's temporary directory. The error of the preferred directory is
  // returned when both refuse.
  int open(const std::string& directory);
  bool isOpen() const { return fd_ >= 0; }
  // The directory the file lives in (empty while closed).
  const std::string& directory() const { return directory_; }

  // Writes all of `size` bytes at `offset`.
  int write(uint64_t offset, const void* data, size_t size);
  // Reads exactly `size` bytes at `offset`; EIO when the file is shorter.
  int read(uint64_t offset, void* data, size_t size);
  // Gives the disk blocks wholly before `end` back, keeping the file's size
  // and offsets (best effort: file systems without hole punching keep them).
  void release(uint64_t end);
  // Cuts the file to zero length.
  int truncate();
  void close();

 private:
  int fd_ = -1;
  std::string directory_;
  uint64_t released_ = 0;  // blocks before this offset were handed back
};

}  // namespace WzScanDBInternal
