// ChangeReport: where the changes of a scan go while it runs.
//
// Every change is counted and written at once, in the order the scan meets
// it, to each destination that is set: standard output in the -0 or JSON
// form, the --report file, and the kept report of the database (KeptReport.h).
// For the text form on standard output it keeps the first `listLimit` lines
// of each kind and prints them, grouped by kind, at the end (PrintListing),
// so that a first scan of millions of entries prints a short report; the
// full report is then in the --report file or the kept report. Memory stays
// bounded by listLimit lines per kind. Not thread-safe.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Change.h"
#include "OutputMode.h"

class KeptReportWriter;

class ChangeReport {
 public:
  // `streamLimit`: how many lines of each kind the -0/JSON stream on standard
  // output may carry (UINT64_MAX: all).
  ChangeReport(OutputMode outputMode, uint64_t listLimit, uint64_t streamLimit);

  void SetReportFile(FILE* file, OutputMode mode) {
    reportFile_ = file;
    reportMode_ = mode;
  }
  // `withNew` false: new entries are not written to it (a first scan, whose
  // new entries the database itself lists; see KeptReport.h).
  void SetKeptReport(KeptReportWriter* kept, bool withNew) {
    kept_ = kept;
    keptNew_ = withNew;
  }

  void Add(const Change& change);
  uint64_t Count(ChangeKind kind) const { return counts_[static_cast<int>(kind)]; }

  // Text form only: the kept lines of each kind (new, changed, renamed,
  // removed, unreadable), then "...        and N more <kind>" where lines were
  // left out.
  void PrintListing(FILE* out) const;

 private:
  OutputMode outputMode_;
  uint64_t listLimit_;
  uint64_t streamLimit_;
  FILE* reportFile_ = nullptr;
  OutputMode reportMode_ = OutputMode::kText;
  KeptReportWriter* kept_ = nullptr;
  bool keptNew_ = true;
  uint64_t counts_[kChangeKinds] = {};
  std::vector<std::string> lines_[kChangeKinds];
};
