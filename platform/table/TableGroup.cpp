// The write path's durability: group transactions, the write-ahead log,
// checkpoints, recovery and replay.
//
// A read-write table keeps one LMDB write transaction per file open across
// many operations (the group). Each write is first appended to the log (one
// write() before the call returns: a killed process loses nothing that
// returned success), then applied to the group. A checkpoint commits the index
// file's group and then the data file's, each synced by LMDB (data pages,
// then the meta page) and stamped with the LSN of the last write it holds,
// then restarts the log. The LMDB files therefore change on the disk only at
// checkpoints, and always from one synced state to the next: a power loss
// finds them at the last checkpoint, and the log, flushed every sync interval,
// brings them forward from there.
//
// Replay applies the log's records in order to whichever file does not hold
// them yet (LSN above the file's), so it is idempotent; recovery (a full map,
// a failed commit) aborts the group and replays the log into a new one.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <thread>

#include "FileLocks.h"
#include "KeyCodec.h"
#include "TableFormat.h"
#include "TableImpl.h"

using namespace wztable;

namespace {

MDB_val valOf(const void* data, size_t size) {
  MDB_val v;
  v.mv_data = const_cast<void*>(data);
  v.mv_size = size;
  return v;
}

// An apply that met a full map: recovery grows the file and replays.
constexpr int kMapFull = MDB_MAP_FULL;

bool groupNeedsRecovery(int rc) { return rc == MDB_MAP_FULL || rc == MDB_TXN_FULL; }

}  // namespace

TCtreeTable::Impl::ThreadState& TCtreeTable::Impl::ts() {
  const std::thread::id id = std::this_thread::get_id();
  if (lastState && id == lastThread) return *lastState;
  ThreadState& state = threads[id];
  lastThread = id;
  lastState = &state;
  return state;
}

// ---------------------------------------------------------------------------
// Transactions

int TCtreeTable::Impl::beginGroup() {
  if (dataTxn) return TBL_OK;
  if (!data.env() || !index.env()) return failure ? failure : TBL_IO_ERROR;
  // Room for the group, when the disk has it (a file is opened at its own
  // size): growing inside a group costs a replay. A full disk is reported by
  // the write that needs the room.
  data.ensureRoom(data.growStep());
  index.ensureRoom(index.growStep());
  // The group may reuse pages that snapshots older than the last commit
  // hold; readers of other table objects must have left them.
  int status = waitForOlderReaders(data.fd(), data.lastTxnId());
  if (status == TBL_OK) status = waitForOlderReaders(index.fd(), index.lastTxnId());
  if (status != TBL_OK) return status;
  int rc = mdb_txn_begin(data.env(), nullptr, 0, &dataTxn);
  if (rc != MDB_SUCCESS) {
    dataTxn = nullptr;
    return statusFromMdb(rc);
  }
  rc = mdb_txn_begin(index.env(), nullptr, 0, &indexTxn);
  if (rc == MDB_SUCCESS) rc = mdb_cursor_open(dataTxn, records, &recordCursor);
  indexCursor.assign(indexDbi.size(), nullptr);
  for (size_t i = 0; rc == MDB_SUCCESS && i < indexDbi.size(); ++i)
    rc = mdb_cursor_open(indexTxn, indexDbi[i], &indexCursor[i]);
  if (rc != MDB_SUCCESS) {
    abortGroup();
    return statusFromMdb(rc);
  }
  dataActive = indexActive = true;
  positioned = false;
  return TBL_OK;
}

void TCtreeTable::Impl::abortGroup() {
  // Cursors of write transactions end with them.
  if (indexTxn) mdb_txn_abort(indexTxn);
  if (dataTxn) mdb_txn_abort(dataTxn);
  indexTxn = dataTxn = nullptr;
  recordCursor = nullptr;
  indexCursor.assign(indexDbi.size(), nullptr);
  dataActive = indexActive = false;
  positioned = false;
}

namespace {

uint64_t readLsn(MDB_txn* txn, MDB_dbi main, bool* present) {
  MDB_val key = valOf(kLsnKey, std::strlen(kLsnKey)), value;
  uint64_t lsn = 0;
  *present = mdb_get(txn, main, &key, &value) == MDB_SUCCESS && value.mv_size == sizeof lsn;
  if (*present) std::memcpy(&lsn, value.mv_data, sizeof lsn);
  return lsn;
}

}  // namespace

