/* StatDelay: an LD_PRELOAD shim that makes every stat call of a process
 * sleep first, standing in for a network or Lustre file system whose status
 * lookups take a round trip. STATDELAY_US sets the sleep (default 200
 * microseconds). Covers the stat family that find(1) and wzscandb use. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

static void Delay(void) {
  static long nanoseconds = -1;
  if (nanoseconds < 0) {
    const char* text = getenv("STATDELAY_US");
    nanoseconds = (text ? atol(text) : 200) * 1000;
  }
  struct timespec pause = {nanoseconds / 1000000000, nanoseconds % 1000000000};
  while (nanosleep(&pause, &pause) != 0) {
  }
}

#define FORWARD(name, signature, call)                        \
  int name signature {                                        \
    static int(*next) signature = 0;                          \
    if (!next) next = (int(*) signature)dlsym(RTLD_NEXT, #name); \
    Delay();                                                  \
    return next call;                                         \
  }

FORWARD(fstatat, (int dirfd, const char* path, struct stat* st, int flags), (dirfd, path, st, flags))
FORWARD(fstatat64, (int dirfd, const char* path, struct stat64* st, int flags), (dirfd, path, st, flags))
FORWARD(lstat, (const char* path, struct stat* st), (path, st))
FORWARD(lstat64, (const char* path, struct stat64* st), (path, st))
FORWARD(stat, (const char* path, struct stat* st), (path, st))
FORWARD(stat64, (const char* path, struct stat64* st), (path, st))
FORWARD(statx, (int dirfd, const char* path, int flags, unsigned mask, struct statx* st),
        (dirfd, path, flags, mask, st))
