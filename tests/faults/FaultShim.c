// FaultShim: an LD_PRELOAD library that watches the file calls a process
// makes on the files of one directory, for the fault tests.
//
// It wraps open/openat/creat, write/pwrite/writev/pwritev/copy_file_range/
// sendfile, fsync/fdatasync/msync/sync_file_range, ftruncate/truncate,
// fallocate/posix_fallocate, rename/renameat/renameat2, unlink/unlinkat,
// mmap/munmap and close. A call matches when it names a file under WZF_DIR
// (by path, or by a descriptor opened under it, or by an address inside a
// map of such a descriptor) and its class is listed in WZF_CALLS (default:
// every class). Matching calls are numbered from 1, and the shim can
//   WZF_TRACE=file        append "n class call file site" for each one, site
//                         being the calling library and offset (a call site);
//   WZF_FAIL_AT=n         make call n fail with WZF_ERRNO (a name: EIO,
//                         ENOSPC, EFBIG..., or a number; default EIO),
//                         and with WZF_FAIL_STICKY=1 every matching call
//                         after it too;
//   WZF_KILL_AT=n         raise SIGKILL instead of making call n;
//   WZF_DURABLE=dir       keep a durable image of every file: its content as
//                         of its last successful fsync/fdatasync, msync
//                         ranges included (maps are tracked to find the file
//                         and offset), and the directory's names as of its
//                         last fsync. The files present at start count as
//                         durable. dir/names lists "name inode"; the content
//                         of inode i is dir/d-i (none: empty).
//   WZF_EVENT_FD=fd       write "W offset length file" after each successful
//                         pwrite, and "Y id t file" before and "Z id rc"
//                         after each sync of a file, in one ordered stream
//                         with the process's own reports on that descriptor;
//   WZF_SNAP_DIR=dir, WZF_SNAP_EVERY=k, WZF_SNAP_MAX=m, WZF_SEED=s
//                         before one matching call in k, drawn at random
//                         (seeded with s; at most m times), save the durable
//                         and the current state to dir/<j>/ (names.durable,
//                         names.current, d-<inode>, c-<inode>) and write
//                         "S j t" to the event stream: the material of a
//                         simulated power loss at that moment. t is
//                         CLOCK_MONOTONIC in microseconds.
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
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

enum { kOpen = 1, kWrite = 2, kSync = 4, kTrunc = 8, kAlloc = 16, kRename = 32, kUnlink = 64, kMmap = 128, kClose = 256 };
static const char* const kClassNames[] = {"open", "write", "sync", "trunc", "alloc", "rename", "unlink", "mmap", "close"};

#define MAX_FDS 4096
#define MAX_MAPS 256
struct Map { char* addr; size_t len; off_t offset; int fd; };  // of a watched file
// A durable update: the bytes a sync covers, read before it starts.
struct Pending {
  unsigned long long ino;
  off_t offset, fileSize;
  char* bytes;
  size_t len;
  int whole;  // the whole file (fsync), else a range (msync)
};

static pthread_mutex_t g_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
static char g_dir[4096], g_durable[4096], g_snapDir[4096];
static size_t g_dirLen;
static int g_classes = 511, g_failErrno = EIO, g_failSticky, g_noSync, g_traceFd = -1, g_eventFd = -1;
static long g_count, g_failAt, g_killAt, g_snapEvery, g_snapMax, g_snaps, g_syncIds;
static unsigned g_random = 88172645;
static char* g_fdPath[MAX_FDS];
static struct Map g_maps[MAX_MAPS];
static __thread int t_inside;  // the shim's own calls pass through

#define REAL(name) static __typeof__(name)* real_##name; \
  if (!real_##name) real_##name = (__typeof__(name)*)dlsym(RTLD_NEXT, #name)
#define CALLER __builtin_return_address(0)
// Counts a matching call; kills at it, or fails it with `failValue`.
#define FAIL_IF(klass, name, file, failValue) \
  if (decide(klass, name, file, CALLER)) return errno = g_failErrno, failValue
// The shim's own calls, past every wrapper.
#define rawOpen(path, flags) (int)syscall(SYS_openat, AT_FDCWD, path, (flags) | O_CLOEXEC, 0600)
#define rawClose(fd) syscall(SYS_close, fd)

// ---------------------------------------------------------------------------
// Helpers

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
  const int n = vsnprintf(line, sizeof line, format, args);
  va_end(args);
  (void)!syscall(SYS_write, fd, line, n < (int)sizeof line ? (size_t)n : sizeof line - 1);
}

