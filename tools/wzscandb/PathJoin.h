// Joining file-system paths the way scans store them.
#pragma once

#include <string>

// `dir` + "/" + `name`, without doubling the separator after the root; `dir`
// alone when `name` is empty, `name` alone when `dir` is (relative paths).
inline std::string JoinPath(const std::string& dir, const std::string& name) {
  if (name.empty()) return dir;
  if (dir.empty()) return name;
  if (!dir.empty() && dir.back() == '/') return dir + name;
  return dir + "/" + name;
}
