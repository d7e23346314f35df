#include "DirectoryListing.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "PathJoin.h"
#include "RecordImage.h"

DirectoryListing ReadDirectory(const std::string& path, const EntryFilter& filter, RecordType type,
                               bool identities) {
  DirectoryListing listing;
  int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    listing.openError = errno;
    return listing;
  }
  DIR* dir = ::fdopendir(fd);
  if (!dir) {
    listing.openError = errno;
    ::close(fd);
    return listing;
  }
  errno = 0;
  while (struct dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    listing.entries.emplace_back();
    listing.entries.back().name = name;
  }
  if (errno != 0) listing.readError = errno;
  std::sort(listing.entries.begin(), listing.entries.end(),
            [](const ListedEntry& a, const ListedEntry& b) { return a.name < b.name; });

  const int dirFd = ::dirfd(dir);
  std::string child;
  for (ListedEntry& entry : listing.entries) {
    child = JoinPath(path, entry.name);
    if (filter.Excluded(child, entry.name)) {
      entry.excluded = true;
      continue;
    }
    if (::fstatat(dirFd, entry.name.c_str(), &entry.st, AT_SYMLINK_NOFOLLOW) != 0) {
      entry.statError = errno;
      continue;
    }
    if (identities) entry.hasIdentity = IdentityOf(type, child, entry.identity);
  }
  ::closedir(dir);
  return listing;
}
