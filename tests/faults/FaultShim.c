// FaultShim: an LD_PRELOAD library that watches the file calls a process
// makes on the files of one directory, for the fault tests.
//
// It wraps open/openat/creat, write/pwrite/writev/pwritev/copy_file_range/
// sendfile, fsync/fdatasync/
// msync/sync_file_range, ftruncate/truncate, fallocate/posix_fallocate,
// rename/renameat/renameat2, unlink/unlinkat, mmap/munmap and close. A call
// matches when it names a file under WZF_DIR (by path, or by a descriptor
// opened under it, or by an address inside a map of such a descriptor) and
// its class is listed in WZF_CALLS (default: every class). Matching calls
// are numbered from 1, and the shim can
//   WZF_TRACE=file        append "n class call file site" for each one, site
//                         being the calling library and offset (a call site);
//   WZF_FAIL_AT=n         make call n fail with WZF_ERRNO (EIO, ENOSPC,
//                         EFBIG, ENOMEM, or a number; default EIO), and with
//                         WZF_FAIL_STICKY=1 every matching call after it too;
//   WZF_KILL_AT=n         raise SIGKILL instead of making call n;
//   WZF_DURABLE=dir       keep a durable image of every file: its content as
//                         of its last successful fsync/fdatasync, msync
//                         ranges included (maps are tracked to find the file
//                         and offset), and the directory's names as of its
//                         last fsync. The files present at start count as
//                         durable. dir/names lists "name inode"; the content
//                         of inode i is dir/ino-i.
//   WZF_EVENT_FD=fd       write "W offset length file" after each successful
//                         pwrite, and "Y id t file" before and "Z id rc"
//                         after each sync of a file, in one ordered stream
//                         with the process's own reports on that descriptor;
//   WZF_SNAP_DIR=dir, WZF_SNAP_EVERY=k, WZF_SNAP_MAX=m, WZF_SEED=s
//                         before one matching call in k, drawn at random
//                         (seeded with s; at most m times),
//                         save the durable and the current state to dir/<j>/
//                         (names.durable, names.current, d-<inode>,
//                         c-<inode>) and write "S j t" to the event stream:
//                         the material of a simulated power loss at that
//                         moment. t is CLOCK_MONOTONIC in microseconds.
//   WZF_NOSYNC=1          answer syncs of watched files with success without
//                         making them (durability is what the images say).
// Without WZF_DIR the shim passes every call through untouched.
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

enum { kOpen = 1, kWrite = 2, kSync = 4, kTrunc = 8, kAlloc = 16, kRename = 32, kUnlink = 64,
       kMmap = 128, kClose = 256, kAll = 511 };
static const char* const kClassNames[] = {"open", "write", "sync", "trunc", "alloc",
                                          "rename", "unlink", "mmap", "close"};

#define MAX_FDS 4096
#define MAX_MAPS 256

struct Map {
  char* addr;
  size_t len;
  off_t offset;
  int fd;
};

static pthread_mutex_t g_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
static char g_dir[4096];
static size_t g_dirLen;
static int g_classes = kAll;
static long g_count;
static long g_failAt, g_killAt;
static int g_failErrno = EIO, g_failSticky, g_noSync;
static int g_traceFd = -1, g_eventFd = -1;
static char g_durable[4096];
static char g_snapDir[4096];
static long g_snapEvery, g_snapMax, g_snaps;
static unsigned long long g_random = 88172645463325252ULL;
static long g_syncIds;
static char* g_fdPath[MAX_FDS];
static struct Map g_maps[MAX_MAPS];
static __thread int t_inside;  // the shim's own calls pass through

