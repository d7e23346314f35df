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
#include "TableHeaders.h"
#include "TableImpl.h"

using namespace wztable;

namespace {

// An apply that met a full map: recovery grows the file and replays.
constexpr int kMapFull = MDB_MAP_FULL;

// Free disk room, past both files' growth steps, below which files grow
// only when short of room: what a log of a busy interval takes.
constexpr size_t kPageSize = 4096;  // LMDB's page on x86-64
constexpr uint64_t kSpareDiskRoom = uint64_t{16} << 20;

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
  // A group lost to a failure while the log holds writes past the files
  // comes back only by a replay: a plain group would lack those writes, and
  // its checkpoint would stamp the files with their LSN and drop the log.
  if (log.isOpen() && log.lastLsn() > dataLsn) return recover(nullptr);
  return openGroup();
}

int TCtreeTable::Impl::openGroup() {
  if (!data.env() || !index.env()) return failure ? failure : TBL_IO_ERROR;
  // Room for the group (a file is opened at its own size): growing inside a
  // group costs a replay, so a file grows by a whole step ahead of need when
  // the disk has that to spare. Near a full disk a file grows only once it
  // is short of room, by as little as will do, so that what is left goes to
  // whichever of the two files and the log needs it first. A full disk is
  // reported by the write that needs the room.
  const bool ample = data.diskRoom() >= data.growStep() + index.growStep() + kSpareDiskRoom;
  growthBlocked = false;
  for (LmdbFile* file : {&data, &index}) {
    const size_t want = ample ? file->growStep() : (2 * file->headroomPages() + 16) * kPageSize;
    if (file->ensureRoom(want) != TBL_OK) growthBlocked = true;
  }
  // The group may reuse pages that snapshots older than the last commit
  // hold; readers of other table objects must have left them.
  const auto patience = std::chrono::milliseconds(readerWaitMs);
  int status = waitForOlderReaders(data.fd(), data.lastTxnId(), patience);
  if (status == TBL_OK) status = waitForOlderReaders(index.fd(), index.lastTxnId(), patience);
  if (status == TBL_IN_USE)
    self->debug(-1,
                "Table %s: a reader has held an old snapshot of the files for %d ms; the "
                "write waited for it and is refused",
                name.c_str(), readerWaitMs);
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
  dataGroupStart = data.nextPage(dataTxn);
  indexGroupStart = index.nextPage(indexTxn);
  return TBL_OK;
}

