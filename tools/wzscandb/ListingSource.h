// ListingSource: directory listings for the scan's one writer, read by N
// reader threads ahead of it.
//
// The writer asks for listings in the order it will use them (Prefetch) and
// takes each when it gets there (Take); readers work through the requests
// first come, first served, so the writer's order, and with it the report's,
// does not depend on the threads. With one thread (or none) there are no
// readers: Take reads the directory itself and Prefetch does nothing.
// Listings read ahead are held until taken: the writer bounds them by how
// far it prefetches. Prefetch and Take are for the writer's thread only.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DirectoryListing.h"

class ListingSource {
 public:
  ListingSource(const EntryFilter& filter, RecordType type, unsigned threads);
  ~ListingSource();
  ListingSource(const ListingSource&) = delete;
  ListingSource& operator=(const ListingSource&) = delete;

  bool threaded() const { return !readers_.empty(); }
  // Listings asked for and not yet taken.
  size_t outstanding() const { return slots_.size(); }

  void Prefetch(const std::string& path, bool identities);
  DirectoryListing Take(const std::string& path, bool identities);

 private:
  struct Slot {
    std::string path;
    bool identities = false;
    bool done = false;
    DirectoryListing listing;
  };
  void ReaderLoop();

  const EntryFilter& filter_;
  RecordType type_;
  std::mutex mutex_;
  std::condition_variable work_;
  std::condition_variable ready_;
  std::deque<std::shared_ptr<Slot>> queue_;
  std::map<std::string, std::shared_ptr<Slot>> slots_;
  bool stopping_ = false;
  std::vector<std::thread> readers_;
};
