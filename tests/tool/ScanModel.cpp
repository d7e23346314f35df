#include "ScanModel.h"

#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

int64_t Nanoseconds(const std::string& text) {  // "1795445994.5404170430"
  size_t dot = text.find('.');
  int64_t seconds = std::stoll(text.substr(0, dot));
  std::string fraction = dot == std::string::npos ? "" : text.substr(dot + 1);
  fraction.resize(9, '0');
  return seconds * 1000000000 + std::stoll(fraction);
}

std::string Join(const std::string& dir, const std::string& name) {
  return dir.empty() ? name : dir + "/" + name;
}

std::vector<std::string> Children(const Tree& tree, const std::string& dir) {
  std::vector<std::string> names;
  const std::string prefix = dir.empty() ? "" : dir + "/";
  for (auto it = tree.lower_bound(prefix); it != tree.end(); ++it) {
    if (it->first.compare(0, prefix.size(), prefix) != 0) break;
    std::string rest = it->first.substr(prefix.size());
    if (!rest.empty() && rest.find('/') == std::string::npos) names.push_back(rest);
  }
  return names;
}

std::vector<std::string> Below(const Tree& tree, const std::string& dir) {
  std::vector<std::string> paths;
  const std::string prefix = dir + "/";
  for (auto it = tree.lower_bound(prefix); it != tree.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it)
    paths.push_back(it->first);
  return paths;
}

std::set<std::string> Reasons(const Attr& before, const Attr& now) {
  std::set<std::string> reasons;
  if (before.size != now.size) reasons.insert("size");
  if (before.mtimeNs != now.mtimeNs) reasons.insert("mtime");
  if (before.ctimeNs != now.ctimeNs) reasons.insert("ctime");
  if (before.type != now.type) reasons.insert("type");
  return reasons;
}

class Expectation {
 public:
  Expectation(const Tree& stored, const Tree& disk, const std::map<std::string, char>& blocked,
              Tree& after)
      : stored_(stored), disk_(disk), blocked_(blocked), after_(after) {}

  ScanSets Run() {
    after_ = stored_;
    Compare("", "", false);
    std::vector<bool> used(departures_.size(), false);
    for (const std::string& arrival : arrivals_) {
      const Attr& now = disk_.at(arrival);
      long pair = -1;
      for (size_t d = 0; d < departures_.size() && pair < 0; ++d) {
        const Attr& before = stored_.at(departures_[d]);
        bool same = !used[d] && before.inode == now.inode && before.dev == now.dev &&
                    (before.type == 'd') == (now.type == 'd') &&
                    (now.type == 'd' || (before.size == now.size && before.mtimeNs == now.mtimeNs));
        if (same) pair = static_cast<long>(d);
      }
      if (pair < 0) {
        AddTree(arrival);
        continue;
      }
      used[pair] = true;
      const std::string& old = departures_[pair];
      sets_.renamed.insert({old, arrival});
      after_.erase(old);
      after_[arrival] = now;
      if (now.type == 'd') Moved(old, arrival);
    }
    for (size_t d = 0; d < departures_.size(); ++d)
      if (!used[d]) RemoveTree(departures_[d], true);
    return sets_;
  }

