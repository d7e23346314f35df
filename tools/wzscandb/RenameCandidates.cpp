#include "RenameCandidates.h"

#include <unordered_map>

namespace {

struct InodeHash {
  size_t operator()(const std::pair<dev_t, ino_t>& key) const {
    return std::hash<uint64_t>()(key.second * 1000003u ^ key.first);
  }
};

bool SameTime(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

bool RenameCandidates::AddArrival(Arrival&& arrival) {
  if (arrivals_.size() >= limit_) return false;
  arrivals_.push_back(std::move(arrival));
  return true;
}

bool RenameCandidates::AddDeparture(Departure&& departure, const struct stat& st, bool isDir) {
  if (departures_.size() >= limit_) return false;
  departures_.push_back(std::move(departure));
  departureKeys_.push_back({st, isDir});
  return true;
}

std::vector<long> RenameCandidates::Pair() const {
  std::unordered_multimap<std::pair<dev_t, ino_t>, size_t, InodeHash> byInode;
  for (size_t i = 0; i < departureKeys_.size(); ++i) {
    const struct stat& st = departureKeys_[i].st;
    if (st.st_ino != 0) byInode.emplace(std::make_pair(st.st_dev, st.st_ino), i);
  }
  std::vector<bool> used(departures_.size(), false);
  std::vector<long> pairs(arrivals_.size(), -1);
  for (size_t a = 0; a < arrivals_.size(); ++a) {
    const struct stat& now = arrivals_[a].st;
    const bool isDir = S_ISDIR(now.st_mode);
    auto range = byInode.equal_range(std::make_pair(now.st_dev, now.st_ino));
    long best = -1;
    for (auto it = range.first; it != range.second; ++it) {
      const size_t d = it->second;
      const DepartureKey& before = departureKeys_[d];
      if (used[d] || before.isDir != isDir) continue;
      if (!isDir && type_ == RecordType::kGeneric &&
          (before.st.st_size != now.st_size || !SameTime(before.st.st_mtim, now.st_mtim)))
        continue;
      if (best < 0 || d < static_cast<size_t>(best)) best = static_cast<long>(d);
    }
    if (best >= 0) {
      used[static_cast<size_t>(best)] = true;
      pairs[a] = best;
    }
  }
  return pairs;
}
