// TableModel: an in-memory reference for the table engine's record semantics,
// used by the differential test. Keys are kept full-length (never trimmed) and
// entries are ordered by (key, record number), the order the engine promises
// on every index. Writes and reads return the status the engine must answer.
#pragma once

#include <limits>
#include <map>
#include <set>
#include <utility>

#include "TableTestUtil.h"
#include "table/TableStatus.h"

namespace tabletest {

class TableModel {
 public:
  using Entry = std::pair<std::string, uint64_t>;
  enum Keyed { kEqual, kGTE, kGT, kLTE, kLT };

  explicit TableModel(SchemaLayout layout) : layout_(std::move(layout)), entries_(layout_.indexes.size()) {}

  const std::map<uint64_t, Image>& records() const { return records_; }
  bool suspended() const { return suspended_; }
  uint64_t currentRecno() const { return current_.valid && current_.exists ? current_.recno : 0; }

  // The key of `index`, transformed independently of the engine: integers
  // big-endian, strings upper-cased in case-insensitive segments only.
  std::string keyOf(const Image& image, int index) const {
    const auto& ix = layout_.indexes[index];
    std::string key;
    for (int s = 0; s < ix.numSegments; ++s) {
      const auto& seg = layout_.segments[ix.firstSegment + s];
      const auto& f = layout_.fields[seg.field];
      const uint8_t* src = image.data() + f.offset;
      const bool integer = f.type == kFieldUInt8 || f.type == kFieldUInt32 || f.type == kFieldUInt64;
      for (int b = 0; b < seg.size; ++b) {
        uint8_t c = integer ? src[seg.size - 1 - b] : src[b];
        if (f.type == kFieldString && !seg.caseSensitive && c >= 'a' && c <= 'z') c -= 32;
        key.push_back(char(c));
      }
    }
    return key;
  }

  int add(const Image& image) {
    if (uniqueClash(image, 0)) return TBL_DUPLICATE_KEY;
    insert(next_++, image);
    return TBL_OK;
  }
  int modify(const Image& image) {
    if (!current_.valid || !current_.exists) return TBL_NO_CURRENT;
    if (uniqueClash(image, current_.recno)) return TBL_DUPLICATE_KEY;
    erase(current_.recno);
    insert(current_.recno, image);
    if (current_.index >= 0) current_.key = keyOf(image, current_.index);
    return TBL_OK;
  }
  int remove() {
    if (!current_.valid || !current_.exists) return TBL_NO_CURRENT;
    erase(current_.recno);
    current_.exists = false;
    return TBL_OK;
  }

  int keyed(int index, const std::string& key, Keyed mode, uint64_t* recno) {
    if (suspended_) return TBL_INDEX_SUSPENDED;
    const auto& s = entries_[index];
    auto it = mode == kGT || mode == kLTE ? s.upper_bound({key, kMax}) : s.lower_bound({key, 0});
    if (mode == kLTE || mode == kLT) {
      if (it == s.begin()) return TBL_NOT_FOUND;
      --it;
    }
    if (it == s.end() || (mode == kEqual && it->first != key)) return TBL_NOT_FOUND;
    return found(index, *it, recno);
  }

  int edge(int index, bool first, uint64_t* recno) {
    if (index < 0) {
      if (records_.empty()) return TBL_NOT_FOUND;
      return foundPhysical(first ? records_.begin()->first : records_.rbegin()->first, recno);
    }
    if (suspended_) return TBL_INDEX_SUSPENDED;
    const auto& s = entries_[index];
    if (s.empty()) return TBL_NOT_FOUND;
    return found(index, first ? *s.begin() : *s.rbegin(), recno);
  }