static int underDir(const char* path) {
  return g_dirLen && path && strncmp(path, g_dir, g_dirLen) == 0 && (path[g_dirLen] == '/' || !path[g_dirLen]);
}

static const char* fdPath(int fd) { return fd >= 0 && fd < MAX_FDS ? g_fdPath[fd] : NULL; }

// The path `path` relative to `dirfd` names ("/proc/self/fd/N" resolved to
// what N was opened as).
static void resolve(int dirfd, const char* path, char* out, size_t size) {
  out[0] = 0;
  if (!path) return;
  const char* base = strncmp(path, "/proc/self/fd/", 14) == 0 ? fdPath(atoi(path + 14)) : NULL;
  if (base) snprintf(out, size, "%s", base);
  else if (path[0] == '/' || dirfd == AT_FDCWD) snprintf(out, size, "%s", path);
  else if ((base = fdPath(dirfd))) snprintf(out, size, "%s/%s", base, path);
}

// Descriptor `fd` now names `path` (NULL or unwatched: nothing).
static void remember(int fd, const char* path) {
  if (fd < 0 || fd >= MAX_FDS) return;
  pthread_mutex_lock(&g_lock);
  free(g_fdPath[fd]);
  g_fdPath[fd] = underDir(path) ? strdup(path) : NULL;
  pthread_mutex_unlock(&g_lock);
}

// An errno from its name (EIO, ENOSPC...) or its number; EIO by default.
static int parseErrno(const char* text) {
  for (int e = 1; text && e < 200; ++e)
    if (strerrorname_np(e) && !strcmp(text, strerrorname_np(e))) return e;
  return text && *text ? atoi(text) : EIO;
}

// ---------------------------------------------------------------------------
// Durable images and snapshots

// Writes `len` bytes to `fd` at `offset` by 4 KiB pages, leaving all-zero
// pages out (holes) when `holes`.
static void putPages(int fd, const char* buf, size_t len, off_t offset, int holes) {
  for (size_t at = 0; at < len; at += 4096) {
    const size_t n = len - at < 4096 ? len - at : 4096;
    size_t i = 0;
    while (holes && i < n && buf[at + i] == 0) ++i;
    if ((!holes || i < n) && pwrite(fd, buf + at, n, offset + (off_t)at) < 0) return;
  }
}

static void copyFile(const char* from, const char* to) {
  const int src = rawOpen(from, O_RDONLY), dst = src < 0 ? -1 : rawOpen(to, O_WRONLY | O_CREAT | O_TRUNC);
  struct stat st;
  if (dst >= 0 && fstat(src, &st) == 0) {
    char buf[65536];
    ssize_t n;
    for (off_t at = 0; (n = pread(src, buf, sizeof buf, at)) > 0; at += n) putPages(dst, buf, (size_t)n, at, 1);
    (void)!ftruncate(dst, st.st_size);
  }
  if (dst >= 0) rawClose(dst);
  if (src >= 0) rawClose(src);
}

// Writes "name inode" for every regular file of the watched directory.
static void listNames(const char* to) {
  char tmp[4200], path[4600];
  snprintf(tmp, sizeof tmp, "%s.tmp", to);
  FILE* out = fopen(tmp, "we");
  DIR* dir = opendir(g_dir);
  struct dirent* e;
  struct stat st;
  while (out && dir && (e = readdir(dir)) != NULL) {
    snprintf(path, sizeof path, "%s/%s", g_dir, e->d_name);
    if (lstat(path, &st) == 0 && S_ISREG(st.st_mode)) fprintf(out, "%s %llu\n", e->d_name, (unsigned long long)st.st_ino);
  }
  if (dir) closedir(dir);
  if (out) fclose(out);
  (void)!syscall(SYS_rename, tmp, to);
}

