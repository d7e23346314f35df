// TreeScanner: records a directory tree into a scan database, as the agent
// does during a scan pass, and reports what changed since the last pass.
//
// Run(dir) makes sure the path from the root record down to `dir` is in the
// table (the root and a folder record for every ancestor), then walks `dir`
// depth-first without following symbolic links, one folder at a time: it
// merges the folder's listing (DirectoryListing, from the ListingSource) with
// the folder's children in the table, both sorted by name. An entry in both
// is stamped with the scan's reference time and its new status, and reported
// when its size, times or kind changed; an entry only on disk is an arrival,
// a record only in the table a departure. When the tree has been read,
// arrivals and departures are paired by device and inode (RenameCandidates)
// and each pair is reported as one rename; what stays unpaired is new or
// removed. Generic records are keyed by their path, so a renamed entry and
// everything below it are stored again under their new paths (each new
// record before its old one goes, the old folder record last); Lustre records
// keep their FID and only the renamed entry's parent and name change.
//
// Nothing is removed on doubt: an entry whose status cannot be read, a folder
// that cannot be listed (or whose listing broke off) keep what the table
// holds for them and below them, and are reported as unreadable. Entries left
// out by the EntryFilter are reported removed (reason "excluded") when the
// table held them.
//
// One thread writes; the listings may come from reader threads. Memory is
// bounded by the depth of the tree times the width of its folders, plus the
// rename candidates' own bound; never by the size of the tree.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ChangeReport.h"
#include "EntryFilter.h"
#include "ListingSource.h"
#include "RenameCandidates.h"
#include "ScanDatabase.h"
#include "ScanProgress.h"
#include "ScanWriter.h"
#include "TableReader.h"

struct ScanTotals {
  uint64_t entries = 0;  // entries recorded below and including the scanned directory
  uint64_t folders = 0;
  uint64_t files = 0;
  uint64_t unreadable = 0;  // entries or folders that could not be read
};

class TreeScanner {
 public:
  // `database` may be null in a dry run without a database (all is new).
  TreeScanner(ScanDatabase* database, RecordType type, ScanWriter& writer, ListingSource& listings,
              const EntryFilter& filter, uint32_t refTime, ChangeReport& report,
              ScanProgress& progress);

  // `dir` must be an absolute path without symbolic links or "." and ".."
  // components (a realpath). Throws ToolError when the library fails.
  void Run(const std::string& dir);

  const ScanTotals& totals() const { return totals_; }

 private:
  struct Task {
    bool removeOnly = false;       // only delete `folder` (a moved folder's old record)
    std::string path;              // where the folder is now
    std::vector<char> folder;      // its image as now stored
    std::vector<char> baseline;    // the stored folder whose children it had; empty: none
    std::string basePath;          // where the baseline's children were stored
    bool rekey = false;            // baseline is under another path: store children anew
    bool contentsExcluded = false; // record nothing below it (another file system under -x)
    bool requested = false;        // its listing has been asked for
  };

  void AddRootAndAncestors(const std::string& dir);
  void Drain();
  void Prefetch();
  // False when the folder could not be listed.
  bool ProcessFolder(const Task& task, std::vector<Task>& subTasks);
  void Matched(const Task& parent, const ListedEntry& entry, const char* stored,
               const std::string& path, const std::string& oldPath, std::vector<Task>& subTasks);
  void Arrived(const Task& parent, const ListedEntry& entry, const std::string& path,
               std::vector<Task>& subTasks);
  void Departed(const char* stored, const std::string& path);
  void AddNew(std::string_view parentKey, const std::string& path, const std::string& name,
              const struct stat& st, const char* identity, std::vector<Task>& subTasks);
  void RemoveTree(const char* image, const std::string& path, unsigned reasons, bool withTop);
  void ResolveCandidates();
  Task FolderTask(const std::string& path, const std::vector<char>& image,
                  const std::vector<char>& baseline, const std::string& basePath, bool rekey,
                  const struct stat& st) const;

  void Unreadable(const std::string& path, const std::string& why);
  void Report(ChangeKind kind, unsigned reasons, const std::string& path, const struct stat& st,
              bool isDir, const std::string& oldPath = std::string());
  void Count(bool isDir);

  ScanDatabase* database_;
  RecordType type_;
  const RecordLayout& layout_;
  ScanWriter& writer_;
  ListingSource& listings_;
  const EntryFilter& filter_;
  uint32_t refTime_;
  ChangeReport& report_;
  ScanProgress& progress_;
  std::unique_ptr<TableReader> reader_;
  RenameCandidates candidates_;
  bool resolving_ = false;
  std::vector<Task> stack_;
  ScanTotals totals_;
  Change change_;            // reused for every report line
  std::vector<char> image_;  // reused for every record written
};
