#include "PathResolver.h"

#include <vector>

#include "PathJoin.h"

namespace {

// Folders whose paths are kept; past this the cache starts over.
constexpr size_t kCachedFolders = 65536;
// Deeper parent chains are taken as loops.
constexpr int kMaxDepth = 4096;

// The path of a record at the top of its tree (see the header).
std::string TopPath(std::string_view name) {
  return name.empty() ? std::string("/") : std::string(name);
}

}  // namespace

bool PathResolver::PathOf(const char* image, std::string& path) {
  ImageView record(reader_.layout(), image);
  if (record.isTop()) {
    path = TopPath(record.name());
    return true;
  }
  bool complete = FolderPath(record.parentKey(), path);
  path = JoinPath(path, std::string(record.name()));
  return complete;
}

bool PathResolver::FolderPath(std::string_view key, std::string& path) {
  auto hit = cache_.find(std::string(key));
  if (hit != cache_.end()) {
    path = hit->second;
    return true;
  }
  // Climb until a cached folder or the top, collecting names.
  std::vector<std::string> names;
  std::vector<std::string> keys;
  std::vector<char> image(reader_.layout().size);
  std::string current(key);
  std::string base;
  bool complete = true;
  for (int depth = 0;; ++depth) {
    auto cached = cache_.find(current);
    if (cached != cache_.end()) {
      base = cached->second;
      break;
    }
    if (depth == kMaxDepth || !reader_.ReadByKey(current, image.data())) {
      base = "?";
      complete = false;
      break;
    }
    ImageView folder(reader_.layout(), image.data());
    if (folder.isTop()) {
      names.emplace_back();
      keys.push_back(current);
      base = TopPath(folder.name());
      break;
    }
    names.emplace_back(folder.name());
    keys.push_back(current);
    current = std::string(folder.parentKey());
  }
  if (cache_.size() + keys.size() > kCachedFolders) cache_.clear();
  path = base;
  for (size_t i = names.size(); i-- > 0;) {
    path = JoinPath(path, names[i]);
    if (complete) cache_[keys[i]] = path;
  }
  return complete;
}
