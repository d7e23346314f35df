#include "LmdbFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <cstdio>
#include <mutex>
#include <vector>

#include "ForkSafety.h"
#include "LmdbVerifier.h"
#include "runtime/FXFile.h"
#include "table/TableStatus.h"

namespace wztable {
namespace {

constexpr uint64_t kMiB = 1024 * 1024;

uint64_t roundUp(uint64_t value, uint64_t unit) { return (value + unit - 1) / unit * unit; }

// Environments that cannot be closed safely, kept reachable for the life of
// the process (so that a leak checker does not report them as lost).
void keepUnclosed(MDB_env* env) {
  static std::mutex mutex;
  static auto* kept = new std::vector<MDB_env*>;
  std::lock_guard<std::mutex> lock(mutex);
  kept->push_back(env);
}

int statusFromErrno(int err) {
  switch (err) {
    case ENOENT: return TBL_FILE_MISSING;
    case EEXIST: return TBL_FILE_EXISTS;
    case ELOOP: return TBL_BAD_FORMAT;
    case EACCES:
    case EPERM:
    case EROFS: return TBL_ACCESS_DENIED;
    case ENOSPC:
    case EFBIG:
    case EDQUOT: return TBL_FILE_FULL;
    case ENOMEM: return TBL_NO_MEMORY;
    default: return TBL_IO_ERROR;
  }
}

}  // namespace

int statusFromMdb(int rc) {
  switch (rc) {
    case MDB_SUCCESS: return TBL_OK;
    case MDB_NOTFOUND: return TBL_NOT_FOUND;
    case MDB_KEYEXIST: return TBL_DUPLICATE_KEY;
    case MDB_MAP_FULL:
    case MDB_TXN_FULL: return TBL_FILE_FULL;
    case MDB_INVALID:
    case MDB_VERSION_MISMATCH:
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
    case MDB_INCOMPATIBLE:
    case MDB_BAD_DBI: return TBL_BAD_FORMAT;
    case MDB_BAD_VALSIZE: return TBL_BAD_ARGUMENT;
    default: return rc > 0 ? statusFromErrno(rc) : TBL_IO_ERROR;
  }
}

LmdbFile::~LmdbFile() { close(); }

int LmdbFile::openFile(const std::string& path, bool create, bool readOnly) {
  path_ = path;
  readOnly_ = readOnly && !create;
  created_ = create;
  // O_NONBLOCK: opening a FIFO planted under the file's name must not hang;
  // it is refused below as not a regular file.
  int flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | (readOnly_ ? O_RDONLY : O_RDWR);
  if (create) flags |= O_CREAT | O_EXCL;
  fd_ = ::open(path.c_str(), flags, create ? FXFile::CreatedFileMode() : 0);
  if (fd_ < 0) return statusFromErrno(errno);
  closeInForkChildren(fd_);
  struct stat st;
  if (fstat(fd_, &st) != 0) return TBL_IO_ERROR;
  if (!S_ISREG(st.st_mode)) return TBL_BAD_FORMAT;
  originalSize_ = static_cast<uint64_t>(st.st_size);
  return TBL_OK;
}

int LmdbFile::validate(std::string* reason, bool deep) const {
  return verifyLmdbFile(fd_, reason, deep);
}

int LmdbFile::preallocate(uint64_t size) {
  int rc = posix_fallocate(fd_, 0, static_cast<off_t>(size));
  if (rc == 0) return TBL_OK;
  if (rc == EOPNOTSUPP || rc == EINVAL) {
    struct stat st;
    if (fstat(fd_, &st) == 0 && static_cast<uint64_t>(st.st_size) >= size) return TBL_OK;
    if (ftruncate(fd_, static_cast<off_t>(size)) == 0) return TBL_OK;
    rc = errno;
  }
  return statusFromErrno(rc);
}

int LmdbFile::mapEnv(size_t mapSize) {
  int rc = mdb_env_create(&env_);
  if (rc != 0) {
    env_ = nullptr;
    return statusFromMdb(rc);
  }
  mapSize_ = mapSize;
  mdb_env_set_maxdbs(env_, maxDbs_);
  mdb_env_set_mapsize(env_, mapSize_);
  // Read-write commits are synced by LMDB itself: the data pages, then the
  // meta page. The table commits rarely (at checkpoints), so a commit that
  // reaches the disk is what a power loss must find intact.
  unsigned flags = MDB_NOSUBDIR | MDB_NOLOCK;
  flags |= readOnly_ ? MDB_RDONLY : MDB_WRITEMAP;
  const std::string procPath = "/proc/self/fd/" + std::to_string(fd_);
  rc = mdb_env_open(env_, procPath.c_str(), flags, 0600);
  if (rc != 0) {
    mdb_env_close(env_);
    env_ = nullptr;
    return statusFromMdb(rc);
  }
  return TBL_OK;
}

int LmdbFile::openEnv(unsigned maxDbs, size_t growStep, uint64_t sizeCap) {
  growStep_ = growStep;
  sizeCap_ = sizeCap;
  maxDbs_ = maxDbs;
  const uint64_t size = fileSize();
  if (size == 0) {
    // A new file: LMDB writes its meta pages itself (it must find the file
    // empty); the blocks of the first map are claimed once it is open.
    uint64_t mapSize = kMiB;
    if (sizeCap_ && mapSize > sizeCap_) mapSize = sizeCap_;
    int status = mapEnv(static_cast<size_t>(mapSize));
    return status != TBL_OK || readOnly_ ? status : preallocate(mapSize_);
  }
  // An existing file is mapped as it is: opening claims no disk space, so a
  // table on a full disk still opens (and reads), and writes fail only when
  // they need room the disk does not have.
  return mapEnv(static_cast<size_t>(roundUp(size, 4096)));
}

int LmdbFile::grow(size_t minExtra) {
  if (!env_) return TBL_IO_ERROR;
  uint64_t step = growStep_;
  if (step < mapSize_ / 8) step = mapSize_ / 8;
  if (step < minExtra) step = minExtra;
  // Near a size limit or a full disk, only what is needed: the room left
  // stays for the other table file and the log.
  const uint64_t least = minExtra > kMiB ? minExtra : kMiB;
  for (;;) {
    uint64_t newSize = roundUp(mapSize_ + step, kMiB);
    if (sizeCap_ && newSize > sizeCap_) newSize = sizeCap_;
    if (newSize <= mapSize_ || newSize < mapSize_ + minExtra) return TBL_FILE_FULL;
    int status = preallocate(newSize);
    if (status == TBL_FILE_FULL && step > least) {
      step = least;
      continue;
    }
    if (status != TBL_OK) return status;
    // The blocks are there, so LMDB's own ftruncate to the new size should
    // not fail; the new map can (no address space). LMDB leaves the
    // environment without a usable map then: it is reopened at the old size
    // with the owner's handles, or closed.
    int rc = mdb_env_set_mapsize(env_, static_cast<size_t>(newSize));
    if (rc == 0) {
      mapSize_ = static_cast<size_t>(newSize);
      return TBL_OK;
    }
    // When its mmap failed (ENOMEM) LMDB has dropped the map and the
    // environment closes cleanly. When its ftruncate failed, it keeps the
    // old, already unmapped address with the new size, and closing it would
    // unmap that range over whatever lies next to it: that environment is
    // let go unclosed (a descriptor and a little memory, on a rare error).
    const size_t oldSize = mapSize_;
    if (rc == ENOMEM) mdb_env_close(env_);
    else keepUnclosed(env_);
    env_ = nullptr;
    if (mapEnv(oldSize) == TBL_OK && reopenHandles() != TBL_OK) {
      mdb_env_close(env_);
      env_ = nullptr;
    }
    return statusFromMdb(rc);
  }
}

// A new environment knows no database: the main one needs its comparison
// set up, the named ones their handles, given out in the order of opening.
int LmdbFile::reopenHandles() {
  MDB_txn* txn = nullptr;
  int rc = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
  MDB_dbi dbi = 0;
  if (rc == MDB_SUCCESS) rc = mdb_dbi_open(txn, nullptr, 0, &dbi);
  for (const Handle& h : handles_) {
    if (rc != MDB_SUCCESS) break;
    rc = mdb_dbi_open(txn, h.name.c_str(), h.flags, &dbi);
    if (rc == MDB_SUCCESS && dbi != h.dbi) rc = MDB_BAD_DBI;
  }
  if (rc == MDB_SUCCESS) return statusFromMdb(mdb_txn_commit(txn));
  if (txn) mdb_txn_abort(txn);
  return statusFromMdb(rc);
}

int LmdbFile::ensureRoom(size_t bytes) {
  if (!env_) return TBL_IO_ERROR;
  MDB_envinfo info;
  MDB_stat stat;
  if (mdb_env_info(env_, &info) != 0 || mdb_env_stat(env_, &stat) != 0) return TBL_IO_ERROR;
  const uint64_t used = (static_cast<uint64_t>(info.me_last_pgno) + 1) * stat.ms_psize;
  if (used + bytes <= mapSize_) return TBL_OK;
  // A full step when the disk has it, less (down to a MiB) near its limit.
  return grow(kMiB);
}

uint64_t LmdbFile::nextPage(MDB_txn* txn) const {
  // struct MDB_txn begins: parent, child, next page number, id, environment.
  struct Head {
    void* parent;
    void* child;
    size_t nextPage;
    size_t id;
    MDB_env* env;
  };
  if (!txn || !env_) return 0;
  Head head;
  std::memcpy(&head, txn, sizeof head);
  if (head.env != env_ || head.env != mdb_txn_env(txn) || head.id != mdb_txn_id(txn) ||
      head.parent != nullptr)
    return 0;
  return head.nextPage;
}

uint64_t LmdbFile::mapPages() const {
  MDB_stat stat;
  if (!env_ || mdb_env_stat(env_, &stat) != 0 || stat.ms_psize == 0) return 0;
  return mapSize_ / stat.ms_psize;
}

uint64_t LmdbFile::headroomPages() const {
  const uint64_t eighth = mapPages() / 8;
  return eighth < 256 ? eighth : 256;
}

uint64_t LmdbFile::diskRoom() const {
  struct statvfs vfs;
  if (fd_ < 0 || fstatvfs(fd_, &vfs) != 0) return UINT64_MAX;
  return static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
}

uint64_t LmdbFile::lastTxnId() const {
  MDB_envinfo info;
  if (!env_ || mdb_env_info(env_, &info) != 0) return 0;
  return info.me_last_txnid;
}

uint64_t LmdbFile::fileSize() const {
  struct stat st;
  if (fd_ < 0 || fstat(fd_, &st) != 0) return 0;
  return static_cast<uint64_t>(st.st_size);
}

int LmdbFile::close() {
  int status = TBL_OK;
  if (env_) {
    uint64_t used = 0;
    if (!readOnly_) {
      // Every commit was synced; only the file's length is left to settle.
      MDB_envinfo info;
      MDB_stat stat;
      if (mdb_env_info(env_, &info) == 0 && mdb_env_stat(env_, &stat) == 0)
        used = (static_cast<uint64_t>(info.me_last_pgno) + 1) * stat.ms_psize;
    }
    mdb_env_close(env_);
    env_ = nullptr;
    if (used && fd_ >= 0) {
      if (ftruncate(fd_, static_cast<off_t>(used)) != 0 || fdatasync(fd_) != 0)
        status = TBL_IO_ERROR;
      else
        markClean();
    }
  }
  if (fd_ >= 0) {
    keepInForkChildren(fd_);
    ::close(fd_);
    fd_ = -1;
  }
  return status;
}

namespace {

constexpr const char* kCleanMarkName = "user.wztable.clean";

struct CleanMark {
  char magic[8];
  uint64_t ino;
  uint64_t size;
  int64_t mtimeSec;
  int64_t mtimeNsec;
};

bool markOf(int fd, CleanMark* mark) {
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  std::memset(mark, 0, sizeof *mark);
  std::memcpy(mark->magic, "wzclean1", sizeof mark->magic);
  mark->ino = st.st_ino;
  mark->size = static_cast<uint64_t>(st.st_size);
  mark->mtimeSec = st.st_mtim.tv_sec;
  mark->mtimeNsec = st.st_mtim.tv_nsec;
  return true;
}

}  // namespace

void LmdbFile::markClean() {
  // Best effort: without the mark the next open checks every page.
  CleanMark mark;
  if (markOf(fd_, &mark)) (void)fsetxattr(fd_, kCleanMarkName, &mark, sizeof mark, 0);
}

LmdbFile::Mark LmdbFile::cleanMark() const {
  CleanMark stored, now;
  const ssize_t got = fgetxattr(fd_, kCleanMarkName, &stored, sizeof stored);
  if (got < 0 && (errno == ENOTSUP || errno == EOPNOTSUPP)) return Mark::kUnsupported;
  if (got != static_cast<ssize_t>(sizeof stored) || !markOf(fd_, &now)) return Mark::kAbsent;
  return std::memcmp(&stored, &now, sizeof now) == 0 ? Mark::kIntact : Mark::kAbsent;
}

void LmdbFile::clearCleanMark() {
  if (fd_ >= 0 && !readOnly_) (void)fremovexattr(fd_, kCleanMarkName);
}

void LmdbFile::abandon() {
  if (env_) {
    mdb_env_close(env_);
    env_ = nullptr;
  }
  if (fd_ >= 0) {
    if (!readOnly_ && !created_ && fileSize() != originalSize_)
      (void)!ftruncate(fd_, static_cast<off_t>(originalSize_));
    keepInForkChildren(fd_);
    ::close(fd_);
    fd_ = -1;
  }
}

}  // namespace wztable