#define REAL(name) static __typeof__(name)* real_##name; \
  if (!real_##name) real_##name = (__typeof__(name)*)dlsym(RTLD_NEXT, #name)

// ---------------------------------------------------------------------------
// Small helpers that use the raw system calls (never the wrappers below).

static ssize_t rawWrite(int fd, const void* buf, size_t n) {
  REAL(write);
  return real_write(fd, buf, n);
}
static int rawOpen(const char* path, int flags, mode_t mode) {
  REAL(open);
  return real_open(path, flags, mode);
}
static int rawClose(int fd) {
  REAL(close);
  return real_close(fd);
}

static long nowUs(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000000L + ts.tv_nsec / 1000;
}

static void emit(int fd, const char* format, ...) {
  if (fd < 0) return;
  char line[4608];
  va_list args;
  va_start(args, format);
  int n = vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (n > (int)sizeof line - 1) n = sizeof line - 1;
  if (rawWrite(fd, line, (size_t)n) < 0) {
  }
}

static int underDir(const char* path) {
  if (!g_dirLen || !path) return 0;
  return strncmp(path, g_dir, g_dirLen) == 0 && (path[g_dirLen] == '/' || path[g_dirLen] == 0);
}

static const char* fdPath(int fd) { return fd >= 0 && fd < MAX_FDS ? g_fdPath[fd] : NULL; }

// The path an open of `path` relative to `dirfd` names ("/proc/self/fd/N"
// resolved to what N was opened as).
static void resolve(int dirfd, const char* path, char* out, size_t size) {
  out[0] = 0;
  if (!path) return;
  if (strncmp(path, "/proc/self/fd/", 14) == 0) {
    const char* p = fdPath(atoi(path + 14));
    if (p) snprintf(out, size, "%s", p);
    return;
  }
  if (path[0] == '/' || dirfd == AT_FDCWD) {
    snprintf(out, size, "%s", path);
    return;
  }
  const char* base = fdPath(dirfd);
  if (base) snprintf(out, size, "%s/%s", base, path);
}

static void remember(int fd, const char* path) {
  if (fd < 0 || fd >= MAX_FDS) return;
  pthread_mutex_lock(&g_lock);
  free(g_fdPath[fd]);
  g_fdPath[fd] = path && underDir(path) ? strdup(path) : NULL;
  pthread_mutex_unlock(&g_lock);
}

static int parseErrno(const char* text) {
  if (!text || !*text) return EIO;
  if (!strcmp(text, "EIO")) return EIO;
  if (!strcmp(text, "ENOSPC")) return ENOSPC;
  if (!strcmp(text, "EFBIG")) return EFBIG;
  if (!strcmp(text, "ENOMEM")) return ENOMEM;
  if (!strcmp(text, "EDQUOT")) return EDQUOT;
  return atoi(text);
}

// ---------------------------------------------------------------------------
// Durable images and snapshots

// Copies `size` bytes of `src` (from `offset`) into `dst` at the same
// offset, leaving all-zero pages as holes.
static void copyRange(int src, int dst, off_t offset, off_t size) {
  char buf[65536];
  while (size > 0) {
    const size_t want = size < (off_t)sizeof buf ? (size_t)size : sizeof buf;
    const ssize_t n = pread(src, buf, want, offset);
    if (n <= 0) return;
    for (ssize_t at = 0; at < n; at += 4096) {
      const size_t len = n - at < 4096 ? (size_t)(n - at) : 4096;
      size_t i = 0;
      while (i < len && buf[at + i] == 0) ++i;
      if (i < len && pwrite(dst, buf + at, len, offset + at) < 0) return;
    }
    offset += n;
    size -= n;
  }
}

static void copyFile(const char* from, const char* to) {
  int src = rawOpen(from, O_RDONLY | O_CLOEXEC, 0);
  if (src < 0) return;
  int dst = rawOpen(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  struct stat st;
  if (dst >= 0 && fstat(src, &st) == 0) {
    copyRange(src, dst, 0, st.st_size);
    if (ftruncate(dst, st.st_size) != 0) {
    }
  }
  if (dst >= 0) rawClose(dst);
  rawClose(src);
}

// Writes "name inode" for every regular file of the watched directory.
static void listNames(const char* to) {
  char tmp[4200];
  snprintf(tmp, sizeof tmp, "%s.tmp", to);
  FILE* out = fopen(tmp, "we");
  DIR* dir = opendir(g_dir);
  if (out && dir) {
    struct dirent* e;
    while ((e = readdir(dir)) != NULL) {
      char path[4600];
      struct stat st;
      snprintf(path, sizeof path, "%s/%s", g_dir, e->d_name);
      if (lstat(path, &st) == 0 && S_ISREG(st.st_mode))
        fprintf(out, "%s %llu\n", e->d_name, (unsigned long long)st.st_ino);
    }
  }
  if (dir) closedir(dir);
  if (out) fclose(out);
  REAL(rename);
  real_rename(tmp, to);
}

static void shadowPath(char* out, size_t size, unsigned long long ino) {
  snprintf(out, size, "%s/ino-%llu", g_durable, ino);
}

// The directory was synced: its names are durable now (a file new to them
// is durable as empty until it is synced itself).
static void durableNames(void) {
  char names[4200];
  snprintf(names, sizeof names, "%s/names", g_durable);
  listNames(names);
  FILE* in = fopen(names, "re");
  char name[1024];
  unsigned long long ino;
  while (in && fscanf(in, "%1023s %llu", name, &ino) == 2) {
    char shadow[4200];
    shadowPath(shadow, sizeof shadow, ino);
    int fd = rawOpen(shadow, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) rawClose(fd);
  }
  if (in) fclose(in);
}

static void startDurable(void) {
  mkdir(g_durable, 0700);
  DIR* dir = opendir(g_dir);
  struct dirent* e;
  while (dir && (e = readdir(dir)) != NULL) {
    char path[4600], shadow[4200];
    struct stat st;
    snprintf(path, sizeof path, "%s/%s", g_dir, e->d_name);
    if (lstat(path, &st) != 0 || !S_ISREG(st.st_mode)) continue;
    shadowPath(shadow, sizeof shadow, (unsigned long long)st.st_ino);
    copyFile(path, shadow);
  }
  if (dir) closedir(dir);
  durableNames();
}

// A pending durable update: the bytes a sync covers, read before it starts.
struct Pending {
  unsigned long long ino;
  off_t offset;
  off_t fileSize;
  char* bytes;
  size_t len;
  int whole;  // the whole file (fsync), else a range (msync)
};

static void commitPending(const struct Pending* p) {
  char shadow[4200];
  shadowPath(shadow, sizeof shadow, p->ino);
  int fd = rawOpen(shadow, O_WRONLY | O_CREAT | O_CLOEXEC | (p->whole ? O_TRUNC : 0), 0600);
  if (fd < 0) return;
  for (size_t at = 0; at < p->len; at += 4096) {
    const size_t len = p->len - at < 4096 ? p->len - at : 4096;
    size_t i = 0;
    while (i < len && p->bytes[at + i] == 0) ++i;
    if (i < len && pwrite(fd, p->bytes + at, len, p->offset + (off_t)at) < 0) break;
    if (i == len && !p->whole) {
      // Zeros over what the image held: write them too.
      if (pwrite(fd, p->bytes + at, len, p->offset + (off_t)at) < 0) break;
    }
  }
  if (ftruncate(fd, p->fileSize) != 0) {
  }
  rawClose(fd);
}

static void takeSnapshot(void) {
  char dir[4200], from[4300], to[4300];
  const long j = ++g_snaps;
  // Announced first: every report after this line comes from a call made
  // after the state below was taken.
  emit(g_eventFd, "S %ld %ld\n", j, nowUs());
  snprintf(dir, sizeof dir, "%s/%ld", g_snapDir, j);
  mkdir(dir, 0700);
  snprintf(from, sizeof from, "%s/names", g_durable);
  snprintf(to, sizeof to, "%s/names.durable", dir);
  copyFile(from, to);
  snprintf(to, sizeof to, "%s/names.current", dir);
  listNames(to);
  // Durable images of the files under either set of names (a file synced
  // before its name was), then the current content of the current files.
  for (int pass = 0; pass < 3; ++pass) {
    snprintf(from, sizeof from, "%s/names.%s", dir, pass == 1 ? "durable" : "current");
    FILE* in = fopen(from, "re");
    char name[1024];
    unsigned long long ino;
    while (in && fscanf(in, "%1023s %llu", name, &ino) == 2) {
      char src[4600];
      if (pass == 2) snprintf(src, sizeof src, "%s/%s", g_dir, name);
      else shadowPath(src, sizeof src, ino);
      snprintf(to, sizeof to, "%s/%c-%llu", dir, pass == 2 ? 'c' : 'd', ino);
      if (access(src, F_OK) == 0) copyFile(src, to);
    }
    if (in) fclose(in);
  }
}

// ---------------------------------------------------------------------------
// The decision made at every call

enum Verdict { kPass, kFail };

static int siteOf(void* caller, char* out, size_t size) {
  Dl_info info;
  if (caller && dladdr(caller, &info) && info.dli_fname) {
    const char* base = strrchr(info.dli_fname, '/');
    snprintf(out, size, "%s+0x%lx", base ? base + 1 : info.dli_fname,
             (unsigned long)((char*)caller - (char*)info.dli_fbase));
    return 1;
  }
  snprintf(out, size, "?");
  return 0;
}

// Numbers a matching call; kills, fails or passes it.
static enum Verdict decide(int klass, const char* call, const char* file, void* caller) {
  if (t_inside || !(g_classes & klass) || !underDir(file)) return kPass;
  t_inside = 1;
  pthread_mutex_lock(&g_lock);
  const long n = ++g_count;
  if (g_traceFd >= 0) {
    char site[512];
    siteOf(caller, site, sizeof site);
    int bit = 0;
    while ((1 << bit) != klass) ++bit;
    emit(g_traceFd, "%ld %s %s %s %s\n", n, kClassNames[bit], call, file, site);
  }
  if (g_snapDir[0] && g_snapEvery > 0 && g_snaps < g_snapMax) {
    g_random ^= g_random << 13;
    g_random ^= g_random >> 7;
    g_random ^= g_random << 17;
    if (g_random % (unsigned long long)g_snapEvery == 0) takeSnapshot();
  }
  pthread_mutex_unlock(&g_lock);
  t_inside = 0;
  if (g_killAt && n == g_killAt) raise(SIGKILL);
  if (g_failAt && (n == g_failAt || (g_failSticky && n > g_failAt))) return kFail;
  return kPass;
}

#define CALLER __builtin_return_address(0)

__attribute__((constructor)) static void start(void) {
  const char* dir = getenv("WZF_DIR");
  if (!dir || !*dir) return;
  snprintf(g_dir, sizeof g_dir, "%s", dir);
  g_dirLen = strlen(g_dir);
  while (g_dirLen > 1 && g_dir[g_dirLen - 1] == '/') g_dir[--g_dirLen] = 0;
  const char* calls = getenv("WZF_CALLS");
  if (calls && *calls) {
    g_classes = 0;
    for (int bit = 0; bit < 9; ++bit)
      if (strstr(calls, kClassNames[bit])) g_classes |= 1 << bit;
  }
  const char* v;
  if ((v = getenv("WZF_FAIL_AT"))) g_failAt = atol(v);
  if ((v = getenv("WZF_KILL_AT"))) g_killAt = atol(v);
  if ((v = getenv("WZF_FAIL_STICKY"))) g_failSticky = atoi(v);
  if ((v = getenv("WZF_NOSYNC"))) g_noSync = atoi(v);
  g_failErrno = parseErrno(getenv("WZF_ERRNO"));
  if ((v = getenv("WZF_EVENT_FD"))) g_eventFd = atoi(v);
  if ((v = getenv("WZF_TRACE")) && *v)
    g_traceFd = rawOpen(v, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if ((v = getenv("WZF_SNAP_DIR"))) snprintf(g_snapDir, sizeof g_snapDir, "%s", v);
  if ((v = getenv("WZF_SNAP_EVERY"))) g_snapEvery = atol(v);
  g_snapMax = (v = getenv("WZF_SNAP_MAX")) ? atol(v) : 1000000;
  if ((v = getenv("WZF_SEED"))) g_random += strtoull(v, NULL, 10) * 2654435761ULL;
  if ((v = getenv("WZF_DURABLE")) && *v) {
    snprintf(g_durable, sizeof g_durable, "%s", v);
    t_inside = 1;
    startDurable();
    t_inside = 0;
  }
}

// ---------------------------------------------------------------------------
// Wrappers

static int afterOpen(int fd, const char* file) {
  if (fd >= 0) remember(fd, file);
  return fd;
}

#define OPEN_BODY(realcall, dirfd)                                      \
  mode_t mode = 0;                                                      \
  if (flags & (O_CREAT | O_TMPFILE)) {                                  \
    va_list args;                                                       \
    va_start(args, flags);                                              \
    mode = va_arg(args, mode_t);                                        \
    va_end(args);                                                       \
  }                                                                     \
  char file[4096];                                                      \
  resolve(dirfd, path, file, sizeof file);                              \
  if (decide(kOpen, #realcall, file, CALLER) == kFail) {                \
    errno = g_failErrno;                                                \
    return -1;                                                          \
  }

int open(const char* path, int flags, ...) {
  OPEN_BODY(open, AT_FDCWD);
  REAL(open);
  return afterOpen(real_open(path, flags, mode), file);
}
int open64(const char* path, int flags, ...) {
  OPEN_BODY(open64, AT_FDCWD);
  REAL(open64);
  return afterOpen(real_open64(path, flags, mode), file);
}
int openat(int dirfd, const char* path, int flags, ...) {
  OPEN_BODY(openat, dirfd);
  REAL(openat);
  return afterOpen(real_openat(dirfd, path, flags, mode), file);
}
int openat64(int dirfd, const char* path, int flags, ...) {
  OPEN_BODY(openat64, dirfd);
  REAL(openat64);
  return afterOpen(real_openat64(dirfd, path, flags, mode), file);
}
int creat(const char* path, mode_t mode) { return open(path, O_CREAT | O_WRONLY | O_TRUNC, mode); }
int __open_2(const char* path, int flags) { return open(path, flags); }
int __open64_2(const char* path, int flags) { return open(path, flags); }
int __openat_2(int dirfd, const char* path, int flags) { return openat(dirfd, path, flags); }

int close(int fd) {
  const char* file = fdPath(fd);
  if (file && decide(kClose, "close", file, CALLER) == kFail) {
    // A failed close still releases the descriptor.
    remember(fd, NULL);
    REAL(close);
    real_close(fd);
    errno = g_failErrno;
    return -1;
  }
  if (file) remember(fd, NULL);
  REAL(close);
  return real_close(fd);
}

#define FD_CALL(klass, name, fd, failValue)                        \
  if (decide(klass, #name, fdPath(fd), CALLER) == kFail) {          \
    errno = g_failErrno;                                           \
    return failValue;                                              \
  }

ssize_t write(int fd, const void* buf, size_t n) {
  FD_CALL(kWrite, write, fd, -1);
  REAL(write);
  return real_write(fd, buf, n);
}
static ssize_t written(int fd, off_t offset, ssize_t rc) {
  const char* file = fdPath(fd);
  if (rc > 0 && file && g_eventFd >= 0) {
    const int err = errno;
    emit(g_eventFd, "W %lld %zd %s\n", (long long)offset, rc, file);
    errno = err;
  }
  return rc;
}

ssize_t pwrite(int fd, const void* buf, size_t n, off_t offset) {
  FD_CALL(kWrite, pwrite, fd, -1);
  REAL(pwrite);
  return written(fd, offset, real_pwrite(fd, buf, n, offset));
}
ssize_t pwrite64(int fd, const void* buf, size_t n, off_t offset) {
  FD_CALL(kWrite, pwrite64, fd, -1);
  REAL(pwrite64);
  return written(fd, offset, real_pwrite64(fd, buf, n, offset));
}
ssize_t writev(int fd, const struct iovec* iov, int count) {
  FD_CALL(kWrite, writev, fd, -1);
  REAL(writev);
  return real_writev(fd, iov, count);
}
ssize_t pwritev(int fd, const struct iovec* iov, int count, off_t offset) {
  FD_CALL(kWrite, pwritev, fd, -1);
  REAL(pwritev);
  return real_pwritev(fd, iov, count, offset);
}

// Copies into a watched file (FXFile::WZCopyFile) are its writes.
ssize_t copy_file_range(int in, off_t* inOffset, int out, off_t* outOffset, size_t n,
                        unsigned flags) {
  FD_CALL(kWrite, copy_file_range, out, -1);
  REAL(copy_file_range);
  return real_copy_file_range(in, inOffset, out, outOffset, n, flags);
}
ssize_t sendfile(int out, int in, off_t* offset, size_t n) {
  FD_CALL(kWrite, sendfile, out, -1);
  REAL(sendfile);
  return real_sendfile(out, in, offset, n);
}

int ftruncate(int fd, off_t length) {
  FD_CALL(kTrunc, ftruncate, fd, -1);
  REAL(ftruncate);
  return real_ftruncate(fd, length);
}
int ftruncate64(int fd, off_t length) {
  FD_CALL(kTrunc, ftruncate64, fd, -1);
  REAL(ftruncate64);
  return real_ftruncate64(fd, length);
}
int truncate(const char* path, off_t length) {
  if (decide(kTrunc, "truncate", path, CALLER) == kFail) {
    errno = g_failErrno;
    return -1;
  }
  REAL(truncate);
  return real_truncate(path, length);
}

int fallocate(int fd, int mode, off_t offset, off_t len) {
  FD_CALL(kAlloc, fallocate, fd, -1);
  REAL(fallocate);
  return real_fallocate(fd, mode, offset, len);
}
int fallocate64(int fd, int mode, off_t offset, off_t len) {
  FD_CALL(kAlloc, fallocate64, fd, -1);
  REAL(fallocate64);
  return real_fallocate64(fd, mode, offset, len);
}
// posix_fallocate answers the error number instead of setting errno.
int posix_fallocate(int fd, off_t offset, off_t len) {
  if (decide(kAlloc, "posix_fallocate", fdPath(fd), CALLER) == kFail) return g_failErrno;
  REAL(posix_fallocate);
  return real_posix_fallocate(fd, offset, len);
}
int posix_fallocate64(int fd, off_t offset, off_t len) {
  if (decide(kAlloc, "posix_fallocate64", fdPath(fd), CALLER) == kFail) return g_failErrno;
  REAL(posix_fallocate64);
  return real_posix_fallocate64(fd, offset, len);
}

// Descriptors opened under `from` now name `to`.
static void renamed(const char* from, const char* to) {
  pthread_mutex_lock(&g_lock);
  for (int fd = 0; fd < MAX_FDS; ++fd)
    if (g_fdPath[fd] && strcmp(g_fdPath[fd], from) == 0) {
      free(g_fdPath[fd]);
      g_fdPath[fd] = underDir(to) ? strdup(to) : NULL;
    }
  pthread_mutex_unlock(&g_lock);
}

int rename(const char* from, const char* to) {
  if (decide(kRename, "rename", underDir(from) ? from : to, CALLER) == kFail) {
    errno = g_failErrno;
    return -1;
  }
  REAL(rename);
  const int rc = real_rename(from, to);
  if (rc == 0) renamed(from, to);
  return rc;
}
int renameat(int fromFd, const char* from, int toFd, const char* to) {
  char a[4096], b[4096];
  resolve(fromFd, from, a, sizeof a);
  resolve(toFd, to, b, sizeof b);
  if (decide(kRename, "renameat", underDir(a) ? a : b, CALLER) == kFail) {
    errno = g_failErrno;
    return -1;
  }
  REAL(renameat);
  return real_renameat(fromFd, from, toFd, to);
}
int renameat2(int fromFd, const char* from, int toFd, const char* to, unsigned flags) {
  char a[4096], b[4096];
  resolve(fromFd, from, a, sizeof a);
  resolve(toFd, to, b, sizeof b);
  if (decide(kRename, "renameat2", underDir(a) ? a : b, CALLER) == kFail) {
    errno = g_failErrno;
    return -1;
  }
  REAL(renameat2);
  return real_renameat2(fromFd, from, toFd, to, flags);
}

int unlink(const char* path) {
  if (decide(kUnlink, "unlink", path, CALLER) == kFail) {
    errno = g_failErrno;
    return -1;
  }
  REAL(unlink);
  return real_unlink(path);
}
int unlinkat(int dirfd, const char* path, int flags) {
  char file[4096];
  resolve(dirfd, path, file, sizeof file);
  if (decide(kUnlink, "unlinkat", file, CALLER) == kFail) {
    errno = g_failErrno;
    return -1;
  }
  REAL(unlinkat);
  return real_unlinkat(dirfd, path, flags);
}

void* mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset) {
  if (decide(kMmap, "mmap", fdPath(fd), CALLER) == kFail) {
    errno = g_failErrno;
    return MAP_FAILED;
  }
  REAL(mmap);
  void* at = real_mmap(addr, len, prot, flags, fd, offset);
  if (at != MAP_FAILED && fdPath(fd)) {
    pthread_mutex_lock(&g_lock);
    for (int i = 0; i < MAX_MAPS; ++i) {
      if (g_maps[i].addr) continue;
      g_maps[i] = (struct Map){(char*)at, len, offset, fd};
      break;
    }
    pthread_mutex_unlock(&g_lock);
  }
  return at;
}
void* mmap64(void* addr, size_t len, int prot, int flags, int fd, off_t offset) {
  return mmap(addr, len, prot, flags, fd, offset);
}
int munmap(void* addr, size_t len) {
  pthread_mutex_lock(&g_lock);
  for (int i = 0; i < MAX_MAPS; ++i)
    if (g_maps[i].addr && g_maps[i].addr < (char*)addr + len && (char*)addr < g_maps[i].addr + g_maps[i].len)
      g_maps[i].addr = NULL;
  pthread_mutex_unlock(&g_lock);
  REAL(munmap);
  return real_munmap(addr, len);
}

// Syncs: the bytes they cover are read before the call and become the
// file's durable image when it succeeds.
static int syncEvent(const char* file) {
  if (g_eventFd < 0 || !file) return 0;
  const long id = __atomic_add_fetch(&g_syncIds, 1, __ATOMIC_RELAXED);
  emit(g_eventFd, "Y %ld %ld %s\n", id, nowUs(), file);
  return (int)id;
}

static int fileSync(int fd, const char* name, int data) {
  const char* file = fdPath(fd);
  if (decide(kSync, name, file, CALLER) == kFail) {
    errno = g_failErrno;
    return -1;
  }
  struct stat st;
  struct Pending p = {0, 0, 0, NULL, 0, 1};
  int isDir = 0;
  const int id = file ? syncEvent(file) : 0;
  if (file && g_durable[0] && fstat(fd, &st) == 0) {
    isDir = S_ISDIR(st.st_mode);
    if (!isDir) {
      p.ino = st.st_ino;
      p.fileSize = st.st_size;
      p.len = (size_t)st.st_size;
      p.bytes = malloc(p.len ? p.len : 1);
      if (pread(fd, p.bytes, p.len, 0) != (ssize_t)p.len) p.len = 0;
    }
  }
  int rc = 0;
  if (file && g_noSync) {
  } else if (data) {
    REAL(fdatasync);
    rc = real_fdatasync(fd);
  } else {
    REAL(fsync);
    rc = real_fsync(fd);
  }
  const int err = errno;
  if (file && g_durable[0] && rc == 0) {
    t_inside = 1;
    pthread_mutex_lock(&g_lock);
    if (isDir && strcmp(file, g_dir) == 0) durableNames();
    else if (p.bytes) commitPending(&p);
    pthread_mutex_unlock(&g_lock);
    t_inside = 0;
  }
  free(p.bytes);
  if (id) emit(g_eventFd, "Z %d %d\n", id, rc == 0 ? 0 : err);
  errno = err;
  return rc;
}

int fsync(int fd) { return fileSync(fd, "fsync", 0); }
int fdatasync(int fd) { return fileSync(fd, "fdatasync", 1); }

int sync_file_range(int fd, off_t offset, off_t nbytes, unsigned int flags) {
  FD_CALL(kSync, sync_file_range, fd, -1);
  REAL(sync_file_range);
  return real_sync_file_range(fd, offset, nbytes, flags);
}

int msync(void* addr, size_t len, int flags) {
  struct Map hit = {NULL, 0, 0, -1};
  pthread_mutex_lock(&g_lock);
  for (int i = 0; i < MAX_MAPS; ++i)
    if (g_maps[i].addr && (char*)addr >= g_maps[i].addr && (char*)addr < g_maps[i].addr + g_maps[i].len)
      hit = g_maps[i];
  pthread_mutex_unlock(&g_lock);
  const char* file = hit.addr ? fdPath(hit.fd) : NULL;
  if (decide(kSync, "msync", file, CALLER) == kFail) {
    errno = g_failErrno;
    return -1;
  }
  struct Pending p = {0, 0, 0, NULL, 0, 0};
  struct stat st;
  const int id = file ? syncEvent(file) : 0;
  if (file && g_durable[0] && (flags & MS_SYNC) && fstat(hit.fd, &st) == 0) {
    p.ino = st.st_ino;
    p.fileSize = st.st_size;
    size_t end = (size_t)((char*)addr - hit.addr) + len;
    if (end > hit.len) end = hit.len;
    const size_t from = (size_t)((char*)addr - hit.addr);
    p.offset = hit.offset + (off_t)from;
    p.len = end - from;
    if (p.offset + (off_t)p.len > st.st_size) p.len = st.st_size > p.offset ? (size_t)(st.st_size - p.offset) : 0;
    p.bytes = malloc(p.len ? p.len : 1);
    memcpy(p.bytes, hit.addr + from, p.len);
  }
  REAL(msync);
  const int rc = file && g_noSync ? 0 : real_msync(addr, len, flags);
  const int err = errno;
  if (p.bytes && rc == 0) {
    t_inside = 1;
    pthread_mutex_lock(&g_lock);
    commitPending(&p);
    pthread_mutex_unlock(&g_lock);
    t_inside = 0;
  }
  free(p.bytes);
  if (id) emit(g_eventFd, "Z %d %d\n", id, rc == 0 ? 0 : err);
  errno = err;
  return rc;
}