 private:
  char Blocked(const std::string& dir) const {
    auto it = blocked_.find(dir);
    return it == blocked_.end() ? 0 : it->second;
  }
  // The entry at `old` in the database is on disk at `now`.
  void Compare(const std::string& old, const std::string& now, bool moved) {
    const Attr& before = stored_.at(old);
    const Attr& after = disk_.at(now);
    std::set<std::string> reasons = Reasons(before, after);
    if (!reasons.empty()) sets_.changed[now] = reasons;
    if (before.type == 'd' && after.type != 'd')
      for (const std::string& gone : Below(stored_, old)) Remove(gone);
    if (moved) after_.erase(old);
    after_[now] = after;
    if (after.type != 'd') return;
    if (before.type != 'd')
      AddBelow(now);
    else if (moved)
      Moved(old, now);
    else
      Folder(now);
  }
  // A folder at the same path in the database and on disk.
  void Folder(const std::string& dir) {
    const char blocked = Blocked(dir);
    if (blocked == '0') {
      sets_.unreadable.insert(dir);
      return;
    }
    std::set<std::string> names;
    for (const std::string& name : Children(stored_, dir)) names.insert(name);
    for (const std::string& name : Children(disk_, dir)) names.insert(name);
    for (const std::string& name : names) {
      const std::string path = Join(dir, name);
      const bool onDisk = disk_.count(path) > 0, inDb = stored_.count(path) > 0;
      if (onDisk && blocked == '6')
        sets_.unreadable.insert(path);
      else if (onDisk && inDb)
        Compare(path, path, false);
      else if (onDisk)
        arrivals_.push_back(path);
      else
        departures_.push_back(path);
    }
  }
  // A folder stored under `old` and now on disk at `now`.
  void Moved(const std::string& old, const std::string& now) {
    std::set<std::string> names;
    for (const std::string& name : Children(stored_, old)) names.insert(name);
    for (const std::string& name : Children(disk_, now)) names.insert(name);
    for (const std::string& name : names) {
      const bool onDisk = disk_.count(Join(now, name)) > 0, inDb = stored_.count(Join(old, name)) > 0;
      if (onDisk && inDb)
        Compare(Join(old, name), Join(now, name), true);
      else if (onDisk)
        AddTree(Join(now, name));
      else
        RemoveTree(Join(old, name), true);
    }
  }
  void AddTree(const std::string& path) {
    sets_.added.insert(path);
    after_[path] = disk_.at(path);
    AddBelow(path);
  }
  void AddBelow(const std::string& dir) {
    for (const std::string& path : Below(disk_, dir)) {
      sets_.added.insert(path);
      after_[path] = disk_.at(path);
    }
  }
  void RemoveTree(const std::string& path, bool withTop) {
    if (withTop) Remove(path);
    for (const std::string& gone : Below(stored_, path)) Remove(gone);
  }
  void Remove(const std::string& path) {
    sets_.removed.insert(path);
    after_.erase(path);
  }

  const Tree& stored_;
  const Tree& disk_;
  const std::map<std::string, char>& blocked_;
  Tree& after_;
  ScanSets sets_;
  std::vector<std::string> arrivals_, departures_;
};

std::string Relative(const std::string& path, const std::string& root) {
  if (path == root) return "";
  if (path.compare(0, root.size() + 1, root + "/") != 0) throw std::runtime_error("outside: " + path);
  return path.substr(root.size() + 1);
}

std::string JsonPath(const nlohmann::json& object, const char* field) {
  auto hex = object.find(std::string(field) + "_hex");
  if (hex == object.end()) return object.at(field).get<std::string>();
  std::string bytes, digits = hex->get<std::string>();
  for (size_t i = 0; i + 1 < digits.size(); i += 2) bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  return bytes;
}

void AddChange(ScanSets& sets, const std::string& kind, const std::set<std::string>& reasons,
               const std::string& path, const std::string& old) {
  if (kind == "new") sets.added.insert(path);
  else if (kind == "removed") sets.removed.insert(path);
  else if (kind == "unreadable") sets.unreadable.insert(path);
  else if (kind == "changed") sets.changed[path] = reasons;
  else if (kind == "renamed") sets.renamed.insert({old, path});
  else throw std::runtime_error("unknown change " + kind);
}

}  // namespace

Tree Snapshot(const std::string& root) {
  std::string command = "find '" + root + "' -printf '%y %i %D %s %T@ %C@ %P\\0'";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) throw std::runtime_error("cannot run find");
  std::string text;
  char buffer[65536];
  for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) text.append(buffer, n);
  ::pclose(pipe);
  Tree tree;
  size_t start = 0;
  for (size_t end; (end = text.find('\0', start)) != std::string::npos; start = end + 1) {
    std::istringstream fields(text.substr(start, end - start));
    Attr attr;
    std::string mtime, ctime;
    fields >> attr.type >> attr.inode >> attr.dev >> attr.size >> mtime >> ctime;
    fields.get();  // the blank before the path
    std::string path((std::istreambuf_iterator<char>(fields)), std::istreambuf_iterator<char>());
    attr.mtimeNs = Nanoseconds(mtime);
    attr.ctimeNs = Nanoseconds(ctime);
    tree[path] = attr;
  }
  return tree;
}

