#include "TreeScanner.h"

#include <cerrno>
#include <cstring>

#include "PathJoin.h"
#include "ToolError.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"

namespace {

// Arrivals and departures kept for pairing, each (a few tens of MB at most).
constexpr size_t kRenameCandidates = 32768;
// Listings the reader threads may hold ahead of the writer, per thread.
constexpr size_t kPrefetchPerThread = 8;

// A Lustre record whose FID lookup failed carries the empty FID, which is the
// root's key: storing it would overwrite the root.
bool HasIdentity(RecordType type, WzScanDBRecordBase& record) {
  if (type != RecordType::kLustre) return true;
  return !static_cast<SLustreRecord*>(record.getStructure())->FID.empty();
}

bool SameInode(const ImageView& stored, const struct stat& now) {
  struct stat before = stored.stat();
  return before.st_ino == now.st_ino && before.st_dev == now.st_dev;
}

}  // namespace

TreeScanner::TreeScanner(ScanDatabase* database, RecordType type, ScanWriter& writer,
                         ListingSource& listings, const EntryFilter& filter, uint32_t refTime,
                         ChangeReport& report, ScanProgress& progress)
    : database_(database), type_(type), layout_(RecordLayout::Of(type)), writer_(writer),
      listings_(listings), filter_(filter), refTime_(refTime), report_(report),
      progress_(progress), candidates_(type, kRenameCandidates) {
  if (database_) reader_.reset(new TableReader(*database_));
}

void TreeScanner::Run(const std::string& dir) {
  struct stat st;
  if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    throw ToolError(kExitNotFound, dir + " is not a directory");
  if (!writer_.dryRun()) AddRootAndAncestors(dir);

  WzScanDBRecordBasePtr made = MakeEntryRecord(type_, dir, true, refTime_);
  if (!HasIdentity(type_, *made))
    throw ToolError(kExitFailed, "cannot record " + dir + ": it has no identity of type " +
                                     RecordTypeName(type_));
  WzScanDBRecordBasePtr stored = database_ ? database_->Lookup(made) : WzScanDBRecordBasePtr();
  const char* source = static_cast<const char*>((stored ? stored : made)->getStructure());
  std::vector<char> image(source, source + layout_.size);
  ImageView before(layout_, image.data());
  const bool wasDir = stored && before.isDir();
  const unsigned reasons = stored ? CompareStat(before.stat(), before.isDir(), st, true) : 0;
  SetImageStat(layout_, image.data(), st);
  SetImageRef(layout_, image.data(), refTime_);
  SetImageDir(layout_, image.data(), true);
  if (stored) {
    writer_.Update(image.data(), dir);
    if (reasons) Report(ChangeKind::kChanged, reasons, dir, st, true);
  } else {
    writer_.Add(image.data(), dir);
    Report(ChangeKind::kNew, 0, dir, st, true);
  }
  Count(true);
  stack_.push_back(FolderTask(dir, image, wasDir ? image : std::vector<char>(), dir, false, st));
  Drain();
  ResolveCandidates();
}

void TreeScanner::AddRootAndAncestors(const std::string& dir) {
  WzScanDB& db = database_->db();
  struct stat st;
  WzScanDBRecordBasePtr root = db.getRoot()->Clone();
  if (::lstat("/", &st) == 0) SetStat(type_, *root, st);
  root->setRefTime(refTime_);
  if (type_ == RecordType::kLustre) {
    // The Lustre root has the empty FID as its own key and as its parent's,
    // so it lists itself among its children: with the directory bit set a
    // tree walk would expand it again and again. It is stored as a plain
    // record; walks start from it whatever its bit says.
    ThrowIfError(db.addDBRecord(root), "cannot record the root");
  } else {
    ThrowIfError(db.addFolder(root), "cannot record /");
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
    WzScanDBRecordBasePtr record = MakeEntryRecord(type_, ancestor, true, refTime_);
    // Above a Lustre mount point there are no FIDs: the mount point's parent
    // FID is empty, which links it to the root directly.
    if (!HasIdentity(type_, *record)) continue;
    SetStat(type_, *record, st);
    ThrowIfError(db.addFolder(record), "cannot record " + ancestor);
  }
}

TreeScanner::Task TreeScanner::FolderTask(const std::string& path, const std::vector<char>& image,
                                          const std::vector<char>& baseline,
                                          const std::string& basePath, bool rekey,
                                          const struct stat& st) const {
  Task task;
  task.path = path;
  task.folder = image;
  task.baseline = baseline;
  task.basePath = basePath;
  task.rekey = rekey;
  task.contentsExcluded = filter_.ContentsExcluded(st.st_dev);
  return task;
}

