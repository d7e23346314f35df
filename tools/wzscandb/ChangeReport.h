// ChangeReport: what a scan found new, changed and removed.
//
// Counts every entry; keeps the paths of at most `listLimit` entries of each
// kind, so a first scan of millions of entries (all new) does not hold or
// print millions of lines. Not thread-safe.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

class ChangeReport {
 public:
  enum Kind { kNew = 0, kChanged = 1, kRemoved = 2 };

  explicit ChangeReport(uint64_t listLimit) : listLimit_(listLimit) {}

  void Add(Kind kind, const std::string& path);
  uint64_t Count(Kind kind) const { return counts_[kind]; }

  // One line per kept path, "new      PATH" / "changed  PATH" /
  // "removed  PATH", grouped by kind in the order met, then for each kind
  // with paths left out "...      and N more <kind>".
  void Print(std::ostream& out) const;

 private:
  uint64_t listLimit_;
  uint64_t counts_[3] = {0, 0, 0};
  std::vector<std::string> paths_[3];
};