  // next/previous (inSet: nextInSet/previousInSet) from the current record;
  // on another index than the last read's, from the current record's key.
  int step(int index, bool forward, bool inSet, uint64_t* recno) {
    if (index >= 0 && suspended_) return TBL_INDEX_SUSPENDED;
    if (inSet && (!set_.active || set_.index != index)) return TBL_NO_CURRENT;
    if (!current_.valid) return TBL_NO_CURRENT;
    if (index < 0) {
      auto it = forward ? records_.upper_bound(current_.recno) : records_.lower_bound(current_.recno);
      if (forward ? it == records_.end() : it == records_.begin()) return TBL_NOT_FOUND;
      return foundPhysical(forward ? it->first : std::prev(it)->first, recno);
    }
    if (current_.index != index && !current_.exists) return TBL_NO_CURRENT;
    const std::string key = current_.index == index ? current_.key : keyOf(records_.at(current_.recno), index);
    const auto& s = entries_[index];
    auto it = forward ? s.upper_bound({key, current_.recno}) : s.lower_bound({key, current_.recno});
    if (forward ? it == s.end() : it == s.begin()) return TBL_NOT_FOUND;
    if (!forward) --it;
    if (inSet && !inPrefix(it->first)) return TBL_NOT_FOUND;
    return found(index, *it, recno);
  }

  int setEdge(int index, const std::string& prefix, bool first, uint64_t* recno) {
    if (suspended_) return TBL_INDEX_SUSPENDED;
    set_ = Set{true, index, prefix};
    const auto& s = entries_[index];
    auto it = s.lower_bound({prefix, 0});
    if (!first) {
      // The last entry whose key starts with the prefix, else the one before.
      auto probe = it;
      it = s.end();
      while (probe != s.end() && inPrefix(probe->first)) it = probe++;
      if (it == s.end()) {
        if (probe == s.begin()) return TBL_NOT_FOUND;
        it = std::prev(probe);
      }
    }
    if (it == s.end() || !inPrefix(it->first)) return TBL_NOT_FOUND;
    return found(index, *it, recno);
  }

  int byNumber(uint64_t recno) {
    uint64_t ignored;
    return records_.count(recno) ? foundPhysical(recno, &ignored) : TBL_NOT_FOUND;
  }

  void closed() {
    current_ = Current();
    set_ = Set();
  }
  void suspend() { suspended_ = true; }
  // Records beyond the first of each key that clashes on a unique index.
  std::vector<uint64_t> clashingRecords() const {
    std::vector<uint64_t> out;
    for (size_t i = 0; i < layout_.indexes.size(); ++i) {
      if (layout_.indexes[i].duplicates) continue;
      std::set<std::string> seen;
      for (const auto& r : records_)
        if (!seen.insert(keyOf(r.second, int(i))).second) out.push_back(r.first);
    }
    return out;
  }
  // A unique index meeting a duplicate keeps indexing suspended.
  int rebuild() {
    suspended_ = !clashingRecords().empty();
    return suspended_ ? TBL_DUPLICATE_KEY : TBL_OK;
  }

 private:
  static constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
  struct Current {
    bool valid = false, exists = false;
    int index = -1;
    std::string key;
    uint64_t recno = 0;
  };
  struct Set {
    bool active = false;
    int index = 0;
    std::string prefix;
  };

  bool uniqueClash(const Image& image, uint64_t except) const {
    if (suspended_) return false;
    for (size_t i = 0; i < layout_.indexes.size(); ++i) {
      if (layout_.indexes[i].duplicates) continue;
      const std::string key = keyOf(image, int(i));
      auto it = entries_[i].lower_bound({key, 0});
      if (it != entries_[i].end() && it->first == key && it->second != except) return true;
    }
    return false;
  }
  bool inPrefix(const std::string& key) const { return key.compare(0, set_.prefix.size(), set_.prefix) == 0; }
  int found(int index, const Entry& e, uint64_t* recno) {
    current_ = Current{true, true, index, e.first, e.second};
    *recno = e.second;
    return TBL_OK;
  }
  int foundPhysical(uint64_t r, uint64_t* recno) {
    current_ = Current{true, true, -1, std::string(), r};
    *recno = r;
    return TBL_OK;
  }
  void insert(uint64_t recno, const Image& image) {
    records_[recno] = image;
    for (size_t i = 0; i < entries_.size(); ++i) entries_[i].insert({keyOf(image, int(i)), recno});
  }
  void erase(uint64_t recno) {
    for (size_t i = 0; i < entries_.size(); ++i) entries_[i].erase({keyOf(records_.at(recno), int(i)), recno});
    records_.erase(recno);
  }

  SchemaLayout layout_;
  std::map<uint64_t, Image> records_;
  std::vector<std::set<Entry>> entries_;
  uint64_t next_ = 1;
  bool suspended_ = false;
  Current current_;
  Set set_;
};

}  // namespace tabletest