ScanSets ExpectScan(const Tree& stored, const Tree& disk, const std::map<std::string, char>& blocked,
                    Tree& storedAfter) {
  return Expectation(stored, disk, blocked, storedAfter).Run();
}

ScanSets ParseJsonReport(const std::string& out, const std::string& root) {
  ScanSets sets;
  for (const std::string& line : SplitLines(out)) {
    nlohmann::json object = nlohmann::json::parse(line);
    if (object.contains("summary")) continue;
    std::set<std::string> reasons;
    for (const auto& reason : object.at("reasons")) reasons.insert(reason.get<std::string>());
    std::string old = object.contains("old_path") ? Relative(JsonPath(object, "old_path"), root) : "";
    AddChange(sets, object.at("change").get<std::string>(), reasons,
              Relative(JsonPath(object, "path"), root), old);
  }
  return sets;
}

ScanSets ParseNullReport(const std::string& out, const std::string& root) {
  ScanSets sets;
  std::vector<std::string> records;
  size_t start = 0;
  for (size_t end; (end = out.find('\0', start)) != std::string::npos; start = end + 1)
    records.push_back(out.substr(start, end - start));
  for (size_t i = 0; i < records.size(); ++i) {
    size_t tab1 = records[i].find('\t'), tab2 = records[i].find('\t', tab1 + 1);
    std::string kind = records[i].substr(0, tab1);
    std::string reasonText = records[i].substr(tab1 + 1, tab2 - tab1 - 1);
    std::set<std::string> reasons;
    std::istringstream split(reasonText);
    for (std::string reason; std::getline(split, reason, ',');)
      if (reason != "-" && kind != "unreadable") reasons.insert(reason);
    std::string old = kind == "renamed" ? Relative(records.at(++i), root) : "";
    AddChange(sets, kind, reasons, Relative(records[i - (kind == "renamed")].substr(tab2 + 1), root), old);
  }
  return sets;
}

Tree ParseWalk(const std::string& out) {
  static const std::map<std::string, char> kTypes = {{"file", 'f'},  {"dir", 'd'},  {"symlink", 'l'},
                                                     {"char", 'c'},  {"block", 'b'}, {"fifo", 'p'},
                                                     {"socket", 's'}};
  Tree tree;
  for (const std::string& line : SplitLines(out)) {
    nlohmann::json object = nlohmann::json::parse(line);
    Attr attr;
    attr.type = kTypes.at(object.at("kind").get<std::string>());
    attr.inode = object.at("inode").get<uint64_t>();
    attr.dev = object.at("dev").get<uint64_t>();
    attr.size = object.at("size").get<int64_t>();
    attr.mtimeNs = object.at("mtime").get<int64_t>() * 1000000000 + object.at("mtime_nsec").get<int64_t>();
    attr.ctimeNs = object.at("ctime").get<int64_t>() * 1000000000 + object.at("ctime_nsec").get<int64_t>();
    tree[JsonPath(object, "path")] = attr;
  }
  return tree;
}

std::string Describe(const ScanSets& sets) {
  std::ostringstream out;
  for (const auto& path : sets.added) out << "new " << path << "\n";
  for (const auto& [path, reasons] : sets.changed) {
    out << "changed " << path << " (";
    for (const auto& reason : reasons) out << reason << " ";
    out << ")\n";
  }
  for (const auto& [old, now] : sets.renamed) out << "renamed " << old << " -> " << now << "\n";
  for (const auto& path : sets.removed) out << "removed " << path << "\n";
  for (const auto& path : sets.unreadable) out << "unreadable " << path << "\n";
  return out.str();
}