bool TCtreeTable::Impl::roomLow(const LmdbFile& file, MDB_txn* txn, uint64_t groupStart) const {
  // A group that runs out of map must be replayed into a larger one: it is
  // committed first, while the map still has room for one more write and for
  // the lists of the pages it freed.
  const uint64_t next = file.nextPage(txn);
  if (next == 0 || groupStart == 0 || next <= groupStart) return false;
  const uint64_t headroom = file.headroomPages() + (next - groupStart) / 64;
  return next + headroom > file.mapPages();
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

int TCtreeTable::Impl::applyIndexChange(uint64_t recno, const Keys* removed, const Keys* added) {
  MDB_val value = valOf(&recno, sizeof recno);
  auto entry = [this](size_t i, const Keys& keys) {
    const auto& k = keys[i];
    return valOf(k.data(), storedKeyLength(schema.indexes()[i], k.data(), k.size()));
  };
  for (size_t i = 0; i < indexDbi.size(); ++i) {
    if (removed && added && (*removed)[i] == (*added)[i]) continue;
    const bool dups = schema.indexes()[i].duplicates;
    int rc = MDB_SUCCESS;
    if (added) {
      // The new entry first: on a unique index it meets any other record's
      // key here, and the indexes changed so far are put back.
      MDB_val key = entry(i, *added);
      rc = mdb_put(indexTxn, indexDbi[i], &key, &value, dups ? MDB_NODUPDATA : MDB_NOOVERWRITE);
      if (rc == MDB_KEYEXIST) {
        for (size_t j = i; j-- > 0;) {
          if (removed && (*removed)[j] == (*added)[j]) continue;
          MDB_val back = entry(j, *added);
          mdb_del(indexTxn, indexDbi[j], &back, schema.indexes()[j].duplicates ? &value : nullptr);
          if (removed) {
            MDB_val old = entry(j, *removed);
            mdb_put(indexTxn, indexDbi[j], &old, &value, 0);
          }
        }
        return rc;
      }
    }
    if (rc == MDB_SUCCESS && removed) {
      MDB_val key = entry(i, *removed);
      rc = mdb_del(indexTxn, indexDbi[i], &key, dups ? &value : nullptr);
    }
    if (rc != MDB_SUCCESS) {
      if (rc == MDB_MAP_FULL) fullFile = &index;
      return rc;
    }
  }
  return MDB_SUCCESS;
}

int TCtreeTable::Impl::applyData(TableLog::Op op, uint64_t recno, const uint8_t* stored,
                                 size_t length) {
  MDB_val key = valOf(&recno, sizeof recno);
  int rc;
  if (op == TableLog::kDelete) {
    const bool highest = recno + 1 == nextRecno;
    rc = mdb_del(dataTxn, records, &key, nullptr);
    if (rc == MDB_SUCCESS && highest) {
      // Remember the number so that it is never handed out again.
      MDB_val hk = valOf(kHighWaterKey, std::strlen(kHighWaterKey)), hv = valOf(&recno, sizeof recno);
      rc = mdb_put(dataTxn, dataMain, &hk, &hv, 0);
    }
  } else {
    MDB_val value = valOf(stored, length);
    const bool append = op == TableLog::kAdd && recno >= nextRecno;
    rc = mdb_put(dataTxn, records, &key, &value, append ? MDB_APPEND : 0);
    if (rc == MDB_SUCCESS && recno >= nextRecno) nextRecno = recno + 1;
  }
  if (rc == MDB_MAP_FULL) fullFile = &data;
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

int TCtreeTable::Impl::reserveLog(size_t length) {
  if (!log.isOpen()) {
    // The session's first write: from now on a crash leaves the log behind,
    // and the next open replays it.
    int status = log.create(logPath(), tableId, dataLsn, schema.recordSize());
    if (status != TBL_OK) {
      self->debug(-1, "Table %s: cannot create the log %s (%s)", name.c_str(), logPath().c_str(),
                  errToString(status));
      return status;
    }
  }
  if (syncIntervalMs > 0 && !flusher.running()) {
    // No write goes in without the thread that flushes it within the interval.
    int status = flusher.start(&log, std::chrono::milliseconds(syncIntervalMs),
                               [this](int s) { reportFlushFailure(s, "flushing the log"); });
    if (status != TBL_OK) {
      self->debug(-1, "Table %s: cannot start the thread that flushes the log (%s)", name.c_str(),
                  errToString(status));
      return status;
    }
  }
  int status = log.reserve(length);
  if (status != TBL_OK && log.recordBytes() > 0) {
    // No room to grow the log: the files take what it holds, and it starts
    // again from its beginning.
    int checkpointed = checkpoint();
    if (checkpointed != TBL_OK) return checkpointed;
    status = log.reserve(length);
  }
  if (status != TBL_OK)
    self->debug(-1, "Table %s: no room in the log %s for a write (%s)", name.c_str(),
                logPath().c_str(), errToString(status));
  return status;
}

int TCtreeTable::Impl::applyWrite(TableLog::Op op, uint64_t recno, const uint8_t* full,
                                  size_t length, const Keys* removed, const Keys* added) {
  // Room in the log first (a checkpoint may be needed to make it, which
  // must not see half a write); then the write is applied, and logged once
  // applied: a write that fails to apply never reaches the log. A failure
  // part-way leaves the group to be rebuilt from the log, which holds every
  // write before this one (growing the map when it was full), and the write
  // is tried again.
  int status = reserveLog(length);
  if (status != TBL_OK) return status;
  status = beginGroup();
  if (status != TBL_OK) return status;
  if (roomLow(data, dataTxn, dataGroupStart) || roomLow(index, indexTxn, indexGroupStart)) {
    // The group is committed while the map still has room for the commit
    // (the lists of the pages it freed); the next group grows the map. When
    // the map cannot grow (a full disk, a size limit), such a commit is what
    // lets later groups reuse the pages earlier ones replaced, at the cost of
    // disk flushes: a delete (which makes room) always gets one, other writes
    // one a second at most, and otherwise fail at once.
    const auto now = std::chrono::steady_clock::now();
    if (growthBlocked && op != TableLog::kDelete && now - lastRecycle < std::chrono::seconds(1))
      return TBL_FILE_FULL;
    if (growthBlocked) lastRecycle = now;
    status = checkpoint();
    if (status != TBL_OK) return status;
  }
  for (int attempt = 0;; ++attempt) {
    status = beginGroup();  // (a checkpoint above ends the group)
    if (status != TBL_OK) return status;
    int rc = (removed || added) ? applyIndexChange(recno, removed, added) : MDB_SUCCESS;
    if (rc == MDB_SUCCESS) rc = applyData(op, recno, full, length);
    if (rc == MDB_SUCCESS) break;
    if (rc == MDB_KEYEXIST && op != TableLog::kDelete) return TBL_DUPLICATE_KEY;
    const bool needsRoom = groupNeedsRecovery(rc);
    status = recover(rc == MDB_MAP_FULL ? fullFile : nullptr);
    if (!needsRoom) {
      if (status != TBL_OK) return status;
      return rc == MDB_NOTFOUND || rc == MDB_KEYEXIST ? TBL_BAD_FORMAT : statusFromMdb(rc);
    }
    if (status != TBL_OK) return status;  // the map cannot grow
    if (attempt >= 8) return TBL_FILE_FULL;
  }
  log.append(op, recno, full, static_cast<uint32_t>(length));
  return afterWrite();
}

int TCtreeTable::Impl::afterWrite() {
  positioned = false;
  if (syncIntervalMs == 0 && ts().bulk == 0) {
    int status = log.sync();
    if (status != TBL_OK) {
      // The write failed: it is taken back out of the log (which only it
      // holds unflushed) and out of the group, so that no replay brings it.
      failure = status;
      reportFlushFailure(status, "flushing the log");
      int undo = log.dropLast();
      if (undo == TBL_OK) undo = recover(nullptr);
      if (undo != TBL_OK) reportFlushFailure(undo, "taking back a write that was not flushed");
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
  // The log goes to the disk before the files move past it, so that the
  // files never hold a write that a power loss could take from the log.
  int status = log.isOpen() ? log.sync() : TBL_OK;
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
        // Without room the table keeps every write (in the group and the
        // log) and says so; nothing failed that a later checkpoint cannot do.
        status = recover(fullFile);
        if (status == TBL_OK) continue;
        if (status == TBL_FILE_FULL || status == TBL_NO_MEMORY) return status;
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
    // LMDB reuses the pages a commit freed only two commits later: one more,
    // tiny, lets the next group reuse what this group replaced, so a file
    // stays near its content's size however large the groups.
    for (LmdbFile* file : {&index, &data}) {
      const int rc = write(*file, [&](MDB_txn* txn) {
        return putLsn(txn, file == &data ? dataMain : indexMain, file == &data ? dataLsn : indexLsn);
      });
      if (rc != TBL_OK && rc != TBL_FILE_FULL) {
        failure = rc;
        reportFlushFailure(rc, "committing the table files");
        return rc;
      }
    }
  } else if (dataTxn) {
    abortGroup();  // nothing written since the last checkpoint
  }
  if (log.isOpen() && log.lastLsn() > dataLsn) {
    // The files do not hold the log's last writes (their commit failed, or
    // the group could not be made again after a failure): the log keeps
    // them for the next open to replay.
    return failure != TBL_OK ? failure : TBL_IO_ERROR;
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
  // The writes already in the log fitted in the map as it is: they are
  // replayed whether or not it grows; only a write that did not fit needs the
  // room, and learns from the answer whether it got it.
  int grown = TBL_OK;
  for (int attempt = 0; attempt < 64; ++attempt) {
    if (grow) {
      // Each further attempt asks for at least twice as much room as the one
      // before (a step never below the file's growth step, unless the disk
      // has less).
      const int status = grow->grow(size_t{1} << (20 + (attempt < 12 ? attempt : 12)));
      if (status != TBL_OK && !grow->env()) {
        failure = status;
        self->debug(-1, "Table %s: the map of %s could not grow (%s) and is closed", name.c_str(),
                    grow->path().c_str(), errToString(status));
        return status;
      }
      if (status != TBL_OK && attempt > 0) return status;  // replay itself needs room it cannot have
      growthBlocked = status != TBL_OK;
      grown = status;
      grow = nullptr;
    }
    int status = openGroup();
    if (status != TBL_OK) return status;
    if (!log.isOpen()) return grown;
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
      // The index entries move with the stored version the data file holds
      // before this write (the index is replayed only in step with it).
      // Replay has buffers of its own: a write that is retried after a
      // recovery still holds its keys and images in the others.
      int rc = MDB_SUCCESS;
      const bool had = r.op != TableLog::kAdd;
      if (indexToo && had) {
        int status = fetch(r.recno, replayOld.data());
        if (status != TBL_OK) return status == TBL_NOT_FOUND ? TBL_BAD_FORMAT : status;
        buildKeys(replayOld.data(), replayOldKeys);
      }
      if (r.op != TableLog::kDelete) {
        if (r.length > schema.recordSize()) return TBL_BAD_FORMAT;
        std::memcpy(replayImage.data(), r.payload, r.length);
        std::memset(replayImage.data() + r.length, 0, schema.recordSize() - r.length);
        if (indexToo) buildKeys(replayImage.data(), replayKeys);
      }
      if (indexToo)
        rc = applyIndexChange(r.recno, had ? &replayOldKeys : nullptr,
                              r.op != TableLog::kDelete ? &replayKeys : nullptr);
      if (rc == MDB_SUCCESS) rc = applyData(r.op, r.recno, replayImage.data(), r.length);
      if (rc == MDB_SUCCESS) return TBL_OK;
      if (rc == MDB_MAP_FULL) return kMapFull;
      self->debug(-1, "Table %s: the log's write %" PRIu64 " cannot be applied (%s)", name.c_str(),
                  r.lsn, mdb_strerror(rc));
      return rc == MDB_KEYEXIST || rc == MDB_NOTFOUND || rc == MDB_CORRUPTED ? TBL_BAD_FORMAT
                                                                           : statusFromMdb(rc);
    });
    if (status == TBL_OK) return grown;
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
  // The flusher starts with the session's first write (logWrite).
  return TBL_OK;
}
