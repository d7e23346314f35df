// TreeScanner: records a directory tree into a scan database, as the agent
// does during a scan pass, and reports what changed since the last pass.
//
// Run(dir) makes sure the whole path from the root record down to `dir` is in
// the table (the root and a folder record for every ancestor), then walks
// `dir` depth-first without following symbolic links and records every entry
// with addFolder/addFile at the database's reference time, its struct stat
// taken from lstat. Before each add it looks the stored record up, so the
// report can say whether the entry is new or changed (size, modification or
// status-change time, or kind). After the walk, every record below `dir` that
// still carries an older reference time was not met: it disappeared, and is
// reported and removed. Directories that cannot be read are reported through
// ScanProgress::Note and skipped; what the table holds below them is kept.
// The database's own directory is left out when it lies inside the tree.
//
// The database's reference time must be set before Run(). Not thread-safe.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "ChangeReport.h"
#include "ScanDatabase.h"
#include "ScanProgress.h"

struct ScanTotals {
  uint64_t entries = 0;  // entries recorded below and including the scanned directory
  uint64_t folders = 0;
  uint64_t files = 0;
  uint64_t unreadable = 0;  // directories that could not be read, or entries not recorded
};

class TreeScanner {
 public:
  TreeScanner(ScanDatabase& database, ChangeReport& report, ScanProgress& progress);

  // `dir` must be an absolute path without symbolic links or "." and ".."
  // components (a realpath). Throws ToolError when the library fails.
  void Run(const std::string& dir);

  // Leaves the entry at `path` (the database's own directory) out of the scan.
  void Exclude(const std::string& path) { excluded_ = path; }

  const ScanTotals& totals() const { return totals_; }

 private:
  void AddRootAndAncestors(const std::string& dir);
  // Records one entry; false when the entry could not be given an identity.
  bool RecordEntry(const std::string& path, const struct stat& st);
  // Reads one directory, records its entries and appends its sub-folders.
  void ScanDirectory(const std::string& path, std::vector<std::string>& folders);
  // Removes the records below `path`'s old folder record before it becomes a file.
  void RemoveFolderContents(const WzScanDBRecordBasePtr& stored, const std::string& path);
  void RemoveDisappeared(const std::string& dir);
  // True when `path` lies below a directory this scan could not read.
  bool BelowUnreadable(const std::string& path) const;
  void Add(const WzScanDBRecordBasePtr& record, bool isDir, const std::string& path);

  ScanDatabase& database_;
  WzScanDB& db_;
  RecordType type_;
  ChangeReport& report_;
  ScanProgress& progress_;
  ScanTotals totals_;
  std::unordered_set<std::string> unreadable_;
  std::string excluded_;
};

// `dir` + "/" + `name`, without doubling the separator after the root.
std::string JoinPath(const std::string& dir, const std::string& name);
