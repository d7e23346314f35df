#include "TreeScanner.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "ToolError.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"

namespace {

// Records of the sub-tree walk per batch; the library's own batch bound.
constexpr int kWalkBatch = 10000;

bool SameTime(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool StatChanged(const struct stat& before, const struct stat& now) {
  return before.st_size != now.st_size || !SameTime(before.st_mtim, now.st_mtim) ||
         !SameTime(before.st_ctim, now.st_ctim);
}

// A Lustre record whose FID lookup failed carries the empty FID, which is the
// root's key: storing it would overwrite the root.
bool HasIdentity(RecordType type, WzScanDBRecordBase& record) {
  if (type != RecordType::kLustre) return true;
  return !static_cast<SLustreRecord*>(record.getStructure())->FID.empty();
}

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

}  // namespace

std::string JoinPath(const std::string& dir, const std::string& name) {
  if (name.empty()) return dir;
  if (!dir.empty() && dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

TreeScanner::TreeScanner(ScanDatabase& database, ChangeReport& report, ScanProgress& progress)
    : database_(database), db_(database.db()), type_(database.type()), report_(report),
      progress_(progress) {}

void TreeScanner::Run(const std::string& dir) {
  struct stat st;
  if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    throw ToolError(kExitNotFound, dir + " is not a directory");
  AddRootAndAncestors(dir);
  if (!RecordEntry(dir, st))
    throw ToolError(kExitFailed, "cannot record " + dir + ": it has no identity of type " +
                                     RecordTypeName(type_));

  std::vector<std::string> pending{dir};
  std::vector<std::string> found;
  while (!pending.empty()) {
    std::string path = std::move(pending.back());
    pending.pop_back();
    found.clear();
    ScanDirectory(path, found);
    // Reversed onto the stack, so that folders are entered in name order.
    for (auto it = found.rbegin(); it != found.rend(); ++it) pending.push_back(std::move(*it));
  }
  RemoveDisappeared(dir);
}

void TreeScanner::Add(const WzScanDBRecordBasePtr& record, bool isDir, const std::string& path) {
  CKoError error = isDir ? db_.addFolder(record) : db_.addFile(record);
  ThrowIfError(error, "cannot record " + path);
}

void TreeScanner::AddRootAndAncestors(const std::string& dir) {
  struct stat st;
  WzScanDBRecordBasePtr root = db_.getRoot()->Clone();
  if (::lstat("/", &st) == 0) SetStat(type_, *root, st);
  if (type_ == RecordType::kLustre) {
    // The Lustre root has the empty FID as its own key and as its parent's,
    // so it lists itself among its children: with the directory bit set a
    // tree walk would expand it again and again. It is stored as a plain
    // record; walks start from it whatever its bit says.
    root->setRefTime(db_.getRefTime());
    ThrowIfError(db_.addDBRecord(root), "cannot record the root");
  } else {
    Add(root, true, "/");
  }

  // "/" first: for generic records it is the root itself; a Lustre "/" has a
  // FID only when "/" is on Lustre.
  std::vector<std::string> ancestors{"/"};
  for (size_t next = 1; (next = dir.find('/', next)) != std::string::npos; ++next)
    ancestors.push_back(dir.substr(0, next));
  for (const std::string& ancestor : ancestors) {
    if (ancestor == dir) break;
    if (::lstat(ancestor.c_str(), &st) != 0)
      throw ToolError(kExitFailed, "cannot read the status of " + ancestor + ": " + std::strerror(errno));
    WzScanDBRecordBasePtr record = MakeEntryRecord(type_, ancestor, true, db_.getRefTime());
    // Above a Lustre mount point there are no FIDs: the mount point's parent
    // FID is empty, which links it to the root directly.
    if (!HasIdentity(type_, *record)) continue;
    SetStat(type_, *record, st);
    Add(record, true, ancestor);
  }
}

bool TreeScanner::RecordEntry(const std::string& path, const struct stat& st) {
  bool isDir = S_ISDIR(st.st_mode);
  WzScanDBRecordBasePtr record = MakeEntryRecord(type_, path, isDir, db_.getRefTime());
  if (!HasIdentity(type_, *record)) {
    ++totals_.unreadable;
    progress_.Note("cannot record " + path + ": no Lustre FID");
    return false;
  }
  SetStat(type_, *record, st);

  WzScanDBRecordBasePtr stored = database_.Lookup(record);
  if (!stored) {
    report_.Add(ChangeReport::kNew, path);
  } else {
    if (stored->isDir() && !isDir) RemoveFolderContents(stored, path);
    struct stat before = GetStat(type_, *stored);
    if (StatChanged(before, st) || stored->isDir() != isDir) report_.Add(ChangeReport::kChanged, path);
  }
  Add(record, isDir, path);

  ++totals_.entries;
  if (isDir)
    ++totals_.folders;
  else
    ++totals_.files;
  progress_.Tick(totals_.entries);
  return true;
}

void TreeScanner::ScanDirectory(const std::string& path, std::vector<std::string>& folders) {
  int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return;  // gone since it was listed: its records are removed below
    ++totals_.unreadable;
    unreadable_.insert(path);
    progress_.Note("cannot read directory " + path + ": " + std::strerror(errno) + " (skipped)");
    return;
  }
  std::unique_ptr<DIR, DirCloser> stream(::fdopendir(fd));
  if (!stream) {
    ::close(fd);
    ++totals_.unreadable;
    unreadable_.insert(path);
    progress_.Note("cannot read directory " + path + ": " + std::strerror(errno) + " (skipped)");
    return;
  }

  std::vector<std::string> names;
  errno = 0;
  while (struct dirent* entry = ::readdir(stream.get())) {
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    names.emplace_back(name);
  }
  if (errno != 0) {
    ++totals_.unreadable;
    unreadable_.insert(path);
    progress_.Note("error while reading directory " + path + ": " + std::strerror(errno) +
                   " (its missing entries are kept)");
  }
  std::sort(names.begin(), names.end());

  for (const std::string& name : names) {
    struct stat st;
    std::string child = JoinPath(path, name);
    if (child == excluded_) continue;
    if (::fstatat(dirfd(stream.get()), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;  // removed while we looked
      ++totals_.unreadable;
      progress_.Note("cannot read the status of " + child + ": " + std::strerror(errno) + " (skipped)");
      continue;
    }
    if (RecordEntry(child, st) && S_ISDIR(st.st_mode)) folders.push_back(child);
  }
}

void TreeScanner::RemoveFolderContents(const WzScanDBRecordBasePtr& stored, const std::string& path) {
  std::vector<WzScanDBRecordBasePtr> records;
  std::vector<std::string> paths;
  bool more = false;
  do {
    ThrowIfError(db_.getSubTree(stored, records, paths, kWalkBatch, more),
                 "cannot walk the old folder " + path);
    for (const std::string& relative : paths) report_.Add(ChangeReport::kRemoved, JoinPath(path, relative));
    more = true;
  } while (!records.empty());
  ThrowIfError(db_.removeFolder(stored), "cannot remove the old folder " + path);
}

bool TreeScanner::BelowUnreadable(const std::string& path) const {
  if (unreadable_.empty()) return false;
  std::string parent = path;
  for (;;) {
    size_t slash = parent.rfind('/');
    if (slash == std::string::npos || slash == 0) return false;
    parent.resize(slash);
    if (unreadable_.count(parent)) return true;
  }
}

void TreeScanner::RemoveDisappeared(const std::string& dir) {
  WzScanDBRecordBasePtr start = database_.Lookup(MakeEntryRecord(type_, dir, true, 0));
  if (!start) throw ToolError(kExitFailed, dir + " vanished from the database during the scan");

  // Collect first: removing a folder runs a sub-tree walk of its own, which
  // would replace the walk in progress.
  struct Gone {
    WzScanDBRecordBasePtr record;
    std::string path;
  };
  std::vector<Gone> gone;
  std::vector<WzScanDBRecordBasePtr> records;
  std::vector<std::string> paths;
  const unsigned long long refTime = db_.getRefTime();
  bool more = false;
  do {
    ThrowIfError(db_.getSubTree(start, records, paths, kWalkBatch, more),
                 "cannot walk " + dir + " in the database");
    for (size_t i = 0; i < records.size(); ++i) {
      if (records[i]->getRefTime() >= refTime) continue;
      std::string path = JoinPath(dir, paths[i]);
      if (!BelowUnreadable(path)) gone.push_back({records[i], path});
    }
    more = true;
  } while (!records.empty());

  // Breadth-first order: a folder comes before everything below it, and
  // removeFolder takes its whole sub-tree with it.
  std::unordered_set<std::string> removedFolders;
  for (const Gone& entry : gone) {
    report_.Add(ChangeReport::kRemoved, entry.path);
    std::string parent = entry.path.substr(0, entry.path.rfind('/'));
    bool covered = false;
    for (std::string p = parent; !p.empty(); p.resize(p.rfind('/'))) {
      if (removedFolders.count(p)) {
        covered = true;
        break;
      }
    }
    if (covered) continue;
    if (entry.record->isDir()) {
      ThrowIfError(db_.removeFolder(entry.record), "cannot remove " + entry.path);
      removedFolders.insert(entry.path);
    } else {
      ThrowIfError(db_.removeFile(entry.record), "cannot remove " + entry.path);
    }
  }
}
