// addRecord / modifyRecord / deleteRecord: checked against the open group,
// appended to the log, then applied to the group (TableGroup.cpp).
#include <cstring>

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

int TCtreeTable::Impl::writeAllowed() const {
  if (!open) return TBL_NOT_OPEN;
  if (readOnly) return TBL_READ_ONLY;
  if (failure != TBL_OK) return failure;
  return flusher.failure();
}

int TCtreeTable::Impl::addRecord(const uint8_t* record) {
  int status = writeAllowed();
  if (status != TBL_OK) {
    if (status != TBL_NOT_OPEN && status != TBL_READ_ONLY) failure = status;
    return status;
  }
  if (!record) return TBL_BAD_ARGUMENT;
  status = beginGroup();
  if (status != TBL_OK) return status;
  const bool indexed = indexUsable();
  if (indexed) {
    buildKeys(record, keys);
    for (size_t i = 0; i < indexDbi.size(); ++i) {
      const TableIndex& idx = schema.indexes()[i];
      if (idx.duplicates) continue;
      MDB_val key = valOf(keys[i].data(), storedKeyLength(idx, keys[i].data(), keys[i].size()));
      MDB_val value;
      int rc = mdb_get(indexTxn, indexDbi[i], &key, &value);
      if (rc == MDB_SUCCESS) return TBL_DUPLICATE_KEY;
      if (rc != MDB_NOTFOUND) return statusFromMdb(rc);
    }
  }
  const uint64_t recno = nextRecno;
  const size_t length = storedRecordLength(record);
  status = logWrite(TableLog::kAdd, recno, record, length);
  if (status != TBL_OK) return status;
  int rc = applyAdd(recno, record, length, true, indexed, indexed ? &keys : nullptr);
  if (rc != MDB_SUCCESS) {
    status = afterApplyFailure(rc);
    if (status != TBL_OK) return status;
  }
  return afterWrite();
}

int TCtreeTable::Impl::modifyRecord(const uint8_t* record) {
  int status = writeAllowed();
  if (status != TBL_OK) {
    if (status != TBL_NOT_OPEN && status != TBL_READ_ONLY) failure = status;
    return status;
  }
  if (!record) return TBL_BAD_ARGUMENT;
  ThreadState& t = ts();
  if (!t.current.valid || !t.current.exists) return TBL_NO_CURRENT;
  const uint64_t recno = t.current.recno;
  status = beginGroup();
  if (status != TBL_OK) return status;
  const bool indexed = indexUsable();
  buildKeys(record, keys);
  // The stored version: it must still be there (another thread may have
  // deleted it), and its keys say which index entries move.
  status = fetch(recno, oldImage.data());
  if (status == TBL_NOT_FOUND) {
    t.current.exists = false;
    return TBL_NO_CURRENT;
  }
  if (status != TBL_OK) return status;
  if (indexed) {
    buildKeys(oldImage.data(), oldKeys);
    for (size_t i = 0; i < indexDbi.size(); ++i) {
      const TableIndex& idx = schema.indexes()[i];
      if (idx.duplicates || keys[i] == oldKeys[i]) continue;
      MDB_val key = valOf(keys[i].data(), storedKeyLength(idx, keys[i].data(), keys[i].size()));
      MDB_val value;
      int rc = mdb_get(indexTxn, indexDbi[i], &key, &value);
      if (rc == MDB_SUCCESS) return TBL_DUPLICATE_KEY;
      if (rc != MDB_NOTFOUND) return statusFromMdb(rc);
    }
  }
  const size_t length = storedRecordLength(record);
  status = logWrite(TableLog::kModify, recno, record, length);
  if (status != TBL_OK) return status;
  int rc = applyModify(recno, record, length, true, indexed, indexed ? &oldKeys : nullptr);
  if (rc != MDB_SUCCESS) {
    status = afterApplyFailure(rc);
    if (status != TBL_OK) return status;
  }
  if (t.current.index >= 0) {
    const auto& k = keys[t.current.index];
    t.current.key.assign(k.begin(),
                         k.begin() + storedKeyLength(schema.indexes()[t.current.index], k.data(), k.size()));
  }
  return afterWrite();
}

int TCtreeTable::Impl::deleteRecord() {
  int status = writeAllowed();
  if (status != TBL_OK) {
    if (status != TBL_NOT_OPEN && status != TBL_READ_ONLY) failure = status;
    return status;
  }
  ThreadState& t = ts();
  if (!t.current.valid || !t.current.exists) return TBL_NO_CURRENT;
  const uint64_t recno = t.current.recno;
  status = beginGroup();
  if (status != TBL_OK) return status;
  const bool indexed = indexUsable();
  status = fetch(recno, oldImage.data());
  if (status == TBL_NOT_FOUND) {
    t.current.exists = false;
    return TBL_NO_CURRENT;
  }
  if (status != TBL_OK) return status;
  if (indexed) buildKeys(oldImage.data(), oldKeys);
  status = logWrite(TableLog::kDelete, recno, nullptr, 0);
  if (status != TBL_OK) return status;
  int rc = applyDelete(recno, true, indexed, indexed ? &oldKeys : nullptr);
  if (rc != MDB_SUCCESS) {
    status = afterApplyFailure(rc);
    if (status != TBL_OK) return status;
  }
  t.current.exists = false;
  return afterWrite();
}

int TCtreeTable::addRecord(void* record) {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  return impl_->addRecord(static_cast<const uint8_t*>(record));
}

int TCtreeTable::modifyRecord(void* record) {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  return impl_->modifyRecord(static_cast<const uint8_t*>(record));
}

int TCtreeTable::deleteRecord() {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  return impl_->deleteRecord();
}
