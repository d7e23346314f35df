// FXFile: file removal, moves and copies that never follow a link at the
// destination and never leave a partial file under the destination's name.
#include "runtime/FXFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "runtime/FXErrorUtil.h"
#include "runtime/FXString.h"
#include "runtime/LogWriter.h"
#include "runtime/WZPlatformInfo.h"

namespace FXFile {

namespace {

const char* const kSource = "runtime/FXFile";
const char* const kRemoveSignature = "CKoError FXFile::RemoveFile(const std::string&)";
const char* const kMoveSignature =
    "CKoError FXFile::WZMoveFileEx(const std::string&, const std::string&, unsigned int)";
const char* const kCopySignature =
    "CKoError FXFile::WZCopyFile(const std::string&, const std::string&, unsigned int)";
const char* const kStatSignature =
    "static CKoError FXFile::CFileData::FromPath(const std::string&, FXFile::CFileData&)";

std::string ErrorText(int error) { return CKoError::CodeText(EKoErrorKind::kErrNo, error); }

// Closes the descriptor it holds when it goes out of scope.
class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) noexcept : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int get() const noexcept { return fd_; }
  // Closes now and reports the result (a delayed write error shows here).
  int Close() noexcept {
    int fd = fd_;
    fd_ = -1;
    return ::close(fd) == 0 ? 0 : errno;
  }

 private:
  int fd_;
};

// Result of a multi-step operation: errno value and the step that failed.
struct StepError {
  int error = 0;
  const char* step = "";
  bool failed() const { return error != 0; }
};

StepError Fail(int error, const char* step) { return StepError{error, step}; }

std::string DirectoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Makes a directory's entries durable. Best effort: the operation that asked
// has already happened, and some file systems refuse fsync on directories.
void SyncDirectory(const std::string& directory) {
  int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

// A fresh name in the directory of `path`, for building a file before it is
// renamed into place.
std::string TemporaryNameBeside(const std::string& path) {
  static std::atomic<unsigned long long> sequence{0};
  unsigned char bytes[8] = {};
  // GRND_NONBLOCK: a name must not wait for the entropy pool at boot.
  if (getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof bytes)) {
    // The name needs to be unlikely, not secret; O_EXCL guards against clashes.
    const unsigned long long mix = static_cast<unsigned long long>(::getpid()) << 40 ^
                                   sequence.fetch_add(1) ^
                                   static_cast<unsigned long long>(CTimeStamp::Monotonic().Nanoseconds());
    std::memcpy(bytes, &mix, sizeof bytes);
  }
  std::string name = DirectoryOf(path) + "/.wzfile-";
  for (unsigned char b : bytes) name += FXString::Format("%02x", b);
  return name + ".tmp";
}

// Copies the rest of `in` to `out` with read/write.
int CopyWithReadWrite(int in, int out) {
  std::vector<char> buffer(1 << 20);
  for (;;) {
    ssize_t got = ::read(in, buffer.data(), buffer.size());
    if (got == 0) return 0;
    if (got < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    const char* data = buffer.data();
    size_t left = static_cast<size_t>(got);
    while (left > 0) {
      ssize_t put = ::write(out, data, left);
      if (put < 0) {
        if (errno == EINTR) continue;
        return errno;
      }
      data += put;
      left -= static_cast<size_t>(put);
    }
  }
}

// Copies the content of `in` (of `size` bytes by its stat) to `out`, in the
// kernel where the file systems allow it.
int CopyContent(int in, int out, unsigned long long size) {
  unsigned long long copied = 0;
  for (;;) {
    ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, 1u << 30, 0);
    if (n > 0) {
      copied += static_cast<unsigned long long>(n);
      continue;
    }
    if (n == 0) {
      // Some file systems report 0 before the real end (files whose size
      // st_size does not tell); read to the end to be sure.
      if (copied < size) break;
      return 0;
    }
    if (errno == EINTR) continue;
    if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP ||
        errno == ENOTSUP || errno == EPERM || errno == ETXTBSY)
      break;
    return errno;
  }
  // Both offsets have moved past what the kernel copied; carry on from there.
  return CopyWithReadWrite(in, out);
}

// Copies the regular file `from` to the new name `to`, which must not exist
// (O_EXCL: a planted file or link there makes it fail with EEXIST; O_NOFOLLOW
// for good measure). The new file is owner-only, or has the source's
// permissions and times when `keepAttributes`. On failure, removes the file it
// created.
StepError CopyToNewFile(const std::string& from, const std::string& to, bool keepAttributes) {
  // O_NONBLOCK: opening a FIFO by mistake must not hang; it is refused below.
  ScopedFd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (in.get() < 0) return Fail(errno, "cannot open the source");
  struct stat st;
  if (::fstat(in.get(), &st) != 0) return Fail(errno, "cannot read the source's status");
  if (S_ISDIR(st.st_mode)) return Fail(EISDIR, "the source is a directory");
  if (!S_ISREG(st.st_mode)) return Fail(EINVAL, "the source is not a regular file");

  ScopedFd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        CreatedFileMode()));
  if (out.get() < 0) return Fail(errno, "cannot create the destination");

  StepError result;
  if (int error = CopyContent(in.get(), out.get(), static_cast<unsigned long long>(st.st_size))) {
    result = Fail(error, "cannot copy the content");
  } else if (keepAttributes && ::fchmod(out.get(), st.st_mode & 07777) != 0) {
    result = Fail(errno, "cannot set the destination's permissions");
  } else if (keepAttributes) {
    const timespec times[2] = {st.st_atim, st.st_mtim};
    if (::futimens(out.get(), times) != 0) result = Fail(errno, "cannot set the destination's times");
  }
  if (!result.failed() && ::fsync(out.get()) != 0) result = Fail(errno, "cannot sync the destination");
  if (int error = out.Close(); !result.failed() && error != 0)
    result = Fail(error, "cannot close the destination");
  if (result.failed()) ::unlink(to.c_str());
  return result;
}

