// Helpers of the table engine's tests: a second schema beside the generic
// record's, record images, key building through the engine, file contents,
// and TableModel, the in-memory reference of the differential test.
#pragma once

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/SchemaLayout.h"

namespace tabletest {

using Image = std::vector<uint8_t>;

// 64-bit integer fields and a case-insensitive string segment: index 0 unique
// on id; index 1 with duplicates on group + name; index 2 with duplicates on
// a 32-bit inode, key type 12.
inline SchemaLayout smallSchema() {
  return SchemaLayout{true, 64, 24,
                      {{"id", 0, kFieldUInt64, 8}, {"group", 8, kFieldUInt64, 8}, {"inode", 16, kFieldUInt32, 4},
                       {"kind", 20, kFieldUInt8, 1}, {"name", 24, kFieldString, 40}},
                      {{"id", 8, kKeyFixed, 0, 1, 0}, {"group_name", 24, kKeyFixed, 1, 2, 1},
                       {"inode", 4, kKeyCompressBoth, 1, 1, 3}}, {{0, 8, 1}, {1, 8, 1}, {4, 16, 0}, {2, 4, 1}}};
}

inline Image genericRecord(uint8_t guid, uint8_t parent, const std::string& name) {
  Image image(440, 0);
  std::memset(image.data(), guid, 16);
  std::memset(image.data() + 16, parent, 16);
  std::memcpy(image.data() + 181, name.data(), std::min<size_t>(name.size(), 255));
  return image;
}

// The key of `index` built from an image through fillKeySegment / finishKey,
// into a buffer with 32 spare bytes as the scan database does (all zeros when
// they fail).
inline Image engineKey(TCtreeTable& table, const SchemaLayout& layout, int index, const uint8_t* image) {
  const auto& ix = layout.indexes[index];
  Image buffer(ix.keyLength + 32, 0);
  char* cursor = reinterpret_cast<char*>(buffer.data());
  int remaining = int(buffer.size()), rc = 0;
  for (int s = 0; s < ix.numSegments && rc == 0; ++s) {
    const auto& seg = layout.segments[ix.firstSegment + s];
    rc = table.fillKeySegment(&cursor, &remaining, image + layout.fields[seg.field].offset, 0, index, s);
  }
  if (rc != 0 || table.finishKey(&cursor, &remaining, index, 0) != 0) buffer.assign(ix.keyLength + 32, 0);
  buffer.resize(ix.keyLength);
  return buffer;
}

// Defines the schema, then creates (kAccessCreate) or opens the table.
inline int openTable(TCtreeTable& table, const std::string& name, const SchemaLayout& layout,
                     WZIndexing::TAccessEnum mode = WZIndexing::kAccessReadWrite) {
  const int status = defineSchema(table, name, layout);
  return status ? status : mode == WZIndexing::kAccessCreate ? table.create() : table.open(mode);
}

inline std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// TableModel: the engine's record semantics in memory. Keys are kept
// full-length (never trimmed) and entries are ordered by (key, record
// number), the order the engine promises on every index. Each call returns
// the status the engine must answer; a read that finds a record leaves its
// number in `hit` and makes it current (unless `bypass`).
class TableModel {
 public:
  using Entry = std::pair<std::string, uint64_t>;
  enum Keyed { kEqual, kGTE, kGT, kLTE, kLT };

  explicit TableModel(SchemaLayout layout) : layout_(std::move(layout)), entries_(layout_.indexes.size()) {}

  std::map<uint64_t, Image> records;  // by record number
  bool suspended = false, bypass = false;
  uint64_t hit = 0;
  uint64_t current() const { return exists_ ? recno_ : 0; }

  // The key of `index`, transformed independently of the engine: integers
  // big-endian, strings upper-cased in case-insensitive segments only.
  std::string keyOf(const Image& image, int index) const {
    const auto& ix = layout_.indexes[index];
    std::string key;
    for (int s = 0; s < ix.numSegments; ++s) {
      const auto& seg = layout_.segments[ix.firstSegment + s];
      const auto& f = layout_.fields[seg.field];
      const bool integer = f.type == kFieldUInt8 || f.type == kFieldUInt32 || f.type == kFieldUInt64;
      for (int b = 0; b < seg.size; ++b) {
        char c = char(image[f.offset + (integer ? seg.size - 1 - b : b)]);
        key.push_back(f.type == kFieldString && !seg.caseSensitive && c >= 'a' && c <= 'z' ? char(c - 32) : c);
      }
    }
    return key;
  }

  // addRecord (add), modifyRecord (an image) or deleteRecord (none).
  int write(const Image* image, bool add = false) {
    if (!add && !exists_) return TBL_NO_CURRENT;
    if (image && clashes(*image, add ? 0 : recno_)) return TBL_DUPLICATE_KEY;
    if (!add) erase(recno_), exists_ = image != nullptr;
    if (image) insert(add ? next_++ : recno_, *image);
    if (!add && image && index_ >= 0) key_ = keyOf(*image, index_);
    return TBL_OK;
  }