void TreeScanner::Prefetch() {
  if (!listings_.threaded()) return;
  const size_t window = kPrefetchPerThread * 4;
  for (auto it = stack_.rbegin(); it != stack_.rend(); ++it) {
    if (listings_.outstanding() >= window) break;
    if (it->removeOnly || it->contentsExcluded || it->requested) continue;
    listings_.Prefetch(it->path, it->baseline.empty());
    it->requested = true;
  }
}

void TreeScanner::Drain() {
  std::vector<Task> subTasks;
  while (!stack_.empty()) {
    Prefetch();
    Task task = std::move(stack_.back());
    stack_.pop_back();
    if (task.removeOnly) {
      writer_.Remove(task.folder.data(), task.path);
      continue;
    }
    subTasks.clear();
    bool listed = ProcessFolder(task, subTasks);
    // A moved folder's old record goes once everything below it has moved;
    // one that could not be listed keeps its old place and contents.
    if (task.rekey && listed) {
      Task remove;
      remove.removeOnly = true;
      remove.path = task.basePath;
      remove.folder = std::move(task.baseline);
      stack_.push_back(std::move(remove));
    }
    for (auto it = subTasks.rbegin(); it != subTasks.rend(); ++it) stack_.push_back(std::move(*it));
  }
}

bool TreeScanner::ProcessFolder(const Task& task, std::vector<Task>& subTasks) {
  ImageList stored;
  if (!task.baseline.empty()) reader_->ReadChildren(task.baseline.data(), stored);
  if (task.contentsExcluded) {
    for (size_t j = 0; j < stored.size(); ++j)
      RemoveTree(stored.at(j),
                 JoinPath(task.basePath, std::string(ImageView(layout_, stored.at(j)).name())),
                 kReasonExcluded, true);
    return true;
  }
  DirectoryListing listing = listings_.Take(task.path, task.baseline.empty());
  if (listing.openError) {
    Unreadable(task.path, std::strerror(listing.openError));
    return false;
  }

  const std::vector<ListedEntry>& entries = listing.entries;
  size_t i = 0, j = 0;
  std::string path, oldPath;
  while (i < entries.size() || j < stored.size()) {
    int order;
    if (i == entries.size()) {
      order = 1;
    } else if (j == stored.size()) {
      order = -1;
    } else {
      std::string_view a = entries[i].name, b = ImageView(layout_, stored.at(j)).name();
      order = a < b ? -1 : b < a ? 1 : 0;
    }
    const ListedEntry* entry = order <= 0 ? &entries[i] : nullptr;
    const char* record = order >= 0 ? stored.at(j) : nullptr;
    const std::string_view name = entry ? std::string_view(entry->name) : ImageView(layout_, record).name();
    SetJoinedPath(path, task.path, name);
    SetJoinedPath(oldPath, task.basePath, name);
    if (order <= 0) ++i;
    if (order >= 0) ++j;

    if (entry && entry->statError == ENOENT) entry = nullptr;  // gone since it was listed
    if (!entry) {
      // A listing that broke off proves nothing about what it did not list.
      if (record && !listing.readError) Departed(record, oldPath);
      continue;
    }
    if (entry->excluded) {
      if (record) RemoveTree(record, oldPath, kReasonExcluded, true);
      continue;
    }
    if (entry->statError) {
      Unreadable(path, std::strerror(entry->statError));
      continue;
    }
    if (record && type_ == RecordType::kLustre && !SameInode(ImageView(layout_, record), entry->st)) {
      // Another entry under the same name: a Lustre record is its FID.
      Departed(record, oldPath);
      record = nullptr;
    }
    if (record)
      Matched(task, *entry, record, path, oldPath, subTasks);
    else
      Arrived(task, *entry, path, subTasks);
  }
  if (listing.readError)
    Unreadable(task.path, std::string("the listing broke off: ") + std::strerror(listing.readError));
  return true;
}

