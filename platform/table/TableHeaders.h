// TableHeaders: reading and writing what TableFormat.h describes: the file
// headers, the index databases' names and flags, the 64-bit values of the
// main databases. Private to libWzTable.
#pragma once

#include <lmdb.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "TableSchema.h"

namespace wztable {

// The header value of a file: magic, version, table id, then the schema.
std::string headerBytes(const char (&magic)[8], const uint8_t* tableId, const std::string& schema);
// Checks one file's header against the registered schema (TBL_BAD_FORMAT,
// TBL_SCHEMA_MISMATCH); copies its table id.
int checkHeader(MDB_txn* txn, MDB_dbi main, const char (&magic)[8], const std::string& schema,
                uint8_t* tableId);
// The table id and the serialised schema of a file's header.
int readHeader(MDB_txn* txn, MDB_dbi main, const char (&magic)[8], uint8_t* tableId,
               std::string* schema);

// The table id (and, when `schema` is given, the stored schema) in the
// header of the closed file at `path` (kDataMagic or kIndexMagic), read
// through a read-only map after a full page check.
int readFileTableId(const std::string& path, const char (&magic)[8], uint8_t* tableId,
                    std::string* schema = nullptr);

// An MDB_val over `size` bytes at `data`, or over a C string's text.
inline MDB_val valOf(const void* data, size_t size) {
  MDB_val v;
  v.mv_data = const_cast<void*>(data);
  v.mv_size = size;
  return v;
}
inline MDB_val valOf(const char* text) { return valOf(text, std::strlen(text)); }

unsigned indexDbFlags(const TableIndex& index);
std::string indexDbName(size_t n);

// A uint64 value of the main database: TBL_OK with *present false when
// absent, TBL_BAD_FORMAT when of another size.
int readU64(MDB_txn* txn, MDB_dbi main, const char* key, uint64_t* value, bool* present);

}  // namespace wztable
