#include "SubTreeModel.h"

#include <algorithm>

std::string ParentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

namespace {
bool IsBelowOrSame(const std::string& path, const std::string& folder) {
  return path == folder ||
         (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
          path[folder.size()] == '/');
}
}  // namespace

void SubTreeModel::add(const std::string& path, bool isDir, unsigned long long refTime) {
  entries_[path] = ModelEntry{isDir, refTime};
}

void SubTreeModel::removeTree(const std::string& path) {
  for (auto it = entries_.begin(); it != entries_.end();)
    it = IsBelowOrSame(it->first, path) ? entries_.erase(it) : std::next(it);
}

void SubTreeModel::moveTree(const std::string& from, const std::string& to,
                            unsigned long long refTime) {
  std::map<std::string, ModelEntry> moved;
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (IsBelowOrSame(it->first, from)) {
      ModelEntry entry = it->second;
      entry.refTime = refTime;
      moved[to + it->first.substr(from.size())] = entry;
      it = entries_.erase(it);
    } else {
      ++it;
    }
  }
  entries_.insert(moved.begin(), moved.end());
}

bool SubTreeModel::hasSubFolder(const std::string& folder) const {
  for (const auto& [path, entry] : entries_)
    if (entry.isDir && path != folder && IsBelowOrSame(path, folder)) return true;
  return false;
}

std::vector<std::string> SubTreeModel::childNames(const std::string& folder) const {
  std::vector<std::string> names;
  for (const auto& [path, entry] : entries_)
    if (path != folder && ParentOf(path) == folder) names.push_back(NameOf(path));
  std::sort(names.begin(), names.end());
  return names;
}

std::string SubTreeModel::pick(std::mt19937& rng, bool foldersOnly) const {
  std::vector<const std::string*> candidates;
  for (const auto& [path, entry] : entries_)
    if (!foldersOnly || entry.isDir) candidates.push_back(&path);
  return *candidates[std::uniform_int_distribution<size_t>(0, candidates.size() - 1)(rng)];
}
