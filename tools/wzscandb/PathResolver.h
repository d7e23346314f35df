// PathResolver: the full path of a tree record, rebuilt from its parent
// links with lookups through a TableReader.
//
// The paths of recently met folders are cached (a bounded number of them),
// so records read in the table's physical order, which keeps the entries of
// one folder together, cost about one lookup per folder. A generic record's
// path is absolute ("/" for the root). Above a Lustre mount there are no
// FIDs: a record at the top of a Lustre tree is the mount point, whose path
// is "/" when it is the root directory itself and its bare name otherwise.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "TableReader.h"

class PathResolver {
 public:
  explicit PathResolver(TableReader& reader) : reader_(reader) {}

  // The path of the record whose image is `image`. False when a parent is
  // missing from the table (or the links loop): `path` then starts with
  // "?/" and holds the names that could be found.
  bool PathOf(const char* image, std::string& path);

 private:
  // The path of the folder whose own key is `key`, from the cache or the table.
  bool FolderPath(std::string_view key, std::string& path);

  TableReader& reader_;
  std::unordered_map<std::string, std::string> cache_;
};
