// TCtreeTable::Impl: the state of one table object (schema, open files,
// current record, key builder) and the operations behind TCtreeTable's
// public calls. Private to libWzTable; split over TableLifecycle.cpp,
// TableKeys.cpp, TableWrites.cpp, TableReads.cpp and TableRebuild.cpp.
#pragma once

#include <lmdb.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ExternalSorter.h"
#include "LmdbFile.h"
#include "TableSchema.h"
#include "table/TCtreeTable.h"

struct TCtreeTable::Impl {
  explicit Impl(TCtreeTable* owner) : self(owner) {}

  // Where a seek for the entry (key, record number) landed.
  enum class Seek { kAt, kAfter, kEnd };

  TCtreeTable* self;
  wztable::TableSchema schema;
  wztable::TableLimits limits;
  std::string name;
  bool bypass = false;
  size_t rebuildMemory = size_t{64} << 20;

  // ---- open state ----
  bool open = false;
  bool readOnly = false;
  wztable::LmdbFile data;
  wztable::LmdbFile index;
  MDB_dbi dataMain = 0, records = 0, indexMain = 0;
  std::vector<MDB_dbi> indexDbi;
  uint64_t nextRecno = 1;
  bool suspended = false;   // indexing suspended (recorded in the index file)
  bool indexStale = false;  // indexes behind the data and not rebuilt yet

  // Cached read transactions and cursors. Reads leave them active, so that
  // a run of reads (a walk) shares one snapshot and keeps its cursor where it
  // is; every write ends them first (endRead), as LMDB without a lock table
  // must never see a read transaction alive across a write.
  MDB_txn* dataRead = nullptr;
  MDB_txn* indexRead = nullptr;
  bool dataActive = false;
  bool indexActive = false;
  MDB_cursor* recordCursor = nullptr;
  std::vector<MDB_cursor*> indexCursor;
  // The cursor of index `positionedIndex` (-1: records) sits on the current
  // record's entry, so next/previous can step without a seek.
  bool positioned = false;
  int positionedIndex = 0;

  // ---- current record and set ----
  struct Current {
    bool valid = false;   // a read located a record
    bool exists = false;  // that record has not been deleted since
    int index = -1;
    std::vector<uint8_t> key;  // stored key on `index` (index >= 0)
    uint64_t recno = 0;
  } current;
  struct Set {
    bool active = false;
    int index = 0;
    std::vector<uint8_t> prefix;
  } set;

  // ---- key builder (fillKeySegment / finishKey) ----
  int buildIndex = -1;
  char* buildStart = nullptr;
  char* buildNext = nullptr;
  int buildWritten = 0;

  // Scratch buffers reused by every operation.
  std::vector<uint8_t> image, oldImage;
  std::vector<std::vector<uint8_t>> keys, oldKeys;

  // ---- helpers (TableLifecycle.cpp) ----
  std::string dataPath() const { return name + ".dat"; }
  std::string indexPath() const { return name + ".idx"; }
  int openFiles(WZIndexing::TAccessEnum mode);
  int createFiles();
  int loadOpenState();
  int closeFiles();
  void dropReadState();
  void prepareBuffers();
  int setIndexState(uint64_t dataTxnId, bool suspendedFlag);
  bool indexUsable() const { return !suspended && !indexStale; }

  // Runs `body` in one write transaction on `file`, growing the map and
  // retrying when it is full. `body` returns an LMDB code.
  template <typename Body>
  int write(wztable::LmdbFile& file, Body body);

  int beginRead(bool needData, bool needIndex);
  // Ends the read transactions (before a write, a map growth or a close).
  void endRead();
  // Ends the read transactions of one operation on every path.
  struct ReadScope {
    Impl& impl;
    ~ReadScope() { impl.endRead(); }
  };

  // ---- records (TableWrites.cpp) ----
  int addRecord(const uint8_t* record);
  int modifyRecord(const uint8_t* record);
  int deleteRecord();
  size_t storedRecordLength(const uint8_t* record) const;
  void buildKeys(const uint8_t* record, std::vector<std::vector<uint8_t>>& out) const;
  int commitIndexChanges(uint64_t recno, const std::vector<std::vector<uint8_t>>* removed,
                         const std::vector<std::vector<uint8_t>>* added);

  // ---- reads (TableReads.cpp) ----
  int checkIndex(int idx, bool allowPhysical) const;
  void expand(const MDB_val& stored, uint8_t* out) const;
  int fetch(uint64_t recno, uint8_t* out);
  void setCurrent(int idx, const MDB_val& key, uint64_t recno);
  int finishRead(int idx, int rc, MDB_val* key, MDB_val* value, void* buffer);
  Seek seekEntry(int idx, const uint8_t* key, size_t keyLen, uint64_t recno, MDB_val* k,
                 MDB_val* v, int* rc);
  int positionFromCurrent(int idx, Seek* where, MDB_val* k, MDB_val* v);
  int keyedRead(int idx, const void* key, void* buffer, int mode);
  int step(int idx, void* buffer, bool forward, bool inSet);
  int edgeRead(int idx, void* buffer, bool first);
  int setRead(int idx, const void* key, void* buffer, int prefixLength, bool first);
  bool inSet(const MDB_val& key) const;
  int readRun(int idx, const void* key, int prefixLength, RunReceiver& receiver);
  int readByNumber(void* buffer, int recordNumber, int length, size_t limit);

  // ---- maintenance (TableRebuild.cpp) ----
  int rebuild();
  int sortAllIndexes(std::vector<std::unique_ptr<wztable::ExternalSorter>>& sorters);
  int loadIndex(int idx, wztable::ExternalSorter& sorter);
  int consistency(std::string* report);
};

template <typename Body>
int TCtreeTable::Impl::write(wztable::LmdbFile& file, Body body) {
  endRead();
  for (;;) {
    MDB_txn* txn = nullptr;
    int rc = mdb_txn_begin(file.env(), nullptr, 0, &txn);
    if (rc != MDB_SUCCESS) return wztable::statusFromMdb(rc);
    rc = body(txn);
    if (rc == MDB_SUCCESS) {
      rc = mdb_txn_commit(txn);
    } else {
      mdb_txn_abort(txn);
    }
    if (rc == MDB_MAP_FULL) {
      int status = file.grow();
      if (status != 0) return status;
      continue;
    }
    return wztable::statusFromMdb(rc);
  }
}