// Copies, for each "name inode" line of `list`, the watched file `name`
// (`current`) or its durable image to `dir`/<prefix>-<inode>.
static void copyListed(const char* list, int current, const char* dir, char prefix) {
  FILE* in = fopen(list, "re");
  char name[1024], src[4600], dst[4300];
  unsigned long long ino;
  while (in && fscanf(in, "%1023s %llu", name, &ino) == 2) {
    if (current) snprintf(src, sizeof src, "%s/%s", g_dir, name);
    else snprintf(src, sizeof src, "%s/d-%llu", g_durable, ino);
    snprintf(dst, sizeof dst, "%s/%c-%llu", dir, prefix, ino);
    if (access(src, F_OK) == 0) copyFile(src, dst);
  }
  if (in) fclose(in);
}

static void commitPending(const struct Pending* p) {
  char image[4200];
  snprintf(image, sizeof image, "%s/d-%llu", g_durable, p->ino);
  const int fd = rawOpen(image, O_WRONLY | O_CREAT | (p->whole ? O_TRUNC : 0));
  if (fd < 0) return;
  putPages(fd, p->bytes, p->len, p->offset, p->whole);  // a range writes its zeros too
  (void)!ftruncate(fd, p->fileSize);
  rawClose(fd);
}

static void takeSnapshot(void) {
  char dir[4200], durable[4300], current[4300];
  const long j = ++g_snaps;
  // Announced first: every report after this line comes from a call made
  // after the state below was taken.
  emit(g_eventFd, "S %ld %ld\n", j, nowUs());
  snprintf(dir, sizeof dir, "%s/%ld", g_snapDir, j);
  mkdir(dir, 0700);
  snprintf(durable, sizeof durable, "%s/names", g_durable);
  snprintf(current, sizeof current, "%s/names.durable", dir);
  copyFile(durable, current);
  snprintf(durable, sizeof durable, "%s/names.durable", dir);
  snprintf(current, sizeof current, "%s/names.current", dir);
  listNames(current);
  // Durable images of the files under either set of names (a file synced
  // before its name was), then the current content of the current files.
  copyListed(current, 0, dir, 'd');
  copyListed(durable, 0, dir, 'd');
  copyListed(current, 1, dir, 'c');
}

// ---------------------------------------------------------------------------
// The decision made at every call: 1 to fail it.

static int decide(int klass, const char* call, const char* file, void* caller) {
  if (t_inside || !(g_classes & klass) || !underDir(file)) return 0;
  t_inside = 1;
  pthread_mutex_lock(&g_lock);
  const long n = ++g_count;
  Dl_info info;
  if (g_traceFd >= 0) {
    const int known = dladdr(caller, &info) && info.dli_fname;
    const char* base = known ? strrchr(info.dli_fname, '/') : NULL;
    emit(g_traceFd, "%ld %s %s %s %s+0x%lx\n", n, kClassNames[__builtin_ctz(klass)], call, file,
         !known ? "?" : base ? base + 1 : info.dli_fname, known ? (unsigned long)((char*)caller - (char*)info.dli_fbase) : 0UL);
  }
  if (g_snapDir[0] && g_snapEvery > 0 && g_snaps < g_snapMax) {
    if (rand_r(&g_random) % g_snapEvery == 0) takeSnapshot();
  }
  pthread_mutex_unlock(&g_lock);
  t_inside = 0;
  if (n == g_killAt) raise(SIGKILL);
  return g_failAt && (n == g_failAt || (g_failSticky && n > g_failAt));
}

