#include "FileLocks.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "table/TableStatus.h"

namespace wztable {
namespace {

constexpr off_t kLockBase = off_t{1} << 62;
constexpr off_t kWriterByte = kLockBase;
constexpr off_t kSnapshotBytes = kLockBase + 8;

int ofdLock(int fd, short type, off_t at, bool wait) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = at;
  lock.l_len = 1;
  for (;;) {
    if (fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &lock) == 0) return TBL_OK;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EACCES) return TBL_IN_USE;
    return TBL_IO_ERROR;
  }
}

off_t snapshotByte(uint64_t txnid) { return kSnapshotBytes + static_cast<off_t>(txnid % 4); }

}  // namespace

int lockWriter(int fd) { return ofdLock(fd, F_WRLCK, kWriterByte, false); }

bool writerPresent(int fd) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = kWriterByte;
  lock.l_len = 1;
  if (fcntl(fd, F_OFD_GETLK, &lock) != 0) return false;
  return lock.l_type != F_UNLCK;
}

int pinSnapshot(int fd, uint64_t txnid) { return ofdLock(fd, F_RDLCK, snapshotByte(txnid), true); }

void unpinSnapshot(int fd, uint64_t txnid) { ofdLock(fd, F_UNLCK, snapshotByte(txnid), false); }

int waitForOlderReaders(int fd, uint64_t committed, std::chrono::milliseconds patience) {
  // Readers start on the newest snapshot only, so older readers can hold at
  // most the three bytes below the committed one. A read takes microseconds:
  // the wait polls, briefly at first, and gives up after `patience` (a
  // reader stopped inside a read must not hang the writer for ever).
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (uint64_t back = 1; back <= 3 && back <= committed; ++back) {
    const off_t byte = snapshotByte(committed - back);
    for (int round = 0;; ++round) {
      int status = ofdLock(fd, F_WRLCK, byte, false);
      if (status == TBL_OK) break;
      if (status != TBL_IN_USE) return status;
      if (std::chrono::steady_clock::now() > deadline) return TBL_IN_USE;
      if (round > 100) std::this_thread::sleep_for(std::chrono::milliseconds(round > 1000 ? 10 : 1));
    }
    ofdLock(fd, F_UNLCK, byte, false);
  }
  return TBL_OK;
}

int lockDirectory(const std::string& tablePath, int* status) {
  const size_t slash = tablePath.rfind('/');
  const std::string dir =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : tablePath.substr(0, slash));
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    *status = errno == EACCES || errno == EPERM ? TBL_ACCESS_DENIED
              : errno == ENOENT                 ? TBL_FILE_MISSING
                                                : TBL_IO_ERROR;
    return -1;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      ::close(fd);
      *status = TBL_IO_ERROR;
      return -1;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      ::close(fd);
      *status = TBL_IN_USE;
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  *status = TBL_OK;
  return fd;
}

void unlockDirectory(int fd) {
  if (fd >= 0) ::close(fd);
}

}  // namespace wztable
