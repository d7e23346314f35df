// RecordIdentity: where a record type keeps its own identifier in the record
// image, worked out once from the schema that its prototype describes: the
// bytes of the key-index segments, each at its field's offset. The key index
// is unique, so within one table two records are the same entry exactly when
// these bytes are equal; the tree walks keep a folder waiting to be expanded
// as these bytes alone and compare them to tell a record met again.
//
// A schema whose key index cannot be followed (a segment or field out of
// range) is described by the whole image instead. Reads and writes go
// through the record's structure buffer (getStructure()), which holds
// recordSize() bytes. Immutable after construction; thread-safe to share.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "WzScanDB/records/WzScanDBRecordBase.h"

namespace WzScanDBInternal {

class RecordIdentity {
 public:
  // `prototype` must have its field, index and segment lists initialised.
  explicit RecordIdentity(WzScanDBRecordBase& prototype);

  // Bytes of an identifier.
  size_t size() const { return size_; }
  // Replaces `out` with the identifier of `record`.
  void read(WzScanDBRecordBase& record, std::string& out) const;
  // Whether `record` carries the identifier `id`.
  bool matches(WzScanDBRecordBase& record, const std::string& id) const;
  // Writes `id` into its place in `record`'s structure buffer, leaving the
  // other bytes as they are.
  void write(const std::string& id, WzScanDBRecordBase& record) const;

 private:
  std::vector<std::pair<size_t, size_t>> pieces_;  // (offset, length) in the image
  size_t size_ = 0;
};

}  // namespace WzScanDBInternal