__attribute__((constructor)) static void start(void) {
  const char* v = getenv("WZF_DIR");
  if (!v || !*v) return;
  snprintf(g_dir, sizeof g_dir, "%s", v);
  g_dirLen = strlen(g_dir);
  while (g_dirLen > 1 && g_dir[g_dirLen - 1] == '/') g_dir[--g_dirLen] = 0;
  if ((v = getenv("WZF_CALLS")) && *v) {
    g_classes = 0;
    for (int bit = 0; bit < 9; ++bit)
      if (strstr(v, kClassNames[bit])) g_classes |= 1 << bit;
  }
  g_failAt = (v = getenv("WZF_FAIL_AT")) ? atol(v) : 0;
  g_killAt = (v = getenv("WZF_KILL_AT")) ? atol(v) : 0;
  g_failSticky = (v = getenv("WZF_FAIL_STICKY")) ? atoi(v) : 0;
  g_noSync = (v = getenv("WZF_NOSYNC")) ? atoi(v) : 0;
  g_failErrno = parseErrno(getenv("WZF_ERRNO"));
  g_eventFd = (v = getenv("WZF_EVENT_FD")) ? atoi(v) : -1;
  if ((v = getenv("WZF_TRACE")) && *v) g_traceFd = rawOpen(v, O_WRONLY | O_CREAT | O_APPEND);
  if ((v = getenv("WZF_SNAP_DIR"))) snprintf(g_snapDir, sizeof g_snapDir, "%s", v);
  g_snapEvery = (v = getenv("WZF_SNAP_EVERY")) ? atol(v) : 0;
  g_snapMax = (v = getenv("WZF_SNAP_MAX")) ? atol(v) : 1000000;
  if ((v = getenv("WZF_SEED"))) g_random += (unsigned)strtoull(v, NULL, 10) * 2654435761U;
  if ((v = getenv("WZF_DURABLE")) && *v) {
    char names[4200];
    snprintf(g_durable, sizeof g_durable, "%s", v);
    snprintf(names, sizeof names, "%s/names", g_durable);
    t_inside = 1;
    mkdir(g_durable, 0700);
    listNames(names);
    copyListed(names, 1, g_durable, 'd');
    t_inside = 0;
  }
}
// ---------------------------------------------------------------------------
// Wrappers

