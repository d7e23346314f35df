// GenericSchemaTable: a TCtreeTable that registers the 440-byte generic scan
// record schema, for engine tests and benchmarks that need a realistic table
// without the database layer on top.
//
//   GenericSchemaTable table;
//   int status = table.createTable(dir + "/WzScanDB");   // or openTable()
//   SGenericRecord rec = ...;
//   table.addRecord(&rec);
//   GenericKey key;
//   table.buildKey(0, rec, &key);
//   table.getRecord(0, key.bytes, &rec);
//
// The schema (SchemaLayout::generic()) and the registration order are those
// the scan database uses for its generic record. Not thread-safe, like the
// table it extends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "support/SchemaLayout.h"
#include "table/TCtreeTable.h"
#include "table/TableStatus.h"

// The record image: 436 bytes of fields and 4 bytes of padding.
struct SGenericRecord {
  uint8_t guid[16];
  uint8_t parent_guid[16];
  uint8_t stat_data[144];
  uint32_t refTime;
  uint8_t flags;
  char sname[255];
  uint8_t padding[4];
};
static_assert(sizeof(SGenericRecord) == 440 && offsetof(SGenericRecord, refTime) == 176 &&
                  offsetof(SGenericRecord, flags) == 180 && offsetof(SGenericRecord, sname) == 181,
              "the generic record image: 440 bytes, refTime at 176, flags at 180, sname at 181");

// A key buffer large enough for either index (keyLength + 32 bytes, zeroed).
struct GenericKey {
  static constexpr int kIndex0Length = 16;
  static constexpr int kIndex1Length = 72;
  char bytes[kIndex1Length + 32];
  int length = 0;  // bytes written by fillKeySegment + finishKey
};

class GenericSchemaTable : public TCtreeTable {
 public:
  int registerTable() override { return internalRegisterTable(18, 12, 18); }

  // Register the schema for the table `name` (path without extension), then
  // create or open it. Return the first non-zero engine status, or TBL_OK.
  int createTable(const std::string& name) {
    int status = defineSchema(*this, name, SchemaLayout::generic());
    return status != TBL_OK ? status : create();
  }
  int openTable(const std::string& name,
                WZIndexing::TAccessEnum mode = WZIndexing::kAccessReadWrite) {
    int status = defineSchema(*this, name, SchemaLayout::generic());
    return status != TBL_OK ? status : open(mode);
  }

  // Builds the key of `index` (0: guid, 1: parent guid + first 56 name bytes)
  // from the record image into a zeroed `key`.
  int buildKey(int index, const SGenericRecord& record, GenericKey* key) {
    std::memset(key->bytes, 0, sizeof key->bytes);
    char* cursor = key->bytes;
    const int start = (index == 0 ? GenericKey::kIndex0Length : GenericKey::kIndex1Length) + 32;
    int remaining = start, status = TBL_OK;
    // Each segment reads from its field's own bytes, as the record's key
    // request points them.
    const void* fields[2] = {index == 0 ? record.guid : record.parent_guid, record.sname};
    for (int s = 0; s < (index == 0 ? 1 : 2) && status == TBL_OK; ++s)
      status = fillKeySegment(&cursor, &remaining, fields[s], 0, index, s);
    if (status == TBL_OK) status = finishKey(&cursor, &remaining, index, 0);
    key->length = start - remaining;
    return status;
  }
};
