#include "FindTests.h"

#include <fnmatch.h>

#include <cerrno>
#include <cstring>

#include "EntryJson.h"
#include "Numbers.h"
#include "ToolError.h"

FindTests::Compare FindTests::ParseCompare(const std::string& text, const char* test) {
  Compare compare;
  compare.set = true;
  std::string digits = text;
  if (!digits.empty() && (digits[0] == '+' || digits[0] == '-')) {
    compare.sign = digits[0] == '+' ? 1 : -1;
    digits.erase(0, 1);
  }
  compare.value = ParseCount(digits, test);
  return compare;
}

bool FindTests::Compare::Holds(uint64_t measured) const {
  if (sign > 0) return measured > value;
  if (sign < 0) return measured < value;
  return measured == value;
}

void FindTests::SetName(const std::string& glob, bool ignoreCase) {
  name_ = glob;
  ignoreCase_ = ignoreCase;
}

void FindTests::SetType(const std::string& kinds) {
  for (char c : kinds) {
    if (c == ',') continue;
    if (std::strchr("fdlcbps", c) == nullptr)
      throw ToolError(kExitNotFound, std::string("-type: unknown kind '") + c + "' (f d l c b p s)");
    kinds_ += c;
  }
  if (kinds_.empty()) throw ToolError(kExitNotFound, "-type needs a kind (f d l c b p s)");
}

void FindTests::SetSize(const std::string& text) {
  std::string number = text;
  uint64_t unit = 512;
  if (!number.empty()) {
    switch (number.back()) {
      case 'c': unit = 1; break;
      case 'b': unit = 512; break;
      case 'k': unit = 1024; break;
      case 'M': unit = 1024 * 1024; break;
      case 'G': unit = 1024 * 1024 * 1024; break;
      default: unit = 0; break;
    }
    if (unit) number.pop_back();
    else unit = 512;
  }
  size_ = ParseCompare(number, "-size");
  size_.unit = unit;
}

void FindTests::SetNewer(const std::string& file) {
  struct stat st;
  if (::stat(file.c_str(), &st) != 0)
    throw ToolError(kExitNotFound, "-newer: cannot read the status of " + file + ": " + std::strerror(errno));
  newerSet_ = true;
  newer_ = st.st_mtim;
}

bool FindTests::Matches(const std::string& name, const std::string& path, const struct stat& st,
                        bool isDir) const {
  if (!name_.empty() && fnmatch(name_.c_str(), name.c_str(), ignoreCase_ ? FNM_CASEFOLD : 0) != 0)
    return false;
  if (!path_.empty() && fnmatch(path_.c_str(), path.c_str(), 0) != 0) return false;
  if (!kinds_.empty() && kinds_.find(KindLetter(st, isDir)) == std::string::npos) return false;
  if (size_.set) {
    uint64_t bytes = static_cast<uint64_t>(st.st_size);
    if (!size_.Holds((bytes + size_.unit - 1) / size_.unit)) return false;
  }
  time_t age = now_ - st.st_mtim.tv_sec;
  uint64_t ageSeconds = age > 0 ? static_cast<uint64_t>(age) : 0;
  if (mmin_.set && !mmin_.Holds(ageSeconds / 60)) return false;
  if (mtime_.set && !mtime_.Holds(ageSeconds / 86400)) return false;
  if (newerSet_) {
    bool newer = st.st_mtim.tv_sec > newer_.tv_sec ||
                 (st.st_mtim.tv_sec == newer_.tv_sec && st.st_mtim.tv_nsec > newer_.tv_nsec);
    if (!newer) return false;
  }
  return true;
}
