// TCtreeTable::Impl: the state of one table object (schema, open files,
// transactions, write-ahead log, per-thread positions, key builder) and the
// operations behind TCtreeTable's public calls. Private to libWzTable; split
// over TableLifecycle.cpp, TableCreate.cpp, TableGroup.cpp, TableKeys.cpp,
// TableWrites.cpp, TableReads.cpp and TableRebuild.cpp.
//
// Every public call holds `mutex` for its whole length, so one table object
// may be used from several threads. Each thread has its own current record
// and set (ThreadState): a locate-then-modify sequence is not disturbed by
// another thread's reads.
#pragma once

#include <lmdb.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "ExternalSorter.h"
#include "LmdbFile.h"
#include "LogFlusher.h"
#include "TableLog.h"
#include "TableSchema.h"
#include "table/TCtreeTable.h"

struct TCtreeTable::Impl {
  explicit Impl(TCtreeTable* owner) : self(owner) {}

  using Keys = std::vector<std::vector<uint8_t>>;

  // Where a seek for the entry (key, record number) landed.
  enum class Seek { kAt, kAfter, kEnd };

  struct Current {
    bool valid = false;   // a read located a record
    bool exists = false;  // that record has not been deleted since
    int index = -1;
    std::vector<uint8_t> key;  // stored key on `index` (index >= 0)
    uint64_t recno = 0;
  };
  struct Set {
    bool active = false;
    int index = 0;
    std::vector<uint8_t> prefix;
  };
  struct ThreadState {
    Current current;
    Set set;
    int bulk = 0;  // nesting depth of BulkWrites scopes on this thread
    // Key builder (fillKeySegment / finishKey).
    int buildIndex = -1;
    char* buildStart = nullptr;
    char* buildNext = nullptr;
    int buildWritten = 0;
  };

  TCtreeTable* self;
  std::recursive_mutex mutex;
  wztable::TableSchema schema;
  wztable::TableLimits limits;
  std::string name;
  bool bypass = false;
  size_t rebuildMemory = size_t{64} << 20;
  bool verifyRequested = false;  // setVerifyOnOpen(true)
  bool verifyAlways = false;     // check every page at open, closed cleanly or not

  // ---- open state ----
  bool open = false;
  bool readOnly = false;
  wztable::LmdbFile data;
  wztable::LmdbFile index;
  MDB_dbi dataMain = 0, records = 0, indexMain = 0;
  std::vector<MDB_dbi> indexDbi;
  uint8_t tableId[16] = {};
  uint64_t nextRecno = 1;
  uint64_t committedNextRecno = 1;
  bool suspended = false;   // indexing suspended (recorded in the index file)
  bool indexStale = false;  // indexes behind the data and not rebuilt yet
  bool legacyFiles = false; // files without log sequence numbers (older engine)

  // ---- durability (read-write tables) ----
  wztable::TableLog log;  // opened by the session's first write, or by replay at open
  wztable::LogFlusher flusher;
  int syncIntervalMs = 1000;           // 0: every write is flushed before it returns
  uint64_t logLimit = uint64_t{64} << 20;  // a checkpoint when the log holds more
  int readerWaitMs = 30000;            // how long a write waits for old snapshots
  uint64_t dataLsn = 0, indexLsn = 0;  // what the two files hold, committed
  int failure = 0;                     // sticky status of a failed flush or checkpoint
  wztable::LmdbFile* fullFile = nullptr;  // the file whose map ran out during an apply

  // ---- transactions ----
  // Read-write: one write transaction per file spans many operations (the
  // group), committed at a checkpoint; every read runs inside it and so sees
  // every write. Read-only: read transactions, renewed for every call, each
  // pinning the snapshot it reads (FileLocks.h).
  MDB_txn* dataTxn = nullptr;
  MDB_txn* indexTxn = nullptr;
  bool dataActive = false;
  bool indexActive = false;
  uint64_t dataPin = 0, indexPin = 0;  // read-only: the pinned snapshots
  MDB_cursor* recordCursor = nullptr;
  std::vector<MDB_cursor*> indexCursor;
  // The cursor of index `positionedIndex` (-1: records) sits on the current
  // record's entry of thread state `positionedFor`, so next/previous can step
  // without a seek.
  bool positioned = false;
  int positionedIndex = 0;
  const ThreadState* positionedFor = nullptr;

  // ---- per-thread state ----
  std::unordered_map<std::thread::id, ThreadState> threads;
  std::thread::id lastThread;
  ThreadState* lastState = nullptr;
  ThreadState& ts();

  // Scratch buffers reused by every operation, and by replays (which run
  // inside a write that is to be retried).
  std::vector<uint8_t> image, oldImage, replayImage, replayOld;
  Keys keys, oldKeys, replayKeys, replayOldKeys;

