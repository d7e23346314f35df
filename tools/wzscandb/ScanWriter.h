// ScanWriter: the writes of a scan into its database, one library call per
// record, or none at all in a dry run.
//
// The scan knows from its own reads whether a record exists, so Add inserts
// without a lookup (addRecordWithoutCheck), Update rewrites the record with
// the same key (updateDBRecord: one lookup and the write) and Remove deletes
// it (deleteDBRecord). Each takes a record image and copies it into one
// scratch record, so no record object is made per entry. Failures throw
// ToolError(kExitFailed) naming the path. Not thread-safe.
#pragma once

#include <string>

#include "ScanDatabase.h"

class ScanWriter {
 public:
  // `database` may be null only for a dry run (no database to compare with).
  ScanWriter(ScanDatabase* database, bool dryRun);

  bool dryRun() const { return dryRun_; }
  void Add(const char* image, const std::string& path);
  void Update(const char* image, const std::string& path);
  void Remove(const char* image, const std::string& path);

 private:
  // The scratch record holding `image`; a fresh one for a record at the top
  // of its tree, which the library keeps as the process's root record.
  WzScanDBRecordBasePtr Load(const char* image);

  ScanDatabase* database_;
  bool dryRun_;
  size_t recordSize_ = 0;
  WzScanDBRecordBasePtr scratch_;
};
