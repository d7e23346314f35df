// BenchWorkload: the record set of the table benchmark. N generic records in
// scan order (every folder before its children), folders holding 20 to 50
// entries, 20-byte names, random 16-byte identifiers as a path hash gives.
// Records are computed from their number on demand, so the workload itself
// costs a few bytes per record of memory.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <random>
#include <vector>

#include "support/GenericSchemaTable.h"

class BenchWorkload {
 public:
  static constexpr uint32_t kNoParent = 0xFFFFFFFFu;

  BenchWorkload(uint32_t records, uint64_t seed) : seed_(seed), parent_(records) {
    std::mt19937_64 rng(seed);
    // Breadth-first: a queue of folders waiting for children; each folder
    // gets 20..50 of them; about one entry in 28 is itself a folder, which
    // keeps the queue fed at that fan-out.
    std::deque<std::pair<uint32_t, uint32_t>> open;  // folder, children left
    for (uint32_t i = 0; i < records; ++i) {
      if (open.empty()) {
        parent_[i] = kNoParent;  // a new top-level folder
      } else {
        parent_[i] = open.front().first;
        if (--open.front().second == 0) open.pop_front();
      }
      if (open.empty() || rng() % 28 == 0) {
        open.emplace_back(i, 20 + uint32_t(rng() % 31));
        folders_.push_back(i);
      }
    }
  }

  uint32_t size() const { return uint32_t(parent_.size()); }
  const std::vector<uint32_t>& folders() const { return folders_; }

  void guid(uint32_t i, uint8_t out[16]) const {
    const uint64_t a = mix(seed_ ^ (2ULL * i + 1)), b = mix(seed_ ^ (2ULL * i + 2));
    std::memcpy(out, &a, 8);
    std::memcpy(out + 8, &b, 8);
  }

  // The image of record i at `version` (0 when added). Every version has its
  // own status data; versions 0 and 1 share a name, version 2 renames.
  SGenericRecord record(uint32_t i, uint32_t version = 0) const {
    SGenericRecord r;
    std::memset(&r, 0, sizeof r);
    guid(i, r.guid);
    if (parent_[i] != kNoParent) guid(parent_[i], r.parent_guid);
    uint64_t s = mix(seed_ + i * 31ULL + version);
    for (size_t b = 0; b < sizeof r.stat_data; b += 8) {
      std::memcpy(r.stat_data + b, &s, 8);
      s = mix(s);
    }
    r.refTime = 1700000000u + version;
    r.flags = isFolder(i) ? 1 : 0;
    // Exactly 20 bytes: "e", 10 digits, "-n", 3 digits, ".dat".
    std::snprintf(r.sname, sizeof r.sname, "e%010u-n%03u.dat", i, version / 2 % 1000);
    return r;
  }

  bool hasParent(uint32_t i) const { return parent_[i] != kNoParent; }

  bool isFolder(uint32_t i) const {
    return std::binary_search(folders_.begin(), folders_.end(), i);
  }

  // A random permutation of [0, n) for access order.
  std::vector<uint32_t> shuffled(uint32_t n, uint64_t salt) const {
    std::vector<uint32_t> v(n);
    for (uint32_t i = 0; i < n; ++i) v[i] = i;
    std::mt19937_64 rng(seed_ ^ salt);
    std::shuffle(v.begin(), v.end(), rng);
    return v;
  }

  static uint64_t mix(uint64_t x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
  }

 private:
  uint64_t seed_;
  std::vector<uint32_t> parent_;
  std::vector<uint32_t> folders_;  // ascending
};
