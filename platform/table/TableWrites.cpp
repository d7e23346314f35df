// addRecord / modifyRecord / deleteRecord. Each commits the data file first,
// then the index file; the index file records the data file's transaction id
// it reflects, so an index left behind by a killed process is detected.
#include <cstring>

#include "KeyCodec.h"
#include "TableFormat.h"
#include "TableImpl.h"

using namespace wztable;

namespace {

// Room kept free in the index file before a record operation commits to the
// data file, so that the index commit that follows does not meet a full disk
// or file limit after the data has changed.
constexpr size_t kIndexHeadroom = size_t{512} << 10;

MDB_val valOf(const void* data, size_t size) {
  MDB_val v;
  v.mv_data = const_cast<void*>(data);
  v.mv_size = size;
  return v;
}

}  // namespace

size_t TCtreeTable::Impl::storedRecordLength(const uint8_t* record) const {
  size_t length = schema.recordSize();
  if (!schema.variableLength()) return length;
  const size_t fixed = schema.fixedRecordSize();
  while (length > fixed && record[length - 1] == 0) --length;
  return length;
}

void TCtreeTable::Impl::buildKeys(const uint8_t* record,
                                  std::vector<std::vector<uint8_t>>& out) const {
  for (size_t i = 0; i < out.size(); ++i) buildRecordKey(schema, static_cast<int>(i), record, out[i].data());
}

int TCtreeTable::Impl::commitIndexChanges(uint64_t recno,
                                          const std::vector<std::vector<uint8_t>>* removed,
                                          const std::vector<std::vector<uint8_t>>* added) {
  const IndexState state{data.lastTxnId(), 0, 0};
  int status = write(index, [&](MDB_txn* txn) {
    int rc = MDB_SUCCESS;
    MDB_val value = valOf(&recno, sizeof recno);
    for (size_t i = 0; rc == MDB_SUCCESS && i < indexDbi.size(); ++i) {
      const TableIndex& idx = schema.indexes()[i];
      if (removed && added && (*removed)[i] == (*added)[i]) continue;
      if (removed) {
        const auto& k = (*removed)[i];
        MDB_val key = valOf(k.data(), storedKeyLength(idx, k.data(), k.size()));
        rc = mdb_del(txn, indexDbi[i], &key, idx.duplicates ? &value : nullptr);
        if (rc != MDB_SUCCESS) break;
      }
      if (added) {
        const auto& k = (*added)[i];
        MDB_val key = valOf(k.data(), storedKeyLength(idx, k.data(), k.size()));
        rc = mdb_put(txn, indexDbi[i], &key, &value,
                     idx.duplicates ? MDB_NODUPDATA : MDB_NOOVERWRITE);
      }
    }
    if (rc == MDB_SUCCESS) {
      MDB_val key = valOf(kStateKey, std::strlen(kStateKey)), v = valOf(&state, sizeof state);
      rc = mdb_put(txn, indexMain, &key, &v, 0);
    }
    return rc;
  });
  if (status != TBL_OK) {
    // The data file holds the change; the indexes do not. Refuse index reads
    // until a rebuild (resumeIndexingAndRebuild or the next open).
    indexStale = true;
    self->debug(-1, "Table %s: index update failed (%s); the indexes are stale until rebuilt",
                name.c_str(), errToString(status));
  }
  return status;
}

int TCtreeTable::Impl::addRecord(const uint8_t* record) {
  if (!open) return TBL_NOT_OPEN;
  if (readOnly) return TBL_READ_ONLY;
  if (!record) return TBL_BAD_ARGUMENT;
  const bool indexed = indexUsable();
  if (indexed) {
    buildKeys(record, keys);
    int status = beginRead(false, true);
    if (status != TBL_OK) return status;
    for (size_t i = 0; status == TBL_OK && i < indexDbi.size(); ++i) {
      const TableIndex& idx = schema.indexes()[i];
      if (idx.duplicates) continue;
      MDB_val key = valOf(keys[i].data(), storedKeyLength(idx, keys[i].data(), keys[i].size()));
      MDB_val value;
      int rc = mdb_get(indexRead, indexDbi[i], &key, &value);
      if (rc == MDB_SUCCESS) status = TBL_DUPLICATE_KEY;
      else if (rc != MDB_NOTFOUND) status = statusFromMdb(rc);
    }
    endRead();
    if (status != TBL_OK) return status;
  }
  if (indexed) {
    int room = index.ensureRoom(kIndexHeadroom);
    if (room != TBL_OK) return room;
  }
  const uint64_t recno = nextRecno;
  const size_t length = storedRecordLength(record);
  int status = write(data, [&](MDB_txn* txn) {
    MDB_val key = valOf(&recno, sizeof recno), value = valOf(record, length);
    return mdb_put(txn, records, &key, &value, MDB_APPEND);
  });
  if (status != TBL_OK) return status;
  ++nextRecno;
  if (!indexed) return TBL_OK;
  return commitIndexChanges(recno, nullptr, &keys);
}

