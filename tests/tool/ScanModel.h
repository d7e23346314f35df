// ScanModel: what a scan must report and store, worked out from snapshots
// of the file system taken with find(1), independently of the database.
//
// A Tree maps paths relative to the scanned directory ("" for the directory
// itself) to what `find -printf` says of them. ExpectScan takes the tree the
// database holds (what the last scan stored), the tree on disk now and the
// folders the scan will not be able to read, and gives the report's sets and
// the tree the database must hold afterwards. Its rules: entries at the same
// path are compared (size, mtime, ctime, kind); entries that appear or vanish
// directly in folders present on both sides pair up as renames by device,
// inode and kind (a file also by size and mtime); everything else below a
// renamed folder is compared old path against new path; what stays unpaired
// is new or removed with everything below it. A blocked folder (mode 000)
// keeps its stored sub-tree and is unreadable; in a folder of mode 0644 each
// listed entry is unreadable and keeps its stored sub-tree.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "ToolRunner.h"

struct Attr {
  char type = 'f';  // find's %y
  uint64_t inode = 0, dev = 0;
  int64_t size = 0, mtimeNs = 0, ctimeNs = 0;
};
using Tree = std::map<std::string, Attr>;

// find DIR -printf ... through a pipe; paths relative to `root`.
Tree Snapshot(const std::string& root);

struct ScanSets {
  std::set<std::string> added, removed, unreadable;
  std::map<std::string, std::set<std::string>> changed;  // path -> reasons
  std::set<std::pair<std::string, std::string>> renamed;  // (old, new)
  bool operator==(const ScanSets& other) const {
    return added == other.added && removed == other.removed && unreadable == other.unreadable &&
           changed == other.changed && renamed == other.renamed;
  }
};

// blocked: folder -> '0' (mode 000) or '6' (mode 0644).
ScanSets ExpectScan(const Tree& stored, const Tree& disk, const std::map<std::string, char>& blocked,
                    Tree& storedAfter);

// The report of `scan --json` or `scan -0`, paths made relative to `root`.
ScanSets ParseJsonReport(const std::string& out, const std::string& root);
ScanSets ParseNullReport(const std::string& out, const std::string& root);
// What `walk --json` prints, as a Tree (times, sizes, inodes, kinds).
Tree ParseWalk(const std::string& out);

std::string Describe(const ScanSets& sets);
