// SubTreeModel: what one thread expects its own sub-tree of the database to
// hold (full path -> directory flag and reference time), kept in step with
// the operations that returned success.
#pragma once

#include <map>
#include <random>
#include <string>
#include <vector>

struct ModelEntry {
  bool isDir = false;
  unsigned long long refTime = 0;
};

class SubTreeModel {
 public:
  explicit SubTreeModel(const std::string& top) : top_(top) {}

  const std::string& top() const { return top_; }
  const std::map<std::string, ModelEntry>& entries() const { return entries_; }
  bool contains(const std::string& path) const { return entries_.count(path) != 0; }
  ModelEntry& at(const std::string& path) { return entries_.at(path); }

  void add(const std::string& path, bool isDir, unsigned long long refTime);
  // Removes `path` and everything below it.
  void removeTree(const std::string& path);
  // Moves `from` and everything below it to `to`, every moved entry taking
  // `refTime` (renames restamp what they add).
  void moveTree(const std::string& from, const std::string& to, unsigned long long refTime);
  // Whether some folder lies below `folder`.
  bool hasSubFolder(const std::string& folder) const;
  // Names of the direct children of `folder`, sorted.
  std::vector<std::string> childNames(const std::string& folder) const;

  // A random existing entry (files and folders, or folders only); the top
  // folder counts as a folder.
  std::string pick(std::mt19937& rng, bool foldersOnly) const;

 private:
  std::string top_;
  std::map<std::string, ModelEntry> entries_;  // the top folder included
};

std::string ParentOf(const std::string& path);
std::string NameOf(const std::string& path);
