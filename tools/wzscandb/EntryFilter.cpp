#include "EntryFilter.h"

#include <fnmatch.h>

EntryFilter::EntryFilter(const std::string& root, dev_t rootDevice,
                         const std::vector<std::string>& globs,
                         const std::string& databaseDirectory, bool oneFileSystem)
    : root_(root), rootDevice_(rootDevice), databaseDirectory_(databaseDirectory),
      oneFileSystem_(oneFileSystem) {
  for (const std::string& glob : globs) {
    if (glob.find('/') == std::string::npos)
      nameGlobs_.push_back(glob);
    else if (glob[0] == '/')
      absoluteGlobs_.push_back(glob);
    else
      relativeGlobs_.push_back(glob);
  }
}

bool EntryFilter::Excluded(const std::string& path, const std::string& name) const {
  if (path == databaseDirectory_) return true;
  for (const std::string& glob : nameGlobs_)
    if (fnmatch(glob.c_str(), name.c_str(), 0) == 0) return true;
  for (const std::string& glob : absoluteGlobs_)
    if (fnmatch(glob.c_str(), path.c_str(), FNM_PATHNAME) == 0) return true;
  if (!relativeGlobs_.empty() && path.size() > root_.size()) {
    size_t skip = root_.size() + (root_.back() == '/' ? 0 : 1);
    const char* relative = path.c_str() + skip;
    for (const std::string& glob : relativeGlobs_)
      if (fnmatch(glob.c_str(), relative, FNM_PATHNAME) == 0) return true;
  }
  return false;
}