void TreeScanner::Matched(const Task& parent, const ListedEntry& entry, const char* stored,
                          const std::string& path, const std::string& oldPath,
                          std::vector<Task>& subTasks) {
  ImageView before(layout_, stored);
  const struct stat& st = entry.st;
  const bool isDir = S_ISDIR(st.st_mode);
  const bool wasDir = before.isDir();
  const unsigned reasons = CompareStat(before.stat(), wasDir, st, isDir);
  if (wasDir && !isDir) RemoveTree(stored, oldPath, kReasonType, false);

  std::vector<char>& image = image_;
  image.assign(stored, stored + layout_.size);
  SetImageStat(layout_, image.data(), st);
  SetImageRef(layout_, image.data(), refTime_);
  SetImageDir(layout_, image.data(), isDir);
  if (parent.rekey) {
    char key[24];
    const char* identity = entry.hasIdentity ? entry.identity : nullptr;
    if (!identity && !IdentityOf(type_, path, key)) {
      Unreadable(path, std::string("no identity of type ") + RecordTypeName(type_));
      return;
    }
    SetImageKey(layout_, image.data(), std::string_view(identity ? identity : key, layout_.keyLength));
    SetImageParentKey(layout_, image.data(), ImageView(layout_, parent.folder.data()).key());
    writer_.Add(image.data(), path);
    if (!(wasDir && isDir)) writer_.Remove(stored, oldPath);
  } else {
    writer_.Update(image.data(), path);
  }
  if (reasons) Report(ChangeKind::kChanged, reasons, path, st, isDir);
  Count(isDir);
  if (!isDir) return;
  if (wasDir && parent.rekey)
    subTasks.push_back(FolderTask(path, image, std::vector<char>(stored, stored + layout_.size),
                                  oldPath, true, st));
  else
    subTasks.push_back(FolderTask(path, image, wasDir ? image : std::vector<char>(), path, false, st));
}

void TreeScanner::Arrived(const Task& parent, const ListedEntry& entry, const std::string& path,
                          std::vector<Task>& subTasks) {
  std::string_view parentKey = ImageView(layout_, parent.folder.data()).key();
  // Renames pair entries of folders that the table held as they are: in a
  // new folder everything is new.
  if (!resolving_ && !parent.baseline.empty()) {
    Arrival arrival;
    arrival.path = path;
    arrival.name = entry.name;
    arrival.st = entry.st;
    arrival.parentKey = std::string(parentKey);
    arrival.hasIdentity = entry.hasIdentity;
    std::memcpy(arrival.identity, entry.identity, sizeof(arrival.identity));
    if (candidates_.AddArrival(std::move(arrival))) return;
  }
  AddNew(parentKey, path, entry.name, entry.st, entry.hasIdentity ? entry.identity : nullptr, subTasks);
}

void TreeScanner::Departed(const char* stored, const std::string& path) {
  if (!resolving_) {
    ImageView view(layout_, stored);
    Departure departure{path, std::vector<char>(stored, stored + layout_.size)};
    if (candidates_.AddDeparture(std::move(departure), view.stat(), view.isDir())) return;
  }
  RemoveTree(stored, path, 0, true);
}

void TreeScanner::AddNew(std::string_view parentKey, const std::string& path, const std::string& name,
                         const struct stat& st, const char* identity, std::vector<Task>& subTasks) {
  char key[24];
  if (!identity) {
    if (!IdentityOf(type_, path, key)) {
      Unreadable(path, std::string("no identity of type ") + RecordTypeName(type_));
      return;
    }
    identity = key;
  }
  const bool isDir = S_ISDIR(st.st_mode);
  std::vector<char>& image = image_;
  image.assign(layout_.size, 0);
  SetImageKey(layout_, image.data(), std::string_view(identity, layout_.keyLength));
  SetImageParentKey(layout_, image.data(), parentKey);
  SetImageName(layout_, image.data(), name);
  SetImageStat(layout_, image.data(), st);
  SetImageRef(layout_, image.data(), refTime_);
  SetImageDir(layout_, image.data(), isDir);
  writer_.Add(image.data(), path);
  Report(ChangeKind::kNew, 0, path, st, isDir);
  Count(isDir);
  if (isDir) subTasks.push_back(FolderTask(path, image, std::vector<char>(), path, false, st));
}

void TreeScanner::RemoveTree(const char* image, const std::string& path, unsigned reasons,
                             bool withTop) {
  ImageView top(layout_, image);
  if (withTop) Report(ChangeKind::kRemoved, reasons, path, top.stat(), top.isDir());
  if (!top.isDir()) {
    if (withTop) writer_.Remove(image, path);
    return;
  }
  // Depth first; a folder's record goes after everything below it, so the
  // table holds a connected tree at every step.
  struct Frame {
    std::vector<char> folder;
    std::string path;
    ImageList children;
    size_t next = 0;
  };
  std::vector<Frame> frames;
  auto push = [&](const char* folder, const std::string& folderPath) {
    frames.emplace_back();
    frames.back().folder.assign(folder, folder + layout_.size);
    frames.back().path = folderPath;
    reader_->ReadChildren(folder, frames.back().children);
  };
  push(image, path);
  while (!frames.empty()) {
    Frame& frame = frames.back();
    if (frame.next < frame.children.size()) {
      const char* child = frame.children.at(frame.next++);
      ImageView view(layout_, child);
      std::string childPath = JoinPath(frame.path, std::string(view.name()));
      Report(ChangeKind::kRemoved, reasons, childPath, view.stat(), view.isDir());
      if (view.isDir()) {
        std::vector<char> copy(child, child + layout_.size);
        push(copy.data(), childPath);  // may move `frame`
      } else {
        writer_.Remove(child, childPath);
      }
      continue;
    }
    if (frames.size() > 1 || withTop) writer_.Remove(frame.folder.data(), frame.path);
    frames.pop_back();
  }
}

