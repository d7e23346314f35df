// addRecord / modifyRecord / deleteRecord: the calling thread's current
// record located, the keys built, then applied to the group and appended to
// the log (applyWrite, TableGroup.cpp).
#include <cstring>

#include "KeyCodec.h"
#include "TableFormat.h"
#include "TableImpl.h"

using namespace wztable;


size_t TCtreeTable::Impl::storedRecordLength(const uint8_t* record) const {
  size_t length = schema.recordSize();
  if (!schema.variableLength()) return length;
  const size_t fixed = schema.fixedRecordSize();
  // Eight bytes at a time over the zeros of the variable part's tail.
  uint64_t word;
  while (length >= fixed + sizeof word &&
         (std::memcpy(&word, record + length - sizeof word, sizeof word), word == 0))
    length -= sizeof word;
  while (length > fixed && record[length - 1] == 0) --length;
  return length;
}

void TCtreeTable::Impl::buildKeys(const uint8_t* record,
                                  std::vector<std::vector<uint8_t>>& out) const {
  for (size_t i = 0; i < out.size(); ++i) buildRecordKey(schema, static_cast<int>(i), record, out[i].data());
}

int TCtreeTable::Impl::writeAllowed() {
  if (!open) return TBL_NOT_OPEN;
  if (readOnly) return TBL_READ_ONLY;
  // A failed flush or checkpoint refuses every later write: the table stays
  // at its last durable point until it is opened again.
  if (failure == TBL_OK) failure = flusher.failure();
  return failure;
}

int TCtreeTable::Impl::addRecord(const uint8_t* record) {
  int status = writeAllowed();
  if (status != TBL_OK) return status;
  if (!record) return TBL_BAD_ARGUMENT;
  status = beginGroup();
  if (status != TBL_OK) return status;
  const bool indexed = indexUsable();
  if (indexed) buildKeys(record, keys);
  return applyWrite(TableLog::kAdd, nextRecno, record, storedRecordLength(record), nullptr,
                    indexed ? &keys : nullptr);
}

int TCtreeTable::Impl::modifyRecord(const uint8_t* record) {
  int status = writeAllowed();
  if (status != TBL_OK) return status;
  if (!record) return TBL_BAD_ARGUMENT;
  ThreadState& t = ts();
  if (!t.current.valid || !t.current.exists) return TBL_NO_CURRENT;
  const uint64_t recno = t.current.recno;
  status = beginGroup();
  if (status != TBL_OK) return status;
  // The stored version: it must still be there (another thread may have
  // deleted it), and its keys say which index entries move.
  status = fetch(recno, oldImage.data());
  if (status == TBL_NOT_FOUND) {
    t.current.exists = false;
    return TBL_NO_CURRENT;
  }
  if (status != TBL_OK) return status;
  const bool indexed = indexUsable();
  buildKeys(record, keys);
  if (indexed) buildKeys(oldImage.data(), oldKeys);
  status = applyWrite(TableLog::kModify, recno, record, storedRecordLength(record),
                      indexed ? &oldKeys : nullptr, indexed ? &keys : nullptr);
  if (status == TBL_OK && t.current.index >= 0) {
    const auto& k = keys[t.current.index];
    t.current.key.assign(k.begin(),
                         k.begin() + storedKeyLength(schema.indexes()[t.current.index], k.data(), k.size()));
  }
  return status;
}

int TCtreeTable::Impl::deleteRecord() {
  int status = writeAllowed();
  if (status != TBL_OK) return status;
  ThreadState& t = ts();
  if (!t.current.valid || !t.current.exists) return TBL_NO_CURRENT;
  const uint64_t recno = t.current.recno;
  status = beginGroup();
  if (status != TBL_OK) return status;
  status = fetch(recno, oldImage.data());
  if (status == TBL_NOT_FOUND) {
    t.current.exists = false;
    return TBL_NO_CURRENT;
  }
  if (status != TBL_OK) return status;
  const bool indexed = indexUsable();
  if (indexed) buildKeys(oldImage.data(), oldKeys);
  status = applyWrite(TableLog::kDelete, recno, nullptr, 0, indexed ? &oldKeys : nullptr, nullptr);
  if (status == TBL_OK) t.current.exists = false;
  return status;
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
