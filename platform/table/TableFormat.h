// TableFormat: what the engine keeps in its two LMDB files besides records
// and index entries.
//
// Data file (<name>.dat), main database:
//   "wz.header"    DataHeader followed by the serialised schema
//   "wz.highwater" uint64: the highest record number ever handed out, written
//                  when the record holding it is deleted, so numbers are never
//                  reused
//   "wz.lsn"       uint64: the log sequence number of the last write the file
//                  holds (written at every checkpoint; absent in files of an
//                  older engine)
//   "records"      named database: record number (native uint64) -> stored
//                  record (fixed part + variable part without trailing zeros)
// Index file (<name>.idx), main database:
//   "wz.header"    IndexHeader followed by the serialised schema
//   "wz.state"     IndexState: whether indexing is suspended (and, in files of
//                  an older engine, the data file's transaction id that the
//                  indexes reflect)
//   "wz.lsn"       as in the data file
//   "i<n>"         named database of index n: stored key -> record number
//                  (sorted duplicates for indexes that allow them)
// Both headers carry the same random table id, written at create(), so a
// data file and an index file of different tables are told apart.
#pragma once

#include <cstdint>

namespace wztable {

constexpr char kDataMagic[8] = {'W', 'Z', 'T', 'B', 'L', 'D', 'A', 'T'};
constexpr char kIndexMagic[8] = {'W', 'Z', 'T', 'B', 'L', 'I', 'D', 'X'};
constexpr uint32_t kFormatVersion = 1;

constexpr const char* kHeaderKey = "wz.header";
constexpr const char* kHighWaterKey = "wz.highwater";
constexpr const char* kStateKey = "wz.state";
constexpr const char* kLsnKey = "wz.lsn";
constexpr const char* kRecordsDbName = "records";

struct FileHeader {
  char magic[8];
  uint32_t version;
  uint32_t reserved;
  uint8_t tableId[16];
};
static_assert(sizeof(FileHeader) == 32, "file header layout");

struct IndexState {
  uint64_t dataTxnId;
  uint32_t suspended;
  uint32_t reserved;
};
static_assert(sizeof(IndexState) == 16, "index state layout");

}  // namespace wztable
