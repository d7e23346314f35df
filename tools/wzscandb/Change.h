// Change: one line of a scan's change report, and why the entry changed.
//
// new        the entry was not in the database
// changed    it was, with another size, modification or status-change time,
//            or kind (file, folder, ...): `reasons` says which
// renamed    it was, under `oldPath` (same device and inode, same kind; for a
//            file also the same size and modification time)
// removed    it is gone, or left out by --exclude/-x ("excluded" reason)
// unreadable it could not be read; `error` says why, and what the database
//            holds for it (and below it) is kept as it was
#pragma once

#include <sys/stat.h>

#include <string>

enum class ChangeKind { kNew = 0, kChanged, kRenamed, kRemoved, kUnreadable };
constexpr int kChangeKinds = 5;

enum ChangeReason : unsigned {
  kReasonSize = 1,
  kReasonMtime = 2,
  kReasonCtime = 4,
  kReasonType = 8,
  kReasonExcluded = 16,
};

struct Change {
  ChangeKind kind = ChangeKind::kNew;
  unsigned reasons = 0;
  std::string path;     // where the entry is now (removed: where it was)
  std::string oldPath;  // renamed: where it was
  struct stat st = {};  // its status now (removed: as stored)
  bool isDir = false;
  std::string error;    // unreadable: the system's reason
};

// "new", "changed", "renamed", "removed", "unreadable".
const char* ChangeKindName(ChangeKind kind);
// The kind named `name`; false when there is none.
bool ChangeKindFromName(const std::string& name, ChangeKind& kind);

// The reasons that tell `before` (stored) from `now`.
unsigned CompareStat(const struct stat& before, bool wasDir, const struct stat& now, bool isDir);

// "size", "mtime", "ctime", "type", "excluded", in that order, joined by
// `separator`; empty for none.
std::string ReasonsText(unsigned reasons, const char* separator);
// The reason named `name`, or 0.
unsigned ReasonFromName(const std::string& name);