#define OPEN_BODY(name, dirfd, ...)                                          \
  va_list args;                                                              \
  va_start(args, flags);                                                     \
  const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(args, mode_t) : 0; \
  va_end(args);                                                              \
  char file[4096];                                                           \
  resolve(dirfd, path, file, sizeof file);                                   \
  FAIL_IF(kOpen, #name, file, -1);                                           \
  REAL(name);                                                                \
  const int fd = real_##name(__VA_ARGS__);                                   \
  remember(fd, file);                                                        \
  return fd

int open(const char* path, int flags, ...) { OPEN_BODY(open, AT_FDCWD, path, flags, mode); }
int open64(const char* path, int flags, ...) { OPEN_BODY(open64, AT_FDCWD, path, flags, mode); }
int openat(int dirfd, const char* path, int flags, ...) { OPEN_BODY(openat, dirfd, dirfd, path, flags, mode); }
int openat64(int dirfd, const char* path, int flags, ...) { OPEN_BODY(openat64, dirfd, dirfd, path, flags, mode); }
int creat(const char* path, mode_t mode) { return open(path, O_CREAT | O_WRONLY | O_TRUNC, mode); }
int __open_2(const char* path, int flags) { return open(path, flags); }
int __open64_2(const char* path, int flags) { return open(path, flags); }
int __openat_2(int dirfd, const char* path, int flags) { return openat(dirfd, path, flags); }

int close(int fd) {
  const char* file = fdPath(fd);
  const int fail = file && decide(kClose, "close", file, CALLER);
  if (file) remember(fd, NULL);
  REAL(close);
  const int rc = real_close(fd);  // a failed close still releases the descriptor
  return fail ? (errno = g_failErrno, -1) : rc;
}

// A call on descriptor `fd`: counted, then made; `after` sees its result.
#define FD_WRAP(klass, type, name, params, fd, failValue, args, after) \
  type name params {                                                   \
    FAIL_IF(klass, #name, fdPath(fd), failValue);                      \
    REAL(name);                                                        \
    const type rc = real_##name args;                                  \
    after;                                                             \
    return rc;                                                         \
  }
// A successful pwrite to a watched file, on the event stream.
static void wrote(int fd, off_t at, ssize_t rc) {
  const int err = errno;
  if (rc > 0 && fdPath(fd)) emit(g_eventFd, "W %lld %zd %s\n", (long long)at, rc, fdPath(fd));
  errno = err;
}
FD_WRAP(kWrite, ssize_t, write, (int fd, const void* buf, size_t n), fd, -1, (fd, buf, n), )
FD_WRAP(kWrite, ssize_t, pwrite, (int fd, const void* buf, size_t n, off_t at), fd, -1, (fd, buf, n, at), wrote(fd, at, rc))
FD_WRAP(kWrite, ssize_t, pwrite64, (int fd, const void* buf, size_t n, off_t at), fd, -1, (fd, buf, n, at), wrote(fd, at, rc))
FD_WRAP(kWrite, ssize_t, writev, (int fd, const struct iovec* iov, int count), fd, -1, (fd, iov, count), )
FD_WRAP(kWrite, ssize_t, pwritev, (int fd, const struct iovec* iov, int count, off_t at), fd, -1, (fd, iov, count, at), )
// Copies into a watched file (FXFile::WZCopyFile) are its writes.
FD_WRAP(kWrite, ssize_t, copy_file_range, (int in, off_t* inAt, int fd, off_t* at, size_t n, unsigned flags), fd, -1,
        (in, inAt, fd, at, n, flags), )
FD_WRAP(kWrite, ssize_t, sendfile, (int fd, int in, off_t* at, size_t n), fd, -1, (fd, in, at, n), )
FD_WRAP(kTrunc, int, ftruncate, (int fd, off_t length), fd, -1, (fd, length), )
FD_WRAP(kTrunc, int, ftruncate64, (int fd, off_t length), fd, -1, (fd, length), )
FD_WRAP(kAlloc, int, fallocate, (int fd, int mode, off_t at, off_t len), fd, -1, (fd, mode, at, len), )
FD_WRAP(kAlloc, int, fallocate64, (int fd, int mode, off_t at, off_t len), fd, -1, (fd, mode, at, len), )
// posix_fallocate answers the error number instead of setting errno.
FD_WRAP(kAlloc, int, posix_fallocate, (int fd, off_t at, off_t len), fd, g_failErrno, (fd, at, len), )
FD_WRAP(kAlloc, int, posix_fallocate64, (int fd, off_t at, off_t len), fd, g_failErrno, (fd, at, len), )
FD_WRAP(kSync, int, sync_file_range, (int fd, off_t at, off_t n, unsigned flags), fd, -1, (fd, at, n, flags), )

// A call on a path (relative to `dirfd`): counted, then made.
#define PATH_WRAP(klass, name, params, dirfd, path, args) \
  int name params {                                       \
    char file[4096];                                      \
    resolve(dirfd, path, file, sizeof file);              \
    FAIL_IF(klass, #name, file, -1);                      \
    REAL(name);                                           \
    return real_##name args;                              \
  }
PATH_WRAP(kTrunc, truncate, (const char* path, off_t length), AT_FDCWD, path, (path, length))
PATH_WRAP(kUnlink, unlink, (const char* path), AT_FDCWD, path, (path))
PATH_WRAP(kUnlink, unlinkat, (int dirfd, const char* path, int flags), dirfd, path, (dirfd, path, flags))

// A rename is counted under its source when that is watched, else its
// target; descriptors opened under its source then name its target.
#define RENAME_WRAP(name, params, fromFd, toFd, args)                      \
  int name params {                                                        \
    char a[4096], b[4096];                                                 \
    resolve(fromFd, from, a, sizeof a);                                    \
    resolve(toFd, to, b, sizeof b);                                        \
    FAIL_IF(kRename, #name, underDir(a) ? a : b, -1);                      \
    REAL(name);                                                            \
    const int rc = real_##name args;                                       \
    pthread_mutex_lock(&g_lock);                                           \
    for (int fd = 0; rc == 0 && fd < MAX_FDS; ++fd)                        \
      if (g_fdPath[fd] && strcmp(g_fdPath[fd], a) == 0) remember(fd, b);   \
    pthread_mutex_unlock(&g_lock);                                         \
    return rc;                                                             \
  }
RENAME_WRAP(rename, (const char* from, const char* to), AT_FDCWD, AT_FDCWD, (from, to))
RENAME_WRAP(renameat, (int fromFd, const char* from, int toFd, const char* to), fromFd, toFd, (fromFd, from, toFd, to))
RENAME_WRAP(renameat2, (int fromFd, const char* from, int toFd, const char* to, unsigned flags), fromFd, toFd,
            (fromFd, from, toFd, to, flags))

void* mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset) {
  FAIL_IF(kMmap, "mmap", fdPath(fd), MAP_FAILED);
  REAL(mmap);
  void* at = real_mmap(addr, len, prot, flags, fd, offset);
  pthread_mutex_lock(&g_lock);
  for (int i = 0; at != MAP_FAILED && fdPath(fd) && i < MAX_MAPS; ++i)
    if (!g_maps[i].addr) {
      g_maps[i] = (struct Map){(char*)at, len, offset, fd};
      break;
    }
  pthread_mutex_unlock(&g_lock);
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

// Syncs: the bytes they cover are read before the call (`p`) and become the
// file's durable image when it succeeds (a sync of the directory: its names;
// a file new to them is durable as empty until it is synced itself).
static int syncBegin(const char* file) {
  if (g_eventFd < 0 || !file) return 0;
  const long id = __atomic_add_fetch(&g_syncIds, 1, __ATOMIC_RELAXED);
  emit(g_eventFd, "Y %ld %ld %s\n", id, nowUs(), file);
  return (int)id;
}
static int syncEnd(int id, int rc, struct Pending* p, int dirSynced) {
  const int err = errno;
  if (rc == 0 && (p->bytes || dirSynced)) {
    t_inside = 1;
    pthread_mutex_lock(&g_lock);
    if (!dirSynced) commitPending(p);
    else {
      char names[4200];
      snprintf(names, sizeof names, "%s/names", g_durable);
      listNames(names);
    }
    pthread_mutex_unlock(&g_lock);
    t_inside = 0;
  }
  free(p->bytes);
  if (id) emit(g_eventFd, "Z %d %d\n", id, rc == 0 ? 0 : err);
  errno = err;
  return rc;
}

static int fileSync(int fd, const char* name, int data) {
  const char* file = fdPath(fd);
  FAIL_IF(kSync, name, file, -1);
  struct Pending p = {.whole = 1};
  struct stat st;
  int dirSynced = 0;
  const int id = syncBegin(file);
  if (file && g_durable[0] && fstat(fd, &st) == 0) {
    dirSynced = S_ISDIR(st.st_mode) && strcmp(file, g_dir) == 0;
    if (!S_ISDIR(st.st_mode)) {
      p = (struct Pending){st.st_ino, 0, st.st_size, malloc((size_t)st.st_size + 1), (size_t)st.st_size, 1};
      if (pread(fd, p.bytes, p.len, 0) != (ssize_t)p.len) p.len = 0;
    }
  }
  REAL(fsync);
  REAL(fdatasync);
  return syncEnd(id, file && g_noSync ? 0 : data ? real_fdatasync(fd) : real_fsync(fd), &p, dirSynced);
}
int fsync(int fd) { return fileSync(fd, "fsync", 0); }
int fdatasync(int fd) { return fileSync(fd, "fdatasync", 1); }

int msync(void* addr, size_t len, int flags) {
  struct Map hit = {NULL, 0, 0, -1};
  pthread_mutex_lock(&g_lock);
  for (int i = 0; i < MAX_MAPS; ++i)
    if (g_maps[i].addr && (char*)addr >= g_maps[i].addr && (char*)addr < g_maps[i].addr + g_maps[i].len) hit = g_maps[i];
  pthread_mutex_unlock(&g_lock);
  const char* file = hit.addr ? fdPath(hit.fd) : NULL;
  FAIL_IF(kSync, "msync", file, -1);
  struct Pending p = {0};
  struct stat st;
  const int id = syncBegin(file);
  if (file && g_durable[0] && (flags & MS_SYNC) && fstat(hit.fd, &st) == 0) {
    const size_t from = (size_t)((char*)addr - hit.addr), end = from + len < hit.len ? from + len : hit.len;
    p = (struct Pending){st.st_ino, hit.offset + (off_t)from, st.st_size, NULL, end - from, 0};
    if (p.offset + (off_t)p.len > st.st_size) p.len = st.st_size > p.offset ? (size_t)(st.st_size - p.offset) : 0;
    p.bytes = malloc(p.len + 1);
    memcpy(p.bytes, hit.addr + from, p.len);
  }
  REAL(msync);
  return syncEnd(id, file && g_noSync ? 0 : real_msync(addr, len, flags), &p, 0);
}
