#include "ChangeReport.h"

#include "ChangeFormat.h"
#include "KeptReport.h"

ChangeReport::ChangeReport(OutputMode outputMode, uint64_t listLimit, uint64_t streamLimit)
    : outputMode_(outputMode), listLimit_(listLimit), streamLimit_(streamLimit) {}

void ChangeReport::Add(const Change& change) {
  const int kind = static_cast<int>(change.kind);
  uint64_t seen = counts_[kind]++;
  if (outputMode_ == OutputMode::kText) {
    if (seen < listLimit_) lines_[kind].push_back(ChangeText(change));
  } else if (seen < streamLimit_) {
    WriteChange(stdout, outputMode_, change);
  }
  if (reportFile_) WriteChange(reportFile_, reportMode_, change);
  if (kept_ && (keptNew_ || change.kind != ChangeKind::kNew)) kept_->Add(change);
}

void ChangeReport::PrintListing(FILE* out) const {
  for (int kind = 0; kind < kChangeKinds; ++kind) {
    for (const std::string& line : lines_[kind]) OutputLine(OutputMode::kText, line, out);
    uint64_t left = counts_[kind] - lines_[kind].size();
    if (left > 0 && !lines_[kind].empty())
      std::fprintf(out, "...        and %llu more %s\n", static_cast<unsigned long long>(left),
                   ChangeKindName(static_cast<ChangeKind>(kind)));
  }
}
