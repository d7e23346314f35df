// SchemaLayoutTable: a TCtreeTable that registers a schema given as plain data,
// so a test can make tables whose layout differs from the generic record's in
// one chosen detail.
#pragma once

#include <string>
#include <vector>

#include "table/TCtreeTable.h"
#include "table/TFieldType.h"
#include "table/TKeyType.h"

struct SchemaLayout {
  struct Field {
    std::string name;
    unsigned long offset;
    short type;
    short length;
  };
  struct Index {
    std::string name;
    short keyLength;
    TKeyType keyType;
    short duplicates;
    short numSegments;
    short segmentNumber;
  };
  struct Segment {
    short fieldNumber;
    short segmentSize;
    char caseSensitive;
  };
  unsigned variableLength;
  unsigned recordSize;
  unsigned fixedRecordSize;
  std::vector<Field> fields;
  std::vector<Index> indexes;
  std::vector<Segment> segments;

  // The 440-byte generic scan record.
  static SchemaLayout generic() {
    return SchemaLayout{1,
                      440,
                      181,
                      {{"guid", 0, kFieldBinary, 16},
                       {"parent_guid", 16, kFieldBinary, 16},
                       {"stat_data", 32, kFieldBinary, 144},
                       {"refTime", 176, kFieldUInt32, 4},
                       {"flags", 180, kFieldUInt8, 1},
                       {"sname", 181, kFieldString, 255}},
                      {{"guid", 16, kKeyFixed, 0, 1, 0},
                       {"parent_guid_and_sname", 72, kKeyCompressBoth, 1, 2, 1}},
                      {{0, 16, 1}, {1, 16, 1}, {5, 56, 1}}};
  }

  // A flat 16-byte (inode, ctime) record with one unique index.
  static SchemaLayout inodeTime() {
    return SchemaLayout{0,
                      16,
                      16,
                      {{"inode", 0, kFieldUInt64, 8}, {"ctime", 8, kFieldUInt64, 8}},
                      {{"inode", 8, kKeyFixed, 0, 1, 0}},
                      {{0, 8, 1}}};
  }
};

class SchemaLayoutTable : public TCtreeTable {
 public:
  explicit SchemaLayoutTable(SchemaLayout layout) : layout_(std::move(layout)) {}

  int registerTable() override { return internalRegisterTable(18, 12, 18); }

  int define(const std::string& name) {
    int status = internalInitialize(name.c_str(), layout_.variableLength,
                                    unsigned(layout_.fields.size()), unsigned(layout_.indexes.size()),
                                    unsigned(layout_.segments.size()), layout_.recordSize,
                                    layout_.fixedRecordSize);
    for (const auto& f : layout_.fields)
      if (status == TBL_OK) status = setNextField(f.name.c_str(), f.offset, f.type, f.length);
    for (const auto& i : layout_.indexes)
      if (status == TBL_OK)
        status = setNextIndex(i.name.c_str(), i.keyLength, i.keyType, i.duplicates, 0, 0,
                              i.numSegments, i.segmentNumber);
    for (const auto& s : layout_.segments)
      if (status == TBL_OK) status = setNextSegment(s.fieldNumber, s.segmentSize, s.caseSensitive);
    if (status != TBL_OK) return status;
    for (size_t i = 0; i < layout_.fields.size(); ++i) shellOrder(int(i));
    return initializeComplete();
  }

  int createTable(const std::string& name) {
    int status = define(name);
    return status != TBL_OK ? status : create();
  }
  int openTable(const std::string& name) {
    int status = define(name);
    return status != TBL_OK ? status : open(WZIndexing::kAccessReadWrite);
  }

 private:
  SchemaLayout layout_;
};
