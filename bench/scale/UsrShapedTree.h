// UsrShapedTree: a synthetic file-system tree of a given size whose folders
// look like those of a Linux /usr: the number of files and of sub-folders per
// folder and the lengths of file and folder names are drawn from the
// distributions measured on a Debian 12 /usr (18 090 folders, 148 395 files
// and 5 878 links counted as files: 8.5 files and 1.0 sub-folder per folder
// on average, most folders small, a few with thousands of entries).
//
// With one sub-folder per folder on average such a tree neither dies out nor
// grows on its own, so the tree is made of "hosts" below the root, each a
// /usr-sized tree (172 363 entries): a host whose folders run out before it
// has its size gets one more folder directly below it, and goes on.
//
// Only folders are kept (parent, name, file count, entries below); files are
// made again from the folder they are in whenever they are visited, so a
// tree of 50 million entries costs about 30 bytes per folder. Every folder's
// parent comes before it in folder order, which is also the order in which
// forEachEntry visits them. Deterministic for a seed. Not thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class UsrShapedTree {
 public:
  static constexpr uint64_t kHostEntries = 172363;

  UsrShapedTree(uint64_t entries, uint32_t seed);

  uint64_t entries() const { return entries_; }
  size_t folders() const { return folders_.size(); }
  // Full path of folder `f`: "/" for the root (folder 0).
  std::string folderPath(size_t f) const;
  // Entries below folder `f` (not `f` itself).
  uint64_t below(size_t f) const { return folders_[f].below; }
  size_t parent(size_t f) const { return folders_[f].parent; }

  // Calls `visit(path, isDir)` for every entry but the root, folder by
  // folder: each folder (after its parent), then its files.
  void forEachEntry(const std::function<void(const std::string&, bool)>& visit) const;

  // Disjoint folders, in folder order, none inside another nor inside one of
  // `taken`, whose sub-trees (the folder included) add up to about `target`
  // entries. They are added to `taken`.
  std::vector<size_t> chooseFolders(uint64_t target, std::vector<bool>& taken) const;

 private:
  struct Folder {
    uint32_t parent;
    uint32_t nameOffset;
    uint32_t files;
    uint8_t nameLength;
    uint64_t below;
  };
  void addFolder(uint32_t parent, const std::string& name);
  std::string fileName(size_t folder, uint32_t index) const;

  uint64_t entries_;
  uint32_t seed_;
  std::vector<Folder> folders_;
  std::string names_;
};
