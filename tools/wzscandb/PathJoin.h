// Joining file-system paths the way scans store them.
#pragma once

#include <string>
#include <string_view>

// `dir` + "/" + `name`, without doubling the separator after the root; `dir`
// alone when `name` is empty, `name` alone when `dir` is (relative paths).
inline std::string JoinPath(const std::string& dir, const std::string& name) {
  if (name.empty()) return dir;
  if (dir.empty()) return name;
  if (!dir.empty() && dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

// `out` = JoinPath(dir, name), reusing `out`'s buffer: no allocation once it
// is large enough.
inline void SetJoinedPath(std::string& out, const std::string& dir, std::string_view name) {
  out.assign(dir);
  if (!name.empty()) {
    if (!dir.empty() && dir.back() != '/') out += '/';
    out.append(name.data(), name.size());
  }
}
