#include "TableHeaders.h"

#include <cstring>

#include "LmdbFile.h"
#include "TableFormat.h"
#include "table/TableStatus.h"

namespace wztable {

std::string headerBytes(const char (&magic)[8], const uint8_t* tableId, const std::string& schema) {
  FileHeader header{};
  std::memcpy(header.magic, magic, sizeof header.magic);
  header.version = kFormatVersion;
  std::memcpy(header.tableId, tableId, sizeof header.tableId);
  std::string out(reinterpret_cast<const char*>(&header), sizeof header);
  out += schema;
  return out;
}

int readHeader(MDB_txn* txn, MDB_dbi main, const char (&magic)[8], uint8_t* tableId,
               std::string* schema) {
  MDB_val key = valOf(kHeaderKey), value;
  int rc = mdb_get(txn, main, &key, &value);
  if (rc == MDB_NOTFOUND) return TBL_BAD_FORMAT;
  if (rc != MDB_SUCCESS) return statusFromMdb(rc);
  if (value.mv_size < sizeof(FileHeader)) return TBL_BAD_FORMAT;
  FileHeader header;
  std::memcpy(&header, value.mv_data, sizeof header);
  if (std::memcmp(header.magic, magic, sizeof header.magic) != 0) return TBL_BAD_FORMAT;
  if (header.version != kFormatVersion) return TBL_BAD_FORMAT;
  schema->assign(static_cast<const char*>(value.mv_data) + sizeof header, value.mv_size - sizeof header);
  std::memcpy(tableId, header.tableId, sizeof header.tableId);
  return TBL_OK;
}

int checkHeader(MDB_txn* txn, MDB_dbi main, const char (&magic)[8], const std::string& schema,
                uint8_t* tableId) {
  std::string stored;
  int status = readHeader(txn, main, magic, tableId, &stored);
  if (status != TBL_OK) return status;
  return stored == schema ? TBL_OK : TBL_SCHEMA_MISMATCH;
}

int readFileTableId(const std::string& path, const char (&magic)[8], uint8_t* tableId,
                    std::string* schemaOut) {
  LmdbFile file;
  int status = file.openFile(path, false, true);
  if (status == TBL_OK) status = file.validate(nullptr, true);
  if (status == TBL_OK) status = file.openEnv(1, 0, 0);
  if (status != TBL_OK) return status;
  MDB_txn* txn = nullptr;
  MDB_dbi main;
  std::string schema;
  int rc = mdb_txn_begin(file.env(), nullptr, MDB_RDONLY, &txn);
  if (rc == MDB_SUCCESS) rc = mdb_dbi_open(txn, nullptr, 0, &main);
  status = rc == MDB_SUCCESS ? readHeader(txn, main, magic, tableId, &schema) : statusFromMdb(rc);
  if (txn) mdb_txn_abort(txn);
  if (status == TBL_OK && schemaOut) *schemaOut = schema;
  return status;
}

unsigned indexDbFlags(const TableIndex& index) {
  return index.duplicates ? (MDB_DUPSORT | MDB_DUPFIXED | MDB_INTEGERDUP) : 0;
}

std::string indexDbName(size_t n) { return "i" + std::to_string(n); }

int readU64(MDB_txn* txn, MDB_dbi main, const char* key, uint64_t* value, bool* present) {
  MDB_val k = valOf(key), v;
  *present = false;
  int rc = mdb_get(txn, main, &k, &v);
  if (rc == MDB_NOTFOUND) return TBL_OK;
  if (rc != MDB_SUCCESS) return statusFromMdb(rc);
  if (v.mv_size != sizeof *value) return TBL_BAD_FORMAT;
  std::memcpy(value, v.mv_data, sizeof *value);
  *present = true;
  return TBL_OK;
}

}  // namespace wztable
