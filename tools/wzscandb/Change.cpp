#include "Change.h"

namespace {

const char* const kKindNames[kChangeKinds] = {"new", "changed", "renamed", "removed", "unreadable"};

struct ReasonName {
  unsigned reason;
  const char* name;
};
const ReasonName kReasons[] = {{kReasonSize, "size"},
                               {kReasonMtime, "mtime"},
                               {kReasonCtime, "ctime"},
                               {kReasonType, "type"},
                               {kReasonExcluded, "excluded"}};

bool SameTime(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool IsDirMode(const struct stat& st, bool isDir) { return isDir || S_ISDIR(st.st_mode); }

}  // namespace

const char* ChangeKindName(ChangeKind kind) { return kKindNames[static_cast<int>(kind)]; }

bool ChangeKindFromName(const std::string& name, ChangeKind& kind) {
  for (int i = 0; i < kChangeKinds; ++i) {
    if (name == kKindNames[i]) {
      kind = static_cast<ChangeKind>(i);
      return true;
    }
  }
  return false;
}

unsigned CompareStat(const struct stat& before, bool wasDir, const struct stat& now, bool isDir) {
  unsigned reasons = 0;
  if (before.st_size != now.st_size) reasons |= kReasonSize;
  if (!SameTime(before.st_mtim, now.st_mtim)) reasons |= kReasonMtime;
  if (!SameTime(before.st_ctim, now.st_ctim)) reasons |= kReasonCtime;
  bool kindsKnown = (before.st_mode & S_IFMT) != 0;
  if (IsDirMode(before, wasDir) != IsDirMode(now, isDir) ||
      (kindsKnown && (before.st_mode & S_IFMT) != (now.st_mode & S_IFMT)))
    reasons |= kReasonType;
  return reasons;
}

std::string ReasonsText(unsigned reasons, const char* separator) {
  std::string text;
  for (const ReasonName& each : kReasons) {
    if (!(reasons & each.reason)) continue;
    if (!text.empty()) text += separator;
    text += each.name;
  }
  return text;
}

unsigned ReasonFromName(const std::string& name) {
  for (const ReasonName& each : kReasons)
    if (name == each.name) return each.reason;
  return 0;
}
