// ScanModel: what a scan must report and store, worked out from snapshots
// of the file system taken with find(1), independently of the database.
//
// A Tree maps paths relative to the scanned directory ("" for the directory
// itself) to what `find -printf` says of them. ExpectScan takes the tree the
// database holds (what the last scan stored), the tree on disk now and the
// folders the scan will not be able to read, and gives the report's lines
// and the tree the database must hold afterwards. Its rules: entries at the same
// path are compared (size, mtime, ctime, kind); entries that appear or vanish
// directly in folders present on both sides pair up as renames by device,
// inode and kind (a file also by size and mtime); everything else below a
// renamed folder is compared old path against new path; what stays unpaired
// is new or removed with everything below it. A blocked folder (mode 000)
// keeps its stored sub-tree and is unreadable; in a folder of mode 0644 each
// listed entry is unreadable and keeps its stored sub-tree.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "ToolFixture.h"

struct Attr {
  char type = 'f';  // find's %y
  uint64_t inode = 0, dev = 0;
  int64_t size = 0, mtimeNs = 0, ctimeNs = 0;
};
using Tree = std::map<std::string, Attr>;

// A scan report as lines: "new P", "removed P", "unreadable P", "renamed OLD
// -> P", "changed P (reason reason)", reasons in order, a set of them.
using Report = std::set<std::string>;
inline std::string Line(const std::string& kind, const std::string& path, const std::string& old,
                        const std::set<std::string>& reasons) {
  std::string line = kind + " " + (kind == "renamed" ? old + " -> " : "") + path;
  if (kind != "changed") return line;
  for (const auto& reason : reasons) line += (reason == *reasons.begin() ? " (" : " ") + reason;
  return line + ")";
}

class ScanExpectation {
 public:
  // blocked: folder -> '0' (mode 000) or '6' (mode 0644).
  ScanExpectation(const Tree& stored, const Tree& disk, const std::map<std::string, char>& blocked)
      : stored_(stored), disk_(disk), blocked_(blocked), after(stored) {
    Compare("", "", false);
    std::vector<bool> used(departures_.size(), false);
    for (const std::string& arrival : arrivals_) {
      const Attr& now = disk_.at(arrival);
      size_t d = 0;
      for (; d < departures_.size(); ++d) {
        const Attr& before = stored_.at(departures_[d]);
        if (!used[d] && before.inode == now.inode && before.dev == now.dev &&
            (before.type == 'd') == (now.type == 'd') &&
            (now.type == 'd' || (before.size == now.size && before.mtimeNs == now.mtimeNs)))
          break;
      }
      if (d == departures_.size()) {
        Add(arrival, true);
        continue;
      }
      used[d] = true;
      report.insert(Line("renamed", arrival, departures_[d], {}));
      after.erase(departures_[d]);
      after[arrival] = now;
      if (now.type == 'd') Moved(departures_[d], arrival);
    }
    for (size_t d = 0; d < departures_.size(); ++d)
      if (!used[d]) Remove(departures_[d], true);
  }

 private:
  static std::string Join(const std::string& dir, const std::string& name) {
    return dir.empty() ? name : dir + "/" + name;
  }
  // Paths below `dir` in `tree`; with `direct`, only the names of its children.
  static std::vector<std::string> Below(const Tree& tree, const std::string& dir, bool direct) {
    std::vector<std::string> found;
    const std::string prefix = dir.empty() ? "" : dir + "/";
    for (auto it = tree.lower_bound(prefix); it != tree.end(); ++it) {
      if (it->first.compare(0, prefix.size(), prefix) != 0) break;
      const std::string rest = it->first.substr(prefix.size());
      if (!rest.empty() && !direct) found.push_back(it->first);
      if (!rest.empty() && direct && rest.find('/') == std::string::npos) found.push_back(rest);
    }
    return found;
  }
  std::set<std::string> Names(const std::string& old, const std::string& now) const {
    std::set<std::string> names;
    for (const std::string& name : Below(stored_, old, true)) names.insert(name);
    for (const std::string& name : Below(disk_, now, true)) names.insert(name);
    return names;
  }
  // The entry at `old` in the database is on disk at `now`.
  void Compare(const std::string& old, const std::string& now, bool moved) {
    const Attr &before = stored_.at(old), &a = disk_.at(now);
    std::set<std::string> reasons;
    if (before.size != a.size) reasons.insert("size");
    if (before.mtimeNs != a.mtimeNs) reasons.insert("mtime");
    if (before.ctimeNs != a.ctimeNs) reasons.insert("ctime");
    if (before.type != a.type) reasons.insert("type");
    if (!reasons.empty()) report.insert(Line("changed", now, "", reasons));
    if (before.type == 'd' && a.type != 'd') Remove(old, false);
    if (moved) after.erase(old);
    after[now] = a;
    if (a.type != 'd') return;
    if (before.type != 'd') Add(now, false);
    else if (moved) Moved(old, now);
    else Folder(now);
  }
  // A folder at the same path in the database and on disk.
  void Folder(const std::string& dir) {
    auto it = blocked_.find(dir);
    const char blocked = it == blocked_.end() ? 0 : it->second;
    if (blocked == '0') {
      report.insert("unreadable " + dir);
      return;
    }
    for (const std::string& name : Names(dir, dir)) {
      const std::string path = Join(dir, name);
      const bool onDisk = disk_.count(path) > 0, inDb = stored_.count(path) > 0;
      if (onDisk && blocked == '6') report.insert("unreadable " + path);
      else if (onDisk && inDb) Compare(path, path, false);
      else (onDisk ? arrivals_ : departures_).push_back(path);
    }
  }
  // A folder stored under `old` and now on disk at `now`.
  void Moved(const std::string& old, const std::string& now) {
    for (const std::string& name : Names(old, now)) {
      const bool onDisk = disk_.count(Join(now, name)) > 0, inDb = stored_.count(Join(old, name)) > 0;
      if (onDisk && inDb) Compare(Join(old, name), Join(now, name), true);
      else if (onDisk) Add(Join(now, name), true);
      else Remove(Join(old, name), true);
    }
  }
  // What is on disk below `path` (and `path` itself with `top`) is new.
  void Add(const std::string& path, bool top) {
    std::vector<std::string> paths = Below(disk_, path, false);
    if (top) paths.push_back(path);
    for (const std::string& p : paths) report.insert("new " + p), after[p] = disk_.at(p);
  }
  // What the database holds below `path` (and `path` with `top`) is removed.
  void Remove(const std::string& path, bool top) {
    std::vector<std::string> paths = Below(stored_, path, false);
    if (top) paths.push_back(path);
    for (const std::string& p : paths) report.insert("removed " + p), after.erase(p);
  }

