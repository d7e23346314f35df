// TableModel: an in-memory reference for the table engine's record
// semantics, used by the differential test. Keys are kept full-length (never
// trimmed) and entries are ordered by (key, record number), which is the
// order the engine promises on every index.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "TableSchemas.h"
#include "table/TableStatus.h"

namespace tabletest {

class TableModel {
 public:
  using Image = std::vector<uint8_t>;
  using Entry = std::pair<std::string, uint64_t>;

  explicit TableModel(SchemaLayout layout) : layout_(std::move(layout)), entries_(layout_.indexes.size()) {}

  const SchemaLayout& layout() const { return layout_; }
  const std::map<uint64_t, Image>& records() const { return records_; }
  bool suspended() const { return suspended_; }

  // The key of `index` for an image, transformed independently of the engine.
  std::string keyOf(const Image& image, int index) const {
    const IndexLayout& ix = layout_.indexes[index];
    std::string key;
    for (int s = 0; s < ix.numSegments; ++s) {
      const SegmentLayout& seg = layout_.segments[ix.firstSegment + s];
      const FieldLayout& f = layout_.fields[seg.field];
      const uint8_t* src = image.data() + f.offset;
      for (int b = 0; b < seg.size; ++b) {
        uint8_t c;
        if (f.type == kFieldUInt8 || f.type == kFieldUInt32 || f.type == kFieldUInt64)
          c = src[seg.size - 1 - b];
        else if (f.type == kFieldString && !seg.caseSensitive && src[b] >= 'a' && src[b] <= 'z')
          c = static_cast<uint8_t>(src[b] - 32);
        else
          c = src[b];
        key.push_back(static_cast<char>(c));
      }
    }
    return key;
  }

  bool uniqueClash(const Image& image, uint64_t except) const {
    if (suspended_) return false;
    for (size_t i = 0; i < layout_.indexes.size(); ++i) {
      if (layout_.indexes[i].duplicates) continue;
      auto it = entries_[i].lower_bound({keyOf(image, static_cast<int>(i)), 0});
      if (it != entries_[i].end() && it->first == keyOf(image, static_cast<int>(i)) &&
          it->second != except)
        return true;
    }
    return false;
  }

