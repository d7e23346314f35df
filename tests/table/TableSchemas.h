// Test schemas for the table engine, described once and registered through
// the engine's schema calls.
//
//   genericSchema(): the generic scan record's layout (440-byte image; index 0
//     unique on guid; index 1 with duplicates on parent_guid + the first 56
//     bytes of sname, key type 12).
//   smallSchema(): 64-bit integer fields and a case-insensitive string
//     segment (index 0 unique on id; index 1 with duplicates on group + name;
//     index 2 with duplicates on a 32-bit inode).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "table/TCtreeTable.h"
#include "table/TFieldType.h"

namespace tabletest {

struct FieldLayout {
  std::string name;
  unsigned long offset;
  short type;
  short length;
};
struct IndexLayout {
  std::string name;
  short keyLength;
  TKeyType keyType;
  short duplicates;
  short numSegments;
  short firstSegment;
};
struct SegmentLayout {
  short field;
  short size;
  char caseSensitive;
};

struct SchemaLayout {
  bool variableLength;
  unsigned recordSize;
  unsigned fixedRecordSize;
  std::vector<FieldLayout> fields;
  std::vector<IndexLayout> indexes;
  std::vector<SegmentLayout> segments;
};

inline SchemaLayout genericSchema() {
  return SchemaLayout{
      true,
      440,
      181,
      {{"guid", 0, kFieldBinary, 16},
       {"parent_guid", 16, kFieldBinary, 16},
       {"stat_data", 32, kFieldBinary, 144},
       {"refTime", 176, kFieldUInt32, 4},
       {"flags", 180, kFieldUInt8, 1},
       {"sname", 181, kFieldString, 255}},
      {{"guid", 16, kKeyFixed, 0, 1, 0}, {"parent_guid_and_sname", 72, kKeyCompressBoth, 1, 2, 1}},
      {{0, 16, 1}, {1, 16, 1}, {5, 56, 1}}};
}

inline SchemaLayout smallSchema() {
  return SchemaLayout{
      true,
      64,
      24,
      {{"id", 0, kFieldUInt64, 8},
       {"group", 8, kFieldUInt64, 8},
       {"inode", 16, kFieldUInt32, 4},
       {"kind", 20, kFieldUInt8, 1},
       {"name", 24, kFieldString, 40}},
      {{"id", 8, kKeyFixed, 0, 1, 0},
       {"group_name", 24, kKeyFixed, 1, 2, 1},
       {"inode", 4, kKeyCompressBoth, 1, 1, 3}},
      {{0, 8, 1}, {1, 8, 1}, {4, 16, 0}, {2, 4, 1}}};
}

// Registers `layout` under `name` (a path without extension); TBL_OK or the
// first failing status.
inline int defineSchema(TCtreeTable& table, const std::string& name, const SchemaLayout& layout) {
  int status = table.internalInitialize(name.c_str(), layout.variableLength ? 1 : 0,
                                        static_cast<unsigned>(layout.fields.size()),
                                        static_cast<unsigned>(layout.indexes.size()),
                                        static_cast<unsigned>(layout.segments.size()),
                                        layout.recordSize, layout.fixedRecordSize);
  for (const FieldLayout& f : layout.fields)
    if (status == 0) status = table.setNextField(f.name.c_str(), f.offset, f.type, f.length);
  for (const IndexLayout& i : layout.indexes)
    if (status == 0)
      status = table.setNextIndex(i.name.c_str(), i.keyLength, i.keyType, i.duplicates, 0, 0,
                                  i.numSegments, i.firstSegment);
  for (const SegmentLayout& s : layout.segments)
    if (status == 0) status = table.setNextSegment(s.field, s.size, s.caseSensitive);
  for (size_t f = 0; f < layout.fields.size(); ++f)
    if (status == 0) status = table.shellOrder(static_cast<int>(f));
  if (status == 0) status = table.initializeComplete();
  return status;
}

// Builds the key of `index` from a record image through fillKeySegment /
// finishKey, into a buffer with 32 spare bytes as the scan database does.
inline std::vector<uint8_t> engineKey(TCtreeTable& table, const SchemaLayout& layout, int index,
                                      const uint8_t* image, int* status = nullptr) {
  const IndexLayout& ix = layout.indexes[index];
  std::vector<uint8_t> buffer(ix.keyLength + 32, 0);
  char* cursor = reinterpret_cast<char*>(buffer.data());
  int remaining = static_cast<int>(buffer.size());
  int rc = 0;
  for (int s = 0; s < ix.numSegments && rc == 0; ++s) {
    const SegmentLayout& seg = layout.segments[ix.firstSegment + s];
    rc = table.fillKeySegment(&cursor, &remaining, image + layout.fields[seg.field].offset, 0, index,
                              s);
  }
  if (rc == 0) rc = table.finishKey(&cursor, &remaining, index, 0);
  if (status) *status = rc;
  buffer.resize(ix.keyLength);
  return buffer;
}

}  // namespace tabletest
