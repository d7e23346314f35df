// TempDir: a fresh directory under $TMPDIR (or /tmp) for one test, removed
// with everything in it when the object goes away.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

class TempDir {
 public:
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/wzscandb-test-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};