void TreeScanner::ResolveCandidates() {
  resolving_ = true;
  const std::vector<long> pairs = candidates_.Pair();
  const std::vector<Arrival>& arrivals = candidates_.arrivals();
  const std::vector<Departure>& departures = candidates_.departures();
  std::vector<bool> used(departures.size(), false);
  std::vector<Task> subTasks;
  for (size_t a = 0; a < arrivals.size(); ++a) {
    const Arrival& arrival = arrivals[a];
    subTasks.clear();
    if (pairs[a] < 0) {
      AddNew(arrival.parentKey, arrival.path, arrival.name, arrival.st,
             arrival.hasIdentity ? arrival.identity : nullptr, subTasks);
    } else {
      const Departure& departure = departures[static_cast<size_t>(pairs[a])];
      used[static_cast<size_t>(pairs[a])] = true;
      ImageView before(layout_, departure.image.data());
      const struct stat& st = arrival.st;
      const bool isDir = S_ISDIR(st.st_mode);
      Report(ChangeKind::kRenamed, CompareStat(before.stat(), before.isDir(), st, isDir),
             arrival.path, st, isDir, departure.path);
      Count(isDir);
      std::vector<char> image = departure.image;
      SetImageParentKey(layout_, image.data(), arrival.parentKey);
      SetImageName(layout_, image.data(), arrival.name);
      SetImageStat(layout_, image.data(), st);
      SetImageRef(layout_, image.data(), refTime_);
      if (type_ == RecordType::kLustre) {
        // Same FID: the record stays, with its new parent and name.
        writer_.Update(image.data(), arrival.path);
        if (isDir) subTasks.push_back(FolderTask(arrival.path, image, image, arrival.path, false, st));
      } else {
        char key[24];
        if (!arrival.hasIdentity) IdentityOf(type_, arrival.path, key);
        SetImageKey(layout_, image.data(),
                    std::string_view(arrival.hasIdentity ? arrival.identity : key, layout_.keyLength));
        writer_.Add(image.data(), arrival.path);
        if (isDir)
          subTasks.push_back(
              FolderTask(arrival.path, image, departure.image, departure.path, true, st));
        else
          writer_.Remove(departure.image.data(), departure.path);
      }
    }
    for (auto it = subTasks.rbegin(); it != subTasks.rend(); ++it) stack_.push_back(std::move(*it));
    Drain();
  }

  std::vector<char> now(layout_.size);
  for (size_t d = 0; d < departures.size(); ++d) {
    if (used[d]) continue;
    const Departure& departure = departures[d];
    ImageView before(layout_, departure.image.data());
    // A Lustre record keeps its FID when it moves: one that reappeared
    // elsewhere was rewritten there and is not gone.
    if (type_ == RecordType::kLustre && !writer_.dryRun()) {
      if (!reader_->ReadByKey(before.key(), now.data())) continue;
      ImageView current(layout_, now.data());
      if (current.parentKey() != before.parentKey() || current.name() != before.name()) continue;
    }
    RemoveTree(departure.image.data(), departure.path, 0, true);
  }
}

void TreeScanner::Unreadable(const std::string& path, const std::string& why) {
  ++totals_.unreadable;
  change_.kind = ChangeKind::kUnreadable;
  change_.reasons = 0;
  change_.path = path;
  change_.oldPath.clear();
  change_.error = why;
  change_.st = {};
  change_.isDir = false;
  report_.Add(change_);
  progress_.Note("cannot read " + path + ": " + why + " (its records are kept)");
}

void TreeScanner::Report(ChangeKind kind, unsigned reasons, const std::string& path,
                         const struct stat& st, bool isDir, const std::string& oldPath) {
  change_.kind = kind;
  change_.reasons = reasons;
  change_.path = path;
  change_.oldPath = oldPath;
  change_.error.clear();
  change_.st = st;
  change_.isDir = isDir;
  report_.Add(change_);
}

void TreeScanner::Count(bool isDir) {
  ++totals_.entries;
  if (isDir)
    ++totals_.folders;
  else
    ++totals_.files;
  progress_.Tick(totals_.entries);
}