  // ---- writes: return the expected status ----
  int add(const Image& image, uint64_t* recno) {
    if (uniqueClash(image, 0)) return TBL_DUPLICATE_KEY;
    *recno = next_++;
    insert(*recno, image);
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

  // ---- reads: the expected status and, on success, the record number ----
  enum Keyed { kEqual, kGTE, kGT, kLTE, kLT };
  int keyed(int index, const std::string& key, Keyed mode, uint64_t* recno) {
    if (suspended_) return TBL_INDEX_SUSPENDED;
    const auto& s = entries_[index];
    const uint64_t kMax = std::numeric_limits<uint64_t>::max();
    std::set<Entry>::const_iterator it;
    switch (mode) {
      case kEqual:
        it = s.lower_bound({key, 0});
        if (it == s.end() || it->first != key) return TBL_NOT_FOUND;
        break;
      case kGTE: it = s.lower_bound({key, 0}); break;
      case kGT: it = s.upper_bound({key, kMax}); break;
      case kLTE:
        it = s.upper_bound({key, kMax});
        if (it == s.begin()) return TBL_NOT_FOUND;
        --it;
        break;
      case kLT:
        it = s.lower_bound({key, 0});
        if (it == s.begin()) return TBL_NOT_FOUND;
        --it;
        break;
    }
    if (it == s.end()) return TBL_NOT_FOUND;
    return found(index, *it, recno);
  }

  int edge(int index, bool first, uint64_t* recno) {
    if (index < 0) {
      if (records_.empty()) return TBL_NOT_FOUND;
      uint64_t r = first ? records_.begin()->first : records_.rbegin()->first;
      return foundPhysical(r, recno);
    }
    if (suspended_) return TBL_INDEX_SUSPENDED;
    const auto& s = entries_[index];
    if (s.empty()) return TBL_NOT_FOUND;
    return found(index, first ? *s.begin() : *s.rbegin(), recno);
  }

  int step(int index, bool forward, bool inSetMode, uint64_t* recno) {
    if (index >= 0 && suspended_) return TBL_INDEX_SUSPENDED;
    if (inSetMode && (!set_.active || set_.index != index)) return TBL_NO_CURRENT;
    if (!current_.valid) return TBL_NO_CURRENT;
    if (index < 0) {
      if (forward) {
        auto it = records_.upper_bound(current_.recno);
        if (it == records_.end()) return TBL_NOT_FOUND;
        return foundPhysical(it->first, recno);
      }
      auto it = records_.lower_bound(current_.recno);
      if (it == records_.begin()) return TBL_NOT_FOUND;
      --it;
      return foundPhysical(it->first, recno);
    }
    std::string key;
    if (current_.index == index) {
      key = current_.key;
    } else {
      if (!current_.exists) return TBL_NO_CURRENT;
      key = keyOf(records_.at(current_.recno), index);
    }
    const auto& s = entries_[index];
    std::set<Entry>::const_iterator it;
    if (forward) {
      it = s.upper_bound({key, current_.recno});
      if (it == s.end()) return TBL_NOT_FOUND;
    } else {
      it = s.lower_bound({key, current_.recno});
      if (it == s.begin()) return TBL_NOT_FOUND;
      --it;
    }
    if (inSetMode && !inSet(it->first)) return TBL_NOT_FOUND;
    return found(index, *it, recno);
  }

  int setEdge(int index, const std::string& prefix, bool first, uint64_t* recno) {
    if (suspended_) return TBL_INDEX_SUSPENDED;
    set_.active = true;
    set_.index = index;
    set_.prefix = prefix;
    const auto& s = entries_[index];
    std::set<Entry>::const_iterator it;
    if (first) {
      it = s.lower_bound({prefix, 0});
      if (it == s.end()) return TBL_NOT_FOUND;
    } else {
      // Last entry whose key starts with the prefix: scan back from the
      // first entry whose key's prefix part is greater.
      it = s.end();
      auto probe = s.lower_bound({prefix, 0});
      while (probe != s.end() && probe->first.compare(0, prefix.size(), prefix) == 0) it = probe++;
      if (it == s.end()) {
        if (probe == s.begin()) return TBL_NOT_FOUND;
        it = std::prev(probe);
      }
    }
    if (!inSet(it->first)) return TBL_NOT_FOUND;
    return found(index, *it, recno);
  }

  int byNumber(uint64_t recno) {
    if (!records_.count(recno)) return TBL_NOT_FOUND;
    uint64_t ignored;
    return foundPhysical(recno, &ignored);
  }

  // ---- life cycle ----
  void closed() {
    current_ = Current();
    set_ = Set();
  }
  void suspend() { suspended_ = true; }
  // Whether a rebuild now meets a duplicate on a unique index.
  bool rebuildClashes() const {
    for (size_t i = 0; i < layout_.indexes.size(); ++i) {
      if (layout_.indexes[i].duplicates) continue;
      std::set<std::string> seen;
      for (const auto& r : records_)
        if (!seen.insert(keyOf(r.second, static_cast<int>(i))).second) return true;
    }
    return false;
  }
  // Records that must go for the unique indexes to hold (all but the first
  // record of each clashing key).
  std::vector<uint64_t> clashingRecords() const {
    std::vector<uint64_t> out;
    for (size_t i = 0; i < layout_.indexes.size(); ++i) {
      if (layout_.indexes[i].duplicates) continue;
      std::set<std::string> seen;
      for (const auto& r : records_)
        if (!seen.insert(keyOf(r.second, static_cast<int>(i))).second) out.push_back(r.first);
    }
    return out;
  }
  int rebuild() {
    if (rebuildClashes()) {
      suspended_ = true;
      return TBL_DUPLICATE_KEY;
    }
    suspended_ = false;
    return TBL_OK;
  }
  uint64_t currentRecno() const {
    return current_.valid && current_.exists ? current_.recno : 0;
  }

 private:
  struct Current {
    bool valid = false;
    bool exists = false;
    int index = -1;
    std::string key;
    uint64_t recno = 0;
  };
  struct Set {
    bool active = false;
    int index = 0;
    std::string prefix;
  };

  bool inSet(const std::string& key) const { return key.compare(0, set_.prefix.size(), set_.prefix) == 0; }

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
    for (size_t i = 0; i < entries_.size(); ++i)
      entries_[i].insert({keyOf(image, static_cast<int>(i)), recno});
  }
  void erase(uint64_t recno) {
    const Image& image = records_.at(recno);
    for (size_t i = 0; i < entries_.size(); ++i)
      entries_[i].erase({keyOf(image, static_cast<int>(i)), recno});
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
