// FXFile: the file helpers of the agent runtime.
//
// Each operation returns success or an errno-kind CKoError whose message names
// the path(s) and the system's text for the error. No operation follows a
// symbolic link at a destination name.
//
//  RemoveFile(path)              unlinks a file (not a directory).
//  WZMoveFileEx(from, to, flags) renames `from` to `to`. Flag kMoveReplaceExisting
//                                (1) replaces an existing destination; without it
//                                an existing destination is an error (EEXIST).
//                                Across file systems a regular file is copied
//                                (keeping its permissions and times) under a
//                                temporary name beside `to`, synced, renamed
//                                into place, and the source unlinked.
//  WZCopyFile(from, to, flags)   copies a regular file's content to a new file.
//                                Flag 0 fails with EEXIST if `to` exists (a link
//                                included); kCopyReplaceExisting (1) replaces it.
//                                The copy is made in the kernel where it can
//                                (copy_file_range), fsync'ed, and created with
//                                owner-only permissions (CreatedFileMode()). With flag 1 the
//                                copy is built under a temporary name and
//                                renamed over `to`, so `to` is never partial.
//                                A failed copy removes what it created.
//  CreatedFileMode()             permission bits of the files the agent creates
//                                (database files, copies): 0600, or the setting
//                                "nWzScanDBFileMode" of section "~FileSystemAgent"
//                                (octal with a leading 0, e.g. 0640, or decimal;
//                                permission bits only, anything else is ignored
//                                with a warning). The process umask still applies.
#pragma once

#include <sys/stat.h>

#include <string>

#include "runtime/CKoError.h"
#include "runtime/CTimeStamp.h"
#include "runtime/WzRuntimeExport.h"

namespace FXFile {

enum : unsigned {
  kMoveReplaceExisting = 1,
  kCopyReplaceExisting = 1,
};

WZRT_API CKoError RemoveFile(const std::string& path);
WZRT_API CKoError WZMoveFileEx(const std::string& from, const std::string& to, unsigned flags);
WZRT_API CKoError WZCopyFile(const std::string& from, const std::string& to, unsigned flags);
WZRT_API mode_t CreatedFileMode();
// True when `path` names an existing directory entry of any kind (lstat).
WZRT_API bool Exists(const std::string& path);

// A read-only view of a struct stat: no file-system access of its own.
class WZRT_API CFileData {
 public:
  CFileData() noexcept;
  explicit CFileData(const struct stat& st) noexcept : stat_(st) {}
  // lstat(path) into `data`; errno-kind error when it fails.
  static CKoError FromPath(const std::string& path, CFileData& data);

  unsigned long long GetSize() const noexcept { return (unsigned long long)stat_.st_size; }
  // Times a stamp cannot hold (before 1677 or after 2262: a status read back
  // from a damaged record) are clamped to its range instead of overflowing.
  CTimeStamp GetModificationTime() const noexcept { return StampOf(stat_.st_mtim.tv_sec); }
  CTimeStamp GetChangeTime() const noexcept { return StampOf(stat_.st_ctim.tv_sec); }
  mode_t GetMode() const noexcept { return stat_.st_mode; }
  bool IsDirectory() const noexcept { return S_ISDIR(stat_.st_mode); }
  const struct stat& GetStat() const noexcept { return stat_; }

 private:
  static CTimeStamp StampOf(long long seconds) noexcept {
    constexpr long long kLimit = 9223372036LL;  // whole seconds of the largest stamp
    if (seconds > kLimit) seconds = kLimit;
    if (seconds < -kLimit) seconds = -kLimit;
    return CTimeStamp::FromUnixSeconds(seconds);
  }

  struct stat stat_;
};

}  // namespace FXFile
