#include "ChangeReport.h"

namespace {
const char* const kLabels[3] = {"new     ", "changed ", "removed "};
const char* const kNames[3] = {"new", "changed", "removed"};
}  // namespace

void ChangeReport::Add(Kind kind, const std::string& path) {
  ++counts_[kind];
  if (paths_[kind].size() < listLimit_) paths_[kind].push_back(path);
}

void ChangeReport::Print(std::ostream& out) const {
  for (int kind = 0; kind < 3; ++kind) {
    for (const std::string& path : paths_[kind]) out << kLabels[kind] << " " << path << "\n";
    uint64_t left = counts_[kind] - paths_[kind].size();
    if (left > 0 && !paths_[kind].empty())
      out << "...      and " << left << " more " << kNames[kind] << "\n";
  }
}
