// KeptReport: the change report of the last scan, kept beside the database
// files as <DBDIR>/WzScanDB.changes, so that `wzscandb changed` can show it
// again later.
//
// The file holds JSON lines: first {"scan": {...}} (the scanned directory
// "dir", the record type "type", the reference time "ref", "first_scan"), then one ChangeJson object
// per change in the order the scan met them, last {"summary": {...}} (the
// scan's counts). On the first scan of a directory every entry it records is
// new: those lines are left out ("first_scan": true), since the database
// itself lists the same entries (everything at and below "dir", in the
// scan's order), and writing one line per entry would cost the first scan of
// a large tree a good part of its time. A scan writes the file under a
// temporary name and renames it into place when it ends, so the file always
// holds one whole report; a dry run writes none.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "Change.h"

// The kept report's path in `directory`.
std::string KeptReportPath(const std::string& directory);

class KeptReportWriter {
 public:
  // Removes the last report and starts the temporary file with the header;
  // throws ToolError.
  KeptReportWriter(const std::string& directory, const nlohmann::json& scan);
  // Removes the temporary file unless Finish() ran.
  ~KeptReportWriter();
  KeptReportWriter(const KeptReportWriter&) = delete;
  KeptReportWriter& operator=(const KeptReportWriter&) = delete;

  void Add(const Change& change);
  // Writes the summary and puts the file in place; throws ToolError.
  void Finish(const nlohmann::json& summary);

 private:
  std::string path_;
  std::string temporary_;
  FILE* file_ = nullptr;
};

// Reads the kept report of `directory`: `header` gets the "scan" object,
// `visit` each change, `summary` the "summary" object. Throws ToolError
// (kExitNotFound) when there is none, kExitFailed when it is damaged.
void ReadKeptReport(const std::string& directory, nlohmann::json& header,
                    const std::function<void(const Change&)>& visit, nlohmann::json& summary);