  // getRecord .. getLTRecord; with a prefix, what they land on must have it.
  int keyed(int index, const std::string& key, Keyed mode, const std::string& prefix = "") {
    if (suspended) return TBL_INDEX_SUSPENDED;
    const auto& s = entries_[index];
    auto it = mode == kGT || mode == kLTE ? s.upper_bound({key, ~0ull}) : s.lower_bound({key, 0});
    if (mode == kLTE || mode == kLT) it = it == s.begin() ? s.end() : std::prev(it);
    if (it == s.end() || (mode == kEqual && it->first != key) || it->first.compare(0, prefix.size(), prefix))
      return TBL_NOT_FOUND;
    return found(index, *it);
  }
  // firstRecord / lastRecord; index -1 is the physical (record number) order.
  int edge(int index, bool first) {
    if (index >= 0) return keyed(index, first ? "" : kTop, first ? kGTE : kLTE);
    if (records.empty()) return TBL_NOT_FOUND;
    return found(-1, {"", first ? records.begin()->first : records.rbegin()->first});
  }
  // firstInSet / lastInSet: the first or last entry with the prefix.
  int setEdge(int index, const std::string& prefix, bool first) {
    if (suspended) return TBL_INDEX_SUSPENDED;
    setIndex_ = index, setPrefix_ = prefix;
    return keyed(index, first ? prefix : prefix + kTop, first ? kGTE : kLTE, prefix);
  }
  // next/previous (inSet: nextInSet/previousInSet) from the current record;
  // on another index than the last read's, from the current record's key.
  int step(int index, bool forward, bool inSet) {
    if (index >= 0 && suspended) return TBL_INDEX_SUSPENDED;
    if ((inSet && setIndex_ != index) || !valid_) return TBL_NO_CURRENT;
    if (index < 0) {
      auto it = forward ? records.upper_bound(recno_) : records.lower_bound(recno_);
      if (forward ? it == records.end() : it == records.begin()) return TBL_NOT_FOUND;
      return found(-1, {"", forward ? it->first : std::prev(it)->first});
    }
    if (index_ != index && !exists_) return TBL_NO_CURRENT;
    const std::string key = index_ == index ? key_ : keyOf(records.at(recno_), index);
    const auto& s = entries_[index];
    auto it = forward ? s.upper_bound({key, recno_}) : s.lower_bound({key, recno_});
    if (forward ? it == s.end() : it == s.begin()) return TBL_NOT_FOUND;
    if (!forward) --it;
    return inSet && it->first.compare(0, setPrefix_.size(), setPrefix_) ? TBL_NOT_FOUND : found(index, *it);
  }
  // readRun: the records from `key` on while their keys share its first
  // `prefix` bytes, into `taken`; the receiver refuses the `refuseAt`th. The
  // current record is the one that ended the run (refused, or the first
  // outside the prefix), else the last one taken.
  int run(int index, const std::string& key, size_t prefix, size_t refuseAt, std::vector<uint64_t>* taken) {
    if (suspended) return TBL_INDEX_SUSPENDED;
    for (auto it = entries_[index].lower_bound({key, 0}); it != entries_[index].end(); ++it) {
      if (it->first.compare(0, prefix, key, 0, prefix)) return found(index, *it);
      taken->push_back(it->second);
      if (taken->size() == refuseAt) return found(index, *it);
    }
    if (!taken->empty()) found(index, {keyOf(records.at(taken->back()), index), taken->back()});
    return TBL_NOT_FOUND;
  }
  int byNumber(uint64_t recno) { return records.count(recno) ? found(-1, {"", recno}) : TBL_NOT_FOUND; }

  void closed() { valid_ = exists_ = false, setIndex_ = -2; }
  // Records beyond the first of each key that clashes on a unique index.
  std::vector<uint64_t> clashing() const {
    std::vector<uint64_t> out;
    for (size_t i = 0; i < layout_.indexes.size(); ++i) {
      std::set<std::string> seen;
      for (const auto& r : records)
        if (!layout_.indexes[i].duplicates && !seen.insert(keyOf(r.second, int(i))).second) out.push_back(r.first);
    }
    return out;
  }
  // A unique index meeting a duplicate keeps indexing suspended.
  int rebuild() { return (suspended = !clashing().empty()) ? TBL_DUPLICATE_KEY : TBL_OK; }

 private:
  const std::string kTop = std::string(300, '\xff');  // above every key

  bool clashes(const Image& image, uint64_t except) const {
    for (size_t i = 0; i < layout_.indexes.size() && !suspended; ++i) {
      const std::string key = keyOf(image, int(i));
      auto it = entries_[i].lower_bound({key, 0});
      if (!layout_.indexes[i].duplicates && it != entries_[i].end() && it->first == key && it->second != except)
        return true;
    }
    return false;
  }
  int found(int index, const Entry& e) {
    hit = e.second;
    if (!bypass) valid_ = exists_ = true, index_ = index, key_ = e.first, recno_ = e.second;
    return TBL_OK;
  }
  void insert(uint64_t recno, const Image& image) {
    records[recno] = image;
    for (size_t i = 0; i < entries_.size(); ++i) entries_[i].insert({keyOf(image, int(i)), recno});
  }
  void erase(uint64_t recno) {
    for (size_t i = 0; i < entries_.size(); ++i) entries_[i].erase({keyOf(records.at(recno), int(i)), recno});
    records.erase(recno);
  }

  SchemaLayout layout_;
  std::vector<std::set<Entry>> entries_;
  uint64_t next_ = 1, recno_ = 0;
  bool valid_ = false, exists_ = false;
  int index_ = -1, setIndex_ = -2;  // the current record's index; the set's (-2: none)
  std::string key_, setPrefix_;
};

}  // namespace tabletest