int TCtreeTable::Impl::beginPinnedRead(LmdbFile& file, MDB_txn** txn, uint64_t* pin) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const uint64_t snapshot = file.lastTxnId();
    int status = pinSnapshot(file.fd(), snapshot);
    if (status != TBL_OK) return status;
    int rc = *txn ? mdb_txn_renew(*txn) : mdb_txn_begin(file.env(), nullptr, MDB_RDONLY, txn);
    if (rc == MDB_MAP_RESIZED) {
      // A writer grew the file: map what its last commit records.
      unpinSnapshot(file.fd(), snapshot);
      if (*txn) mdb_txn_abort(*txn);
      *txn = nullptr;
      rc = mdb_env_set_mapsize(file.env(), 0);
      if (rc != MDB_SUCCESS) return statusFromMdb(rc);
      continue;
    }
    if (rc != MDB_SUCCESS) {
      unpinSnapshot(file.fd(), snapshot);
      if (*txn) mdb_txn_abort(*txn);
      *txn = nullptr;
      return statusFromMdb(rc);
    }
    if (mdb_txn_id(*txn) == snapshot) {
      *pin = snapshot;
      return TBL_OK;
    }
    // A commit came between: pin the newer snapshot instead.
    mdb_txn_reset(*txn);
    unpinSnapshot(file.fd(), snapshot);
  }
  return TBL_IN_USE;
}

namespace {
// Answer of beginReadOnce while a writer is between its two commits.
constexpr int kRetry = -2;
}  // namespace

// Read-only: one attempt at read transactions on the newest snapshots.

int TCtreeTable::Impl::beginReadOnce(bool needData, bool needIndex) {
  // The index snapshot must describe the data snapshot, so an index read
  // reads both.
  if (needIndex && !legacyFiles) needData = true;
  int rc = MDB_SUCCESS;
  if (needData && !dataActive) {
    int status = beginPinnedRead(data, &dataTxn, &dataPin);
    if (status != TBL_OK) return status;
    dataActive = true;
    rc = recordCursor ? mdb_cursor_renew(dataTxn, recordCursor)
                      : mdb_cursor_open(dataTxn, records, &recordCursor);
    if (rc != MDB_SUCCESS) {
      endRead();
      return statusFromMdb(rc);
    }
  }
  if (!needIndex || indexActive) return TBL_OK;
  int status = beginPinnedRead(index, &indexTxn, &indexPin);
  if (status != TBL_OK) {
    endRead();
    return status;
  }
  indexActive = true;
  indexCursor.resize(indexDbi.size(), nullptr);
  for (size_t i = 0; i < indexDbi.size() && rc == MDB_SUCCESS; ++i)
    rc = indexCursor[i] ? mdb_cursor_renew(indexTxn, indexCursor[i])
                        : mdb_cursor_open(indexTxn, indexDbi[i], &indexCursor[i]);
  if (rc != MDB_SUCCESS) {
    endRead();
    return statusFromMdb(rc);
  }
  if (legacyFiles) return TBL_OK;
  IndexState state{};
  MDB_val key = valOf(kStateKey, std::strlen(kStateKey)), value;
  if (mdb_get(indexTxn, indexMain, &key, &value) == MDB_SUCCESS && value.mv_size == sizeof state)
    std::memcpy(&state, value.mv_data, sizeof state);
  bool dataHas = false, indexHas = false;
  const uint64_t dataAt = readLsn(dataTxn, dataMain, &dataHas);
  const uint64_t indexAt = readLsn(indexTxn, indexMain, &indexHas);
  if (state.suspended == 0 && dataAt == indexAt) return TBL_OK;
  endRead();
  // A writer between its two commits, or rebuilding: wait for it. Left so
  // by a writer that was killed: the indexes cannot be trusted.
  if (!writerPresent(data.fd())) return TBL_INDEX_SUSPENDED;
  return state.suspended ? TBL_INDEX_SUSPENDED : kRetry;
}