  // ---- files (TableLifecycle.cpp, TableCreate.cpp) ----
  std::string dataPath() const { return name + ".dat"; }
  std::string indexPath() const { return name + ".idx"; }
  std::string logPath() const { return name + ".log"; }
  int openFiles(WZIndexing::TAccessEnum mode);
  void finishInterruptedCopy();
  int createFiles();
  int initializeFiles();
  int loadOpenState();
  int loadRecordState();
  int verifyFiles(bool deep);
  int closeFiles();
  void dropTransactions();
  void prepareBuffers();
  void readSettings();
  int setIndexState(bool suspendedFlag);
  bool indexUsable() const { return !suspended && !indexStale; }

  // Runs `body` in a write transaction of its own on `file`, committed and
  // synced, growing the map and retrying when it is full. For maintenance
  // only (create, rebuild, index state), with no group open.
  template <typename Body>
  int write(wztable::LmdbFile& file, Body body);

  // ---- group, log, checkpoint, replay (TableGroup.cpp) ----
  // The group: opened when missing, rebuilt from the log when the log holds
  // writes the files do not (after a failure); openGroup opens it as it is.
  int beginGroup();
  int openGroup();
  bool roomLow(const wztable::LmdbFile& file, MDB_txn* txn, uint64_t groupStart) const;
  uint64_t dataGroupStart = 0, indexGroupStart = 0;  // next pages when the group began
  bool growthBlocked = false;  // the last growth failed: checkpoints for room are of no use
  std::chrono::steady_clock::time_point lastRecycle;  // last checkpoint made for a full map
  void abortGroup();
  int checkpoint();
  int recover(wztable::LmdbFile* grow);
  int replayLog();
  // Opens the log at the session's first write and makes room in it for a
  // record of `length` bytes (checkpointing when the log cannot grow).
  int reserveLog(size_t length);
  // Applies one write to the group, then appends it to the log (writes
  // have been checked by the caller; a unique key taken answers
  // TBL_DUPLICATE_KEY with nothing changed).
  int applyWrite(wztable::TableLog::Op op, uint64_t recno, const uint8_t* full, size_t length,
                 const Keys* removed, const Keys* added);
  int afterWrite();
  void reportFlushFailure(int status, const char* when);
  // Moves a record's index entries: removes `removed` (keys it had), adds
  // `added` (keys it gets); indexes whose key stays are not touched. A key
  // taken by another record on a unique index gives MDB_KEYEXIST with every
  // index as it was. Any other failure leaves the group to recover().
  int applyIndexChange(uint64_t recno, const Keys* removed, const Keys* added);
  // Adds, replaces or deletes the stored record `recno` in the data file.
  int applyData(wztable::TableLog::Op op, uint64_t recno, const uint8_t* stored, size_t length);
  int putLsn(MDB_txn* txn, MDB_dbi main, uint64_t lsn);

  // Opens a read transaction on the newest snapshot of `file`, pinned so
  // that no writer reuses its pages meanwhile (unpinSnapshot when done).
  static int beginPinnedRead(wztable::LmdbFile& file, MDB_txn** txn, uint64_t* pin);
  int beginRead(bool needData, bool needIndex);
  int beginReadOnce(bool needData, bool needIndex);
  // Ends the read transactions of a read-only table (a read-write table
  // keeps its group open).
  void endRead();
  // Ends the read transactions of one operation on every path.
  struct ReadScope {
    Impl& impl;
    ~ReadScope() { impl.endRead(); }
  };

  // ---- records (TableWrites.cpp) ----
  int writeAllowed();
  int addRecord(const uint8_t* record);
  int modifyRecord(const uint8_t* record);
  int deleteRecord();
  size_t storedRecordLength(const uint8_t* record) const;
  void buildKeys(const uint8_t* record, std::vector<std::vector<uint8_t>>& out) const;

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
  bool inSet(const Set& set, const MDB_val& key) const;
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
  for (;;) {
    if (!file.env()) return TBL_IO_ERROR;  // closed by a failed growth
    MDB_txn* txn = nullptr;
    int rc = mdb_txn_begin(file.env(), nullptr, 0, &txn);
    if (rc != MDB_SUCCESS) return wztable::statusFromMdb(rc);
    rc = body(txn);
    if (rc == MDB_SUCCESS) {
      rc = mdb_txn_commit(txn);
      // A commit that could not be written or synced is a failed flush.
      if (rc != MDB_SUCCESS && rc != MDB_MAP_FULL)
        self->debug(-1, "Table %s: committing %s failed (%s)", name.c_str(), file.path().c_str(),
                    mdb_strerror(rc));
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
