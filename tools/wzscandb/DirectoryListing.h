// DirectoryListing: one directory read from the file system for a scan: its
// entries sorted by name (byte order), each with its lstat status, read
// through the directory's descriptor (fstatat, symbolic links not followed).
//
// Failures are kept, not thrown: openError when the directory cannot be
// opened or listed at all, readError when the listing broke off (then
// entries are a part of the directory only), statError for an entry whose
// status cannot be read. Entries that the filter leaves out are listed with
// `excluded` set and no status. On request each entry also gets the own key
// its record would have (IdentityOf), so that reader threads, not the
// writer, do the hashing or FID lookups of new entries.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "EntryFilter.h"
#include "RecordTypes.h"

struct ListedEntry {
  std::string name;
  struct stat st = {};
  int statError = 0;
  bool excluded = false;
  bool hasIdentity = false;
  char identity[24] = {};
};

struct DirectoryListing {
  int openError = 0;
  int readError = 0;
  std::vector<ListedEntry> entries;
};

// Reads the directory at `path`. With `identities`, fills in the identities
// of the entries as records of `type` (entries without one keep hasIdentity
// false).
DirectoryListing ReadDirectory(const std::string& path, const EntryFilter& filter, RecordType type,
                               bool identities);