  const Tree &stored_, &disk_;
  const std::map<std::string, char>& blocked_;
  std::vector<std::string> arrivals_, departures_;

 public:
  Report report;  // what the scan must report
  Tree after;     // what the database must hold afterwards
};

inline int64_t Nanoseconds(const std::string& text) {  // "1795445994.5404170430"
  const size_t dot = text.find('.');
  std::string fraction = dot == std::string::npos ? "" : text.substr(dot + 1);
  fraction.resize(9, '0');
  return std::stoll(text.substr(0, dot)) * 1000000000 + std::stoll(fraction);
}

// find DIR -printf ... through a pipe; paths relative to `root`.
inline Tree Snapshot(const std::string& root) {
  FILE* pipe = ::popen(("find '" + root + "' -printf '%y %i %D %s %T@ %C@ %P\\0'").c_str(), "r");
  if (!pipe) throw std::runtime_error("cannot run find");
  std::string text;
  char buffer[65536];
  for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) text.append(buffer, n);
  ::pclose(pipe);
  Tree tree;
  for (size_t start = 0, end; (end = text.find('\0', start)) != std::string::npos; start = end + 1) {
    std::istringstream fields(text.substr(start, end - start));
    Attr attr;
    std::string mtime, ctime;
    fields >> attr.type >> attr.inode >> attr.dev >> attr.size >> mtime >> ctime;
    fields.get();  // the blank before the path
    attr.mtimeNs = Nanoseconds(mtime);
    attr.ctimeNs = Nanoseconds(ctime);
    tree[std::string(std::istreambuf_iterator<char>(fields), std::istreambuf_iterator<char>())] = attr;
  }
  return tree;
}

inline std::string Relative(const std::string& path, const std::string& root) {
  if (path == root) return "";
  if (path.compare(0, root.size() + 1, root + "/") != 0) throw std::runtime_error("outside: " + path);
  return path.substr(root.size() + 1);
}
// A path field of a JSON line, or the bytes of its "_hex" twin.
inline std::string JsonPath(const nlohmann::json& object, const std::string& field) {
  auto hex = object.find(field + "_hex");
  if (hex == object.end()) return object.at(field).get<std::string>();
  std::string bytes, digits = hex->get<std::string>();
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  return bytes;
}

// The report of `scan --json`, paths made relative to `root`.
inline Report ParseJsonReport(const std::string& out, const std::string& root) {
  Report report;
  for (const std::string& line : SplitLines(out)) {
    nlohmann::json object = nlohmann::json::parse(line);
    if (object.contains("summary")) continue;
    std::set<std::string> reasons;
    for (const auto& reason : object.at("reasons")) reasons.insert(reason.get<std::string>());
    report.insert(Line(object.at("change").get<std::string>(), Relative(JsonPath(object, "path"), root),
                       object.contains("old_path") ? Relative(JsonPath(object, "old_path"), root) : "",
                       reasons));
  }
  return report;
}
// What `walk --json` prints, as a Tree (times, sizes, inodes, kinds).
inline Tree ParseWalk(const std::string& out) {
  static const std::map<std::string, char> kTypes = {
      {"file", 'f'}, {"dir", 'd'}, {"symlink", 'l'}, {"char", 'c'},
      {"block", 'b'}, {"fifo", 'p'}, {"socket", 's'}};
  Tree tree;
  for (const std::string& line : SplitLines(out)) {
    nlohmann::json o = nlohmann::json::parse(line);
    Attr& attr = tree[JsonPath(o, "path")];
    attr.type = kTypes.at(o.at("kind").get<std::string>());
    attr.inode = o.at("inode").get<uint64_t>();
    attr.dev = o.at("dev").get<uint64_t>();
    attr.size = o.at("size").get<int64_t>();
    attr.mtimeNs = o.at("mtime").get<int64_t>() * 1000000000 + o.at("mtime_nsec").get<int64_t>();
    attr.ctimeNs = o.at("ctime").get<int64_t>() * 1000000000 + o.at("ctime_nsec").get<int64_t>();
  }
  return tree;
}