int TCtreeTable::Impl::beginRead(bool needData, bool needIndex) {
  if (!readOnly) return beginGroup();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (;;) {
    int status = beginReadOnce(needData, needIndex);
    if (status != kRetry) return status;
    if (std::chrono::steady_clock::now() > deadline) return TBL_IN_USE;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void TCtreeTable::Impl::endRead() {
  if (!readOnly) return;
  // A reset transaction is inactive: its snapshot is released.
  if (dataActive) {
    mdb_txn_reset(dataTxn);
    unpinSnapshot(data.fd(), dataPin);
  }
  if (indexActive) {
    mdb_txn_reset(indexTxn);
    unpinSnapshot(index.fd(), indexPin);
  }
  dataActive = indexActive = false;
  positioned = false;
}

// ---------------------------------------------------------------------------
// Applying writes (live and replayed)

int TCtreeTable::Impl::putLsn(MDB_txn* txn, MDB_dbi main, uint64_t lsn) {
  MDB_val key = valOf(kLsnKey, std::strlen(kLsnKey)), value = valOf(&lsn, sizeof lsn);
  return mdb_put(txn, main, &key, &value, 0);
}

int TCtreeTable::Impl::applyAdd(uint64_t recno, const uint8_t* full, size_t length, bool toData,
                                bool toIndex, const std::vector<std::vector<uint8_t>>* builtKeys) {
  int rc = MDB_SUCCESS;
  if (toIndex) {
    if (!builtKeys) {
      buildKeys(full, keys);
      builtKeys = &keys;
    }
    MDB_val value = valOf(&recno, sizeof recno);
    for (size_t i = 0; rc == MDB_SUCCESS && i < indexDbi.size(); ++i) {
      const TableIndex& idx = schema.indexes()[i];
      const auto& k = (*builtKeys)[i];
      MDB_val key = valOf(k.data(), storedKeyLength(idx, k.data(), k.size()));
      rc = mdb_put(indexTxn, indexDbi[i], &key, &value, idx.duplicates ? MDB_NODUPDATA : MDB_NOOVERWRITE);
    }
    if (rc == MDB_MAP_FULL) fullFile = &index;
    if (rc != MDB_SUCCESS) return rc;
  }
  if (toData) {
    MDB_val key = valOf(&recno, sizeof recno), value = valOf(full, length);
    rc = mdb_put(dataTxn, records, &key, &value, MDB_APPEND);
    if (rc == MDB_MAP_FULL) fullFile = &data;
    if (rc != MDB_SUCCESS) return rc;
  }
  if (recno >= nextRecno) nextRecno = recno + 1;
  return MDB_SUCCESS;
}

int TCtreeTable::Impl::applyModify(uint64_t recno, const uint8_t* full, size_t length,
                                   bool toData, bool toIndex,
                                   const std::vector<std::vector<uint8_t>>* previousKeys) {
  int rc = MDB_SUCCESS;
  if (toIndex) {
    if (!previousKeys) {
      int status = fetch(recno, oldImage.data());
      if (status != TBL_OK) return status == TBL_NOT_FOUND ? MDB_CORRUPTED : MDB_PANIC;
      buildKeys(oldImage.data(), oldKeys);
      buildKeys(full, keys);
      previousKeys = &oldKeys;
    }
    MDB_val value = valOf(&recno, sizeof recno);
    for (size_t i = 0; rc == MDB_SUCCESS && i < indexDbi.size(); ++i) {
      const TableIndex& idx = schema.indexes()[i];
      const auto& before = (*previousKeys)[i];
      const auto& after = keys[i];
      if (before == after) continue;
      MDB_val oldKey = valOf(before.data(), storedKeyLength(idx, before.data(), before.size()));
      rc = mdb_del(indexTxn, indexDbi[i], &oldKey, idx.duplicates ? &value : nullptr);
      if (rc != MDB_SUCCESS) break;
      MDB_val newKey = valOf(after.data(), storedKeyLength(idx, after.data(), after.size()));
      rc = mdb_put(indexTxn, indexDbi[i], &newKey, &value,
                   idx.duplicates ? MDB_NODUPDATA : MDB_NOOVERWRITE);
    }
    if (rc == MDB_MAP_FULL) fullFile = &index;
    if (rc != MDB_SUCCESS) return rc;
  }
  if (toData) {
    MDB_val key = valOf(&recno, sizeof recno), value = valOf(full, length);
    rc = mdb_put(dataTxn, records, &key, &value, 0);
    if (rc == MDB_MAP_FULL) fullFile = &data;
  }
  return rc;
}

int TCtreeTable::Impl::applyDelete(uint64_t recno, bool toData, bool toIndex,
                                   const std::vector<std::vector<uint8_t>>* previousKeys) {
  int rc = MDB_SUCCESS;
  if (toIndex) {
    if (!previousKeys) {
      int status = fetch(recno, oldImage.data());
      if (status != TBL_OK) return status == TBL_NOT_FOUND ? MDB_CORRUPTED : MDB_PANIC;
      buildKeys(oldImage.data(), oldKeys);
      previousKeys = &oldKeys;
    }
    MDB_val value = valOf(&recno, sizeof recno);
    for (size_t i = 0; rc == MDB_SUCCESS && i < indexDbi.size(); ++i) {
      const TableIndex& idx = schema.indexes()[i];
      const auto& k = (*previousKeys)[i];
      MDB_val key = valOf(k.data(), storedKeyLength(idx, k.data(), k.size()));
      rc = mdb_del(indexTxn, indexDbi[i], &key, idx.duplicates ? &value : nullptr);
    }
    if (rc == MDB_MAP_FULL) fullFile = &index;
    if (rc != MDB_SUCCESS) return rc;
  }
  if (toData) {
    const bool highest = recno + 1 == nextRecno;
    MDB_val key = valOf(&recno, sizeof recno);
    rc = mdb_del(dataTxn, records, &key, nullptr);
    if (rc == MDB_SUCCESS && highest) {
      // Remember the number so that it is never handed out again.
      MDB_val hk = valOf(kHighWaterKey, std::strlen(kHighWaterKey)), hv = valOf(&recno, sizeof recno);
      rc = mdb_put(dataTxn, dataMain, &hk, &hv, 0);
    }
    if (rc == MDB_MAP_FULL) fullFile = &data;
  }
  return rc;
}

// ---------------------------------------------------------------------------
// Log, checkpoint, recovery

void TCtreeTable::Impl::reportFlushFailure(int status, const char* when) {
  self->debug(-1,
              "Table %s: %s failed (%s); the table stays at its last durable point and refuses "
              "writes until it is opened again",
              name.c_str(), when, errToString(status));
}

int TCtreeTable::Impl::logWrite(TableLog::Op op, uint64_t recno, const uint8_t* payload,
                                size_t length) {
  if (!log.isOpen()) {
    // The session's first write: from now on a crash leaves the log behind,
    // and the next open replays it.
    int status = log.create(logPath(), tableId, dataLsn, schema.recordSize());
    if (status != TBL_OK) {
      self->debug(-1, "Table %s: cannot create the log %s (%s)", name.c_str(), logPath().c_str(),
                  errToString(status));
      return status;
    }
    if (syncIntervalMs > 0)
      flusher.start(&log, std::chrono::milliseconds(syncIntervalMs),
                    [this](int s) { reportFlushFailure(s, "flushing the log"); });
  }
  return log.append(op, recno, payload, static_cast<uint32_t>(length), ts().bulk > 0, nullptr);
}

int TCtreeTable::Impl::afterApplyFailure(int rc) {
  // The group is unusable now. With a full map: grow it and replay the log,
  // which holds this write too. Otherwise, or when the map cannot grow, the
  // write is taken back out of the log and the group rebuilt without it.
  positioned = false;
  if (groupNeedsRecovery(rc)) {
    LmdbFile* full = rc == MDB_MAP_FULL ? fullFile : nullptr;
    int status = recover(full);
    if (status == TBL_OK) return TBL_OK;
    rc = status;
  } else {
    rc = statusFromMdb(rc);
  }
  int status = log.dropLast();
  if (status == TBL_OK) status = recover(nullptr);
  if (status != TBL_OK) {
    failure = status;
    reportFlushFailure(status, "taking back a failed write");
  }
  return rc;
}

int TCtreeTable::Impl::afterWrite() {
  positioned = false;
  if (syncIntervalMs == 0 && ts().bulk == 0) {
    int status = log.sync();
    if (status != TBL_OK) {
      failure = status;
      reportFlushFailure(status, "flushing the log");
      return status;
    }
  }
  if (log.recordBytes() >= logLimit) {
    int status = checkpoint();
    // The write itself is in the log; a failed checkpoint fails the next one.
    (void)status;
  }
  return TBL_OK;
}

int TCtreeTable::Impl::checkpoint() {
  if (!open || readOnly) return TBL_OK;
  int status = log.isOpen() ? log.flushBuffer() : TBL_OK;
  if (status != TBL_OK) {
    failure = status;
    reportFlushFailure(status, "writing the log");
    return status;
  }
  // The log goes to the disk before the files move past it, so that the
  // files never hold a write that a power loss could take from the log.
  status = log.isOpen() ? log.sync() : TBL_OK;
  if (status != TBL_OK) {
    failure = status;
    reportFlushFailure(status, "flushing the log");
    return status;
  }
  const uint64_t lsn = log.isOpen() && log.lastLsn() > dataLsn ? log.lastLsn() : dataLsn;
  if (dataTxn && lsn != dataLsn) {
    for (int attempt = 0;; ++attempt) {
      int rc = indexUsable() ? putLsn(indexTxn, indexMain, lsn) : MDB_SUCCESS;
      if (rc == MDB_MAP_FULL) fullFile = &index;
      if (rc == MDB_SUCCESS) {
        rc = putLsn(dataTxn, dataMain, lsn);
        if (rc == MDB_MAP_FULL) fullFile = &data;
      }
      if (rc == MDB_SUCCESS) {
        // The index file first: whatever a crash interrupts, the index never
        // lags the data (replay needs the data's old images for it).
        rc = mdb_txn_commit(indexTxn);
        indexTxn = nullptr;
        if (rc == MDB_SUCCESS && indexUsable()) indexLsn = lsn;
        if (rc == MDB_MAP_FULL) fullFile = &index;
      }
      if (rc == MDB_SUCCESS) {
        rc = mdb_txn_commit(dataTxn);
        dataTxn = nullptr;
        if (rc == MDB_SUCCESS) dataLsn = lsn;
        if (rc == MDB_MAP_FULL) fullFile = &data;
      }
      recordCursor = nullptr;
      indexCursor.assign(indexDbi.size(), nullptr);
      if (rc == MDB_SUCCESS) break;
      abortGroup();
      if (rc == MDB_MAP_FULL && attempt < 8) {
        // Committing needs room for the free-page lists: grow and try again.
        status = recover(fullFile);
        if (status == TBL_OK) continue;
      } else {
        status = statusFromMdb(rc);
      }
      failure = status;
      reportFlushFailure(status, "committing the table files");
      int restored = recover(nullptr);  // reads still see every write
      (void)restored;
      return status;
    }
    dataActive = indexActive = false;
    positioned = false;
    committedNextRecno = nextRecno;
    legacyFiles = false;
  } else if (dataTxn) {
    abortGroup();  // nothing written since the last checkpoint
  }
  if (log.isOpen() && (log.lastLsn() != dataLsn || log.baseLsn() != dataLsn)) {
    status = log.restart(dataLsn);
    if (status != TBL_OK) {
      failure = status;
      reportFlushFailure(status, "restarting the log");
      return status;
    }
  }
  return TBL_OK;
}

int TCtreeTable::Impl::recover(LmdbFile* grow) {
  abortGroup();
  nextRecno = committedNextRecno;
  for (int attempt = 0; attempt < 64; ++attempt) {
    if (grow) {
      // Each further attempt asks for at least twice as much room as the one
      // before (a step never below the file's growth step, unless the disk
      // has less).
      int status = grow->grow(size_t{1} << (20 + (attempt < 12 ? attempt : 12)));
      if (status != TBL_OK) {
        if (!grow->env()) {
          failure = status;
          self->debug(-1, "Table %s: the map of %s could not grow (%s) and is closed", name.c_str(),
                      grow->path().c_str(), errToString(status));
        }
        return status;
      }
    }
    int status = beginGroup();
    if (status != TBL_OK) return status;
    if (!log.isOpen()) return TBL_OK;
    fullFile = nullptr;
    status = log.replay([this](const TableLog::Record& r) -> int {
      const bool toData = r.lsn > dataLsn;
      const bool toIndex = indexUsable() && r.lsn > indexLsn;
      if (toIndex && !toData) {
        // The index file lags the data file: it cannot be brought forward
        // from the log and is rebuilt instead.
        indexStale = true;
      }
      const bool indexToo = toIndex && toData;
      if (!toData) {
        if (r.op == TableLog::kAdd && r.recno >= nextRecno) nextRecno = r.recno + 1;
        return TBL_OK;
      }
      int rc = MDB_SUCCESS;
      if (r.op == TableLog::kDelete) {
        rc = applyDelete(r.recno, true, indexToo, nullptr);
      } else {
        if (r.length > schema.recordSize()) return TBL_BAD_FORMAT;
        std::memcpy(image.data(), r.payload, r.length);
        std::memset(image.data() + r.length, 0, schema.recordSize() - r.length);
        rc = r.op == TableLog::kAdd ? applyAdd(r.recno, image.data(), r.length, true, indexToo, nullptr)
                                    : applyModify(r.recno, image.data(), r.length, true, indexToo, nullptr);
      }
      if (rc == MDB_SUCCESS) return TBL_OK;
      if (rc == MDB_MAP_FULL) return kMapFull;
      self->debug(-1, "Table %s: the log's write %" PRIu64 " cannot be applied (%s)", name.c_str(),
                  r.lsn, mdb_strerror(rc));
      return rc == MDB_KEYEXIST || rc == MDB_NOTFOUND || rc == MDB_CORRUPTED ? TBL_BAD_FORMAT
                                                                           : statusFromMdb(rc);
    });
    if (status == TBL_OK) return TBL_OK;
    abortGroup();
    nextRecno = committedNextRecno;
    if (status != kMapFull) return status;
    grow = fullFile;
  }
  return TBL_FILE_FULL;
}

int TCtreeTable::Impl::replayLog() {
  int status = log.open(logPath(), false, schema.recordSize());
  if (status == TBL_FILE_MISSING) return TBL_OK;
  if (status != TBL_OK && TableLog::unwritten(logPath())) {
    // A process was killed while it made the log: no write reached it.
    if (::unlink(logPath().c_str()) != 0) return statusFromMdb(errno);
    self->debug(0, "Table %s: removed the log %s, which a process killed while making it left empty",
                name.c_str(), logPath().c_str());
    return TBL_OK;
  }
  if (status != TBL_OK) {
    self->debug(-1, "Table %s: the log %s is damaged or not a log of this engine", name.c_str(),
                logPath().c_str());
    return status == TBL_FILE_MISSING ? TBL_OK : TBL_BAD_FORMAT;
  }
  if (std::memcmp(log.tableId(), tableId, sizeof tableId) != 0) {
    self->debug(-1, "Table %s: the log %s belongs to another table", name.c_str(), logPath().c_str());
    log.close(false);
    return TBL_FILES_MISMATCH;
  }
  const uint64_t from = indexUsable() && indexLsn < dataLsn ? indexLsn : dataLsn;
  if (log.baseLsn() > from) {
    self->debug(-1,
                "Table %s: the log %s does not continue the table files (it starts after write "
                "%" PRIu64 ", the files hold %" PRIu64 ")",
                name.c_str(), logPath().c_str(), log.baseLsn(), from);
    log.close(false);
    return TBL_BAD_FORMAT;
  }
  const uint64_t before = dataLsn;
  status = recover(nullptr);
  if (status == TBL_OK) status = checkpoint();
  if (status != TBL_OK) {
    abortGroup();
    log.close(false);
    return status;
  }
  self->debug(0, "Table %s: replayed %" PRIu64 " writes from the log %s", name.c_str(),
              dataLsn - before, logPath().c_str());
  if (syncIntervalMs > 0)
    flusher.start(&log, std::chrono::milliseconds(syncIntervalMs),
                  [this](int s) { reportFlushFailure(s, "flushing the log"); });
  return TBL_OK;
}
