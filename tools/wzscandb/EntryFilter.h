// EntryFilter: what a scan leaves out.
//
// --exclude GLOB patterns (fnmatch): a pattern without "/" is matched against
// an entry's name; one that starts with "/" against its absolute path; any
// other against its path relative to the scanned directory (in both path
// forms "*" does not cross "/"). The database's own directory is always left
// out. With --one-file-system a folder on another device than the scanned
// directory is recorded, but not its contents (as tar does at mount points).
// Const after construction: reader threads share it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class EntryFilter {
 public:
  EntryFilter(const std::string& root, dev_t rootDevice, const std::vector<std::string>& globs,
              const std::string& databaseDirectory, bool oneFileSystem);

  bool Excluded(const std::string& path, const std::string& name) const;
  // The folder's contents are left out (another file system under -x).
  bool ContentsExcluded(dev_t device) const { return oneFileSystem_ && device != rootDevice_; }

 private:
  std::string root_;
  dev_t rootDevice_;
  std::vector<std::string> nameGlobs_, absoluteGlobs_, relativeGlobs_;
  std::string databaseDirectory_;
  bool oneFileSystem_;
};
