// FindTests: the tests of `wzscandb find`, as find(1) spells them, on an
// entry of the database. All given tests must hold (they are and-ed). -type is spelt --kind here, since
// --type names the database's record type.
//
//   name/iname GLOB   the entry's name matches (iname: ignoring case)
//   path GLOB         its full path matches ("*" also matches "/")
//   kind KINDS        its kind is one of f d l c b p s (comma-separated)
//   size [+-]N[ckMG]  its size, rounded up to units of 512 bytes (or bytes,
//                     KiB, MiB, GiB), is more than (+), less than (-) or
//                     exactly N
//   mmin / mtime [+-]N  it was last modified more than, less than or exactly
//                     N minutes / days ago (whole units, rounded down)
//   newer FILE        it was modified after FILE (on the file system) was
// A malformed test throws ToolError(kExitNotFound) when it is set.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <string>

class FindTests {
 public:
  explicit FindTests(time_t now) : now_(now) {}

  void SetName(const std::string& glob, bool ignoreCase);
  void SetPath(const std::string& glob) { path_ = glob; }
  void SetType(const std::string& kinds);
  void SetSize(const std::string& text);
  void SetMmin(const std::string& text) { mmin_ = ParseCompare(text, "-mmin"); }
  void SetMtime(const std::string& text) { mtime_ = ParseCompare(text, "-mtime"); }
  void SetNewer(const std::string& file);

  bool Matches(const std::string& name, const std::string& path, const struct stat& st,
               bool isDir) const;

 private:
  struct Compare {
    bool set = false;
    int sign = 0;  // +1 more than, -1 less than, 0 exactly
    uint64_t value = 0;
    uint64_t unit = 1;
    bool Holds(uint64_t measured) const;
  };
  static Compare ParseCompare(const std::string& text, const char* test);

  time_t now_;
  std::string name_;
  bool ignoreCase_ = false;
  std::string path_;
  std::string kinds_;  // letters of KindLetter
  Compare size_, mmin_, mtime_;
  bool newerSet_ = false;
  struct timespec newer_ = {};
};
