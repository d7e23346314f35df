// ScratchFile: anonymous temporary files.
#include "WzScanDB/ScratchFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace WzScanDBInternal {

namespace {

// A file without a name in `directory`, or -1 with errno set. O_TMPFILE
// first; a file system that lacks it gets a named file unlinked at once.
int OpenAnonymous(const std::string& directory) {
  const std::string dir = directory.empty() ? std::string(".") : directory;
  int fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  std::string pattern = dir + "/WzScanDB.walk.XXXXXX";
  fd = mkostemp(&pattern[0], O_CLOEXEC);
  if (fd >= 0) ::unlink(pattern.c_str());
  return fd;
}

std::string SystemTempDirectory() {
  const char* tmp = std::getenv("TMPDIR");
  return tmp && *tmp ? std::string(tmp) : std::string("/tmp");
}

}  // namespace

ScratchFile::~ScratchFile() { close(); }

int ScratchFile::open(const std::string& directory) {
  close();
  int fd = OpenAnonymous(directory);
  if (fd >= 0) {
    directory_ = directory;
    fd_ = fd;
    return 0;
  }
  const int preferredError = errno;
  const std::string fallback = SystemTempDirectory();
  fd = OpenAnonymous(fallback);
  if (fd < 0) return preferredError;
  directory_ = fallback;
  fd_ = fd;
  return 0;
}

int ScratchFile::write(uint64_t offset, const void* data, size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::pwrite(fd_, bytes, size, static_cast<off_t>(offset));
    if (written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (written == 0) return ENOSPC;
    bytes += written;
    offset += static_cast<uint64_t>(written);
    size -= static_cast<size_t>(written);
  }
  return 0;
}

int ScratchFile::read(uint64_t offset, void* data, size_t size) {
  char* bytes = static_cast<char*>(data);
  while (size > 0) {
    const ssize_t got = ::pread(fd_, bytes, size, static_cast<off_t>(offset));
    if (got < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (got == 0) return EIO;
    bytes += got;
    offset += static_cast<uint64_t>(got);
    size -= static_cast<size_t>(got);
  }
  return 0;
}

void ScratchFile::release(uint64_t end) {
  // Whole MiB only: punching small pieces costs more than it gives back.
  constexpr uint64_t kUnit = 1 << 20;
  const uint64_t upTo = end / kUnit * kUnit;
  if (fd_ < 0 || upTo <= released_) return;
  ::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(released_),
              static_cast<off_t>(upTo - released_));
  released_ = upTo;
}

int ScratchFile::truncate() {
  released_ = 0;
  return ::ftruncate(fd_, 0) == 0 ? 0 : errno;
}

void ScratchFile::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  released_ = 0;
  directory_.clear();
}

}  // namespace WzScanDBInternal