// rename(2) that fails with EEXIST instead of replacing an existing `to`.
int RenameNoReplace(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return errno;
  // The file system cannot refuse atomically; check first (a small window).
  struct stat st;
  if (::lstat(to.c_str(), &st) == 0) return EEXIST;
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

int Rename(const std::string& from, const std::string& to, bool replace) {
  if (replace) return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
  return RenameNoReplace(from, to);
}

// Copies `from` to a temporary name beside `to`, then renames it into place:
// `to` never names a partial file.
StepError CopyIntoPlace(const std::string& from, const std::string& to, bool replace,
                        bool keepAttributes) {
  std::string temporary;
  StepError result;
  for (int attempt = 0; attempt < 8; ++attempt) {
    temporary = TemporaryNameBeside(to);
    result = CopyToNewFile(from, temporary, keepAttributes);
    if (result.error != EEXIST) break;
  }
  if (result.failed()) return result;
  if (int error = Rename(temporary, to, replace)) {
    ::unlink(temporary.c_str());
    return Fail(error, "cannot rename the copy into place");
  }
  SyncDirectory(DirectoryOf(to));
  return result;
}

}  // namespace

CKoError RemoveFile(const std::string& path) {
  if (::unlink(path.c_str()) == 0) return CKoError();
  const int error = errno;
  return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSource, kRemoveSignature, __LINE__), error,
                                 "Cannot remove \"%s\": %s", path.c_str(),
                                 ErrorText(error).c_str());
}

CKoError WZMoveFileEx(const std::string& from, const std::string& to, unsigned flags) {
  const bool replace = (flags & kMoveReplaceExisting) != 0;
  int error = Rename(from, to, replace);
  if (error == 0) return CKoError();
  if (error != EXDEV) {
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSource, kMoveSignature, __LINE__), error,
                                   "Cannot move \"%s\" to \"%s\": %s", from.c_str(), to.c_str(),
                                   ErrorText(error).c_str());
  }

  // Another file system: copy (synced), then drop the source. Only regular
  // files are moved this way.
  struct stat st;
  if (::lstat(from.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSource, kMoveSignature, __LINE__), EXDEV,
                                   "Cannot move \"%s\" to \"%s\": %s", from.c_str(), to.c_str(),
                                   ErrorText(EXDEV).c_str());
  }
  StepError copy = CopyIntoPlace(from, to, replace, true);
  if (copy.failed()) {
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSource, kMoveSignature, __LINE__), copy.error,
                                   "Cannot move \"%s\" to \"%s\" across file systems: %s: %s",
                                   from.c_str(), to.c_str(), copy.step,
                                   ErrorText(copy.error).c_str());
  }
  if (::unlink(from.c_str()) != 0) {
    error = errno;
    return FXErrorUtil::ErrorErrNo(
        FXCodeLocation(kSource, kMoveSignature, __LINE__), error,
        "Copied \"%s\" to \"%s\" but cannot remove the source: %s", from.c_str(), to.c_str(),
        ErrorText(error).c_str());
  }
  SyncDirectory(DirectoryOf(from));
  return CKoError();
}

CKoError WZCopyFile(const std::string& from, const std::string& to, unsigned flags) {
  StepError result;
  if (flags & kCopyReplaceExisting) {
    result = CopyIntoPlace(from, to, true, false);
  } else {
    result = CopyToNewFile(from, to, false);
    if (!result.failed()) SyncDirectory(DirectoryOf(to));
  }
  if (!result.failed()) return CKoError();
  return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSource, kCopySignature, __LINE__), result.error,
                                 "Cannot copy \"%s\" to \"%s\": %s: %s", from.c_str(), to.c_str(),
                                 result.step, ErrorText(result.error).c_str());
}

bool Exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

CFileData::CFileData() noexcept : stat_() {}

CKoError CFileData::FromPath(const std::string& path, CFileData& data) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) {
    const int error = errno;
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSource, kStatSignature, __LINE__), error,
                                   "Cannot read the status of \"%s\": %s", path.c_str(),
                                   ErrorText(error).c_str());
  }
  data = CFileData(st);
  return CKoError();
}

}  // namespace FXFile

mode_t FXFile::CreatedFileMode() {
  constexpr mode_t kDefault = 0600;
  std::string text;
  if (!WZPlatformInfo::getRegString("~FileSystemAgent", "nWzScanDBFileMode", &text)) return kDefault;
  const char* begin = text.c_str();
  while (*begin == ' ' || *begin == '\t') ++begin;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(begin, &end, 0);  // base 0: a leading 0 means octal
  while (end && (*end == ' ' || *end == '\t')) ++end;
  if (errno != 0 || end == begin || *end != '\0' || value < 0 || value > 0777) {
    WZ_LOG(-1, "mode_t FXFile::CreatedFileMode()", __LINE__,
          "Ignoring the setting nWzScanDBFileMode = \"%s\": not permission bits (e.g. 0600); "
          "files are created with mode 0600",
          text.c_str());
    return kDefault;
  }
  return static_cast<mode_t>(value);
}