int TCtreeTable::Impl::modifyRecord(const uint8_t* record) {
  if (!open) return TBL_NOT_OPEN;
  if (readOnly) return TBL_READ_ONLY;
  if (!record) return TBL_BAD_ARGUMENT;
  if (!current.valid || !current.exists) return TBL_NO_CURRENT;
  const uint64_t recno = current.recno;
  const bool indexed = indexUsable();
  buildKeys(record, keys);
  if (indexed) {
    int status = beginRead(true, true);
    if (status != TBL_OK) return status;
    status = fetch(recno, oldImage.data());
    if (status == TBL_OK) {
      buildKeys(oldImage.data(), oldKeys);
      for (size_t i = 0; status == TBL_OK && i < indexDbi.size(); ++i) {
        const TableIndex& idx = schema.indexes()[i];
        if (idx.duplicates || keys[i] == oldKeys[i]) continue;
        MDB_val key = valOf(keys[i].data(), storedKeyLength(idx, keys[i].data(), keys[i].size()));
        MDB_val value;
        int rc = mdb_get(indexRead, indexDbi[i], &key, &value);
        if (rc == MDB_SUCCESS) status = TBL_DUPLICATE_KEY;
        else if (rc != MDB_NOTFOUND) status = statusFromMdb(rc);
      }
    }
    endRead();
    if (status == TBL_NOT_FOUND) return TBL_BAD_FORMAT;  // indexed record missing from the data
    if (status != TBL_OK) return status;
  }
  if (indexed) {
    int room = index.ensureRoom(kIndexHeadroom);
    if (room != TBL_OK) return room;
  }
  const size_t length = storedRecordLength(record);
  int status = write(data, [&](MDB_txn* txn) {
    MDB_val key = valOf(&recno, sizeof recno), value = valOf(record, length);
    return mdb_put(txn, records, &key, &value, 0);
  });
  if (status != TBL_OK) return status;
  if (current.index >= 0) {
    const auto& k = keys[current.index];
    current.key.assign(k.begin(),
                       k.begin() + storedKeyLength(schema.indexes()[current.index], k.data(), k.size()));
  }
  if (!indexed) return TBL_OK;
  return commitIndexChanges(recno, &oldKeys, &keys);
}

int TCtreeTable::Impl::deleteRecord() {
  if (!open) return TBL_NOT_OPEN;
  if (readOnly) return TBL_READ_ONLY;
  if (!current.valid || !current.exists) return TBL_NO_CURRENT;
  const uint64_t recno = current.recno;
  const bool indexed = indexUsable();
  if (indexed) {
    int status = beginRead(true, false);
    if (status != TBL_OK) return status;
    status = fetch(recno, oldImage.data());
    endRead();
    if (status == TBL_NOT_FOUND) return TBL_BAD_FORMAT;
    if (status != TBL_OK) return status;
    buildKeys(oldImage.data(), oldKeys);
  }
  if (indexed) {
    int room = index.ensureRoom(kIndexHeadroom);
    if (room != TBL_OK) return room;
  }
  const bool highest = recno + 1 == nextRecno;
  int status = write(data, [&](MDB_txn* txn) {
    MDB_val key = valOf(&recno, sizeof recno);
    int rc = mdb_del(txn, records, &key, nullptr);
    if (rc == MDB_SUCCESS && highest) {
      // Remember the number so that it is never handed out again.
      MDB_val hk = valOf(kHighWaterKey, std::strlen(kHighWaterKey)), hv = valOf(&recno, sizeof recno);
      rc = mdb_put(txn, dataMain, &hk, &hv, 0);
    }
    return rc;
  });
  if (status == TBL_NOT_FOUND) return TBL_NO_CURRENT;
  if (status != TBL_OK) return status;
  current.exists = false;
  if (!indexed) return TBL_OK;
  return commitIndexChanges(recno, &oldKeys, nullptr);
}

int TCtreeTable::addRecord(void* record) {
  return impl_->addRecord(static_cast<const uint8_t*>(record));
}

int TCtreeTable::modifyRecord(void* record) {
  return impl_->modifyRecord(static_cast<const uint8_t*>(record));
}

int TCtreeTable::deleteRecord() { return impl_->deleteRecord(); }
