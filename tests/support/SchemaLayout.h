// SchemaLayout: a table schema as plain data (fields, indexes, segments), so
// tests can register the generic scan record's schema, or a copy of it that
// differs in one chosen detail, on any TCtreeTable.
//
//   TCtreeTable table;
//   int status = defineSchema(table, dir + "/t", SchemaLayout::generic());
//
// SchemaLayout::generic() is the one description of the generic record's
// schema that GenericSchemaTable registers too.
#pragma once

#include <string>
#include <vector>

#include "table/TCtreeTable.h"
#include "table/TFieldType.h"
#include "table/TKeyType.h"
#include "table/TableStatus.h"

struct SchemaLayout {
  struct Field {
    std::string name;
    unsigned long offset;
    short type, length;
  };
  struct Index {
    std::string name;
    short keyLength;
    TKeyType keyType;
    short duplicates, numSegments, firstSegment;
  };
  struct Segment {
    short field, size;
    char caseSensitive;
  };
  bool variableLength;
  unsigned recordSize, fixedRecordSize;
  std::vector<Field> fields;
  std::vector<Index> indexes;
  std::vector<Segment> segments;

  // The 440-byte generic scan record: index 0 unique on guid; index 1 with
  // duplicates on parent_guid + the first 56 bytes of sname, key type 12.
  static SchemaLayout generic() {
    return {true, 440, 181,
            {{"guid", 0, kFieldBinary, 16}, {"parent_guid", 16, kFieldBinary, 16},
             {"stat_data", 32, kFieldBinary, 144}, {"refTime", 176, kFieldUInt32, 4},
             {"flags", 180, kFieldUInt8, 1}, {"sname", 181, kFieldString, 255}},
            {{"guid", 16, kKeyFixed, 0, 1, 0}, {"parent_guid_and_sname", 72, kKeyCompressBoth, 1, 2, 1}},
            {{0, 16, 1}, {1, 16, 1}, {5, 56, 1}}};
  }
};

// Registers `layout` for the table `name` (a path without extension), in the
// scan database's order: fields, indexes, segments, field order. Returns the
// first non-zero engine status, or TBL_OK.
inline int defineSchema(TCtreeTable& table, const std::string& name, const SchemaLayout& layout) {
  int status = table.internalInitialize(
      name.c_str(), layout.variableLength ? 1 : 0, unsigned(layout.fields.size()),
      unsigned(layout.indexes.size()), unsigned(layout.segments.size()), layout.recordSize,
      layout.fixedRecordSize);
  for (const auto& f : layout.fields)
    if (status == TBL_OK) status = table.setNextField(f.name.c_str(), f.offset, f.type, f.length);
  for (const auto& i : layout.indexes)
    if (status == TBL_OK)
      status = table.setNextIndex(i.name.c_str(), i.keyLength, i.keyType, i.duplicates, 0, 0,
                                  i.numSegments, i.firstSegment);
  for (const auto& s : layout.segments)
    if (status == TBL_OK) status = table.setNextSegment(s.field, s.size, s.caseSensitive);
  for (size_t f = 0; f < layout.fields.size(); ++f)
    if (status == TBL_OK) status = table.shellOrder(int(f));
  return status == TBL_OK ? table.initializeComplete() : status;
}
