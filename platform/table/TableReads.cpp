// The read family. A read-write table reads inside its open group (every
// write is seen); a read-only table in short read transactions, renewed for
// every call. A read that succeeds makes the record it returns the calling
// thread's current record, unless bypass mode is on.
#include <algorithm>
#include <cstring>

#include "KeyCodec.h"
#include "TableImpl.h"

using namespace wztable;

namespace {

enum KeyedMode { kEqual, kGreaterEqual, kGreater, kLessEqual, kLess };

bool sameKey(const MDB_val& a, const uint8_t* key, size_t length) {
  return a.mv_size == length && std::memcmp(a.mv_data, key, length) == 0;
}

// Whether `key` begins with prefix[0, length); the trailing zeros that a
// compressed key dropped count as present.
bool hasPrefix(const MDB_val& key, const uint8_t* prefix, size_t length) {
  const size_t n = std::min(key.mv_size, length);
  if (n != 0 && std::memcmp(key.mv_data, prefix, n) != 0) return false;
  for (size_t i = n; i < length; ++i)
    if (prefix[i] != 0) return false;
  return true;
}

uint64_t recnoOf(const MDB_val& v) {
  uint64_t recno = 0;
  if (v.mv_size == sizeof recno) std::memcpy(&recno, v.mv_data, sizeof recno);
  return recno;
}

}  // namespace

int TCtreeTable::Impl::checkIndex(int idx, bool allowPhysical) const {
  if (!open) return TBL_NOT_OPEN;
  if (idx == -1 && allowPhysical) return TBL_OK;
  if (idx < 0 || static_cast<size_t>(idx) >= indexDbi.size()) return TBL_BAD_ARGUMENT;
  if (!indexUsable()) return TBL_INDEX_SUSPENDED;
  return TBL_OK;
}

void TCtreeTable::Impl::expand(const MDB_val& stored, uint8_t* out) const {
  const size_t size = schema.recordSize();
  const size_t n = std::min(stored.mv_size, size);
  std::memcpy(out, stored.mv_data, n);
  if (n < size) std::memset(out + n, 0, size - n);
}

// Reads through the record cursor rather than mdb_get: a cursor that already
// sits on a leaf page finds a record number within that page's range without
// descending from the root, and an index walk fetches neighbouring records
// (the children of one folder were stored together). The cursor no longer
// marks the current record afterwards.
int TCtreeTable::Impl::fetch(uint64_t recno, uint8_t* out) {
  if (positionedIndex < 0) positioned = false;
  if (!recordCursor) return TBL_NOT_OPEN;
  MDB_val key{sizeof recno, &recno}, value;
  int rc = mdb_cursor_get(recordCursor, &key, &value, MDB_SET_KEY);
  if (rc != MDB_SUCCESS) return statusFromMdb(rc);
  expand(value, out);
  return TBL_OK;
}

void TCtreeTable::Impl::setCurrent(int idx, const MDB_val& key, uint64_t recno) {
  if (bypass) return;
  Current& current = ts().current;
  current.valid = current.exists = true;
  current.index = idx;
  current.recno = recno;
  if (idx >= 0) current.key.assign(static_cast<const uint8_t*>(key.mv_data),
                                   static_cast<const uint8_t*>(key.mv_data) + key.mv_size);
  else current.key.clear();
}

int TCtreeTable::Impl::finishRead(int idx, int rc, MDB_val* key, MDB_val* value, void* buffer) {
  positioned = false;
  if (rc != MDB_SUCCESS) return statusFromMdb(rc);
  uint64_t recno;
  if (idx < 0) {
    recno = recnoOf(*key);
    expand(*value, static_cast<uint8_t*>(buffer));
  } else {
    recno = recnoOf(*value);
    int status = fetch(recno, static_cast<uint8_t*>(buffer));
    if (status == TBL_NOT_FOUND) return TBL_BAD_FORMAT;  // an index entry without its record
    if (status != TBL_OK) return status;
  }
  setCurrent(idx, *key, recno);
  if (!bypass) {
    positioned = true;
    positionedIndex = idx;
    positionedFor = &ts();
  }
  return TBL_OK;
}

TCtreeTable::Impl::Seek TCtreeTable::Impl::seekEntry(int idx, const uint8_t* key, size_t keyLen,
                                                     uint64_t recno, MDB_val* k, MDB_val* v,
                                                     int* rc) {
  if (idx < 0) {
    k->mv_size = sizeof recno;
    k->mv_data = &recno;
    *rc = mdb_cursor_get(recordCursor, k, v, MDB_SET_RANGE);
    if (*rc != MDB_SUCCESS) return Seek::kEnd;
    return recnoOf(*k) == recno ? Seek::kAt : Seek::kAfter;
  }
  MDB_cursor* cursor = indexCursor[idx];
  k->mv_size = keyLen;
  k->mv_data = const_cast<uint8_t*>(key);
  *rc = mdb_cursor_get(cursor, k, v, MDB_SET_RANGE);
  if (*rc != MDB_SUCCESS) return Seek::kEnd;
  if (!sameKey(*k, key, keyLen)) return Seek::kAfter;
  if (schema.indexes()[idx].duplicates) {
    MDB_val dup{sizeof recno, &recno};
    *rc = mdb_cursor_get(cursor, k, &dup, MDB_GET_BOTH_RANGE);
    if (*rc == MDB_SUCCESS) {
      *v = dup;
      return recnoOf(dup) == recno ? Seek::kAt : Seek::kAfter;
    }
    if (*rc != MDB_NOTFOUND) return Seek::kEnd;
    // Every duplicate of the key comes before recno: the next key follows.
    MDB_val again{keyLen, const_cast<uint8_t*>(key)};
    *rc = mdb_cursor_get(cursor, &again, v, MDB_SET_KEY);
    if (*rc == MDB_SUCCESS) *rc = mdb_cursor_get(cursor, k, v, MDB_NEXT_NODUP);
    return *rc == MDB_SUCCESS ? Seek::kAfter : Seek::kEnd;
  }
  const uint64_t found = recnoOf(*v);
  if (found == recno) return Seek::kAt;
  if (found > recno) return Seek::kAfter;
  *rc = mdb_cursor_get(cursor, k, v, MDB_NEXT);
  return *rc == MDB_SUCCESS ? Seek::kAfter : Seek::kEnd;
}

int TCtreeTable::Impl::positionFromCurrent(int idx, Seek* where, MDB_val* k, MDB_val* v) {
  const Current& current = ts().current;
  if (!current.valid) return TBL_NO_CURRENT;
  int rc = MDB_SUCCESS;
  if (idx < 0) {
    *where = seekEntry(-1, nullptr, 0, current.recno, k, v, &rc);
  } else if (current.index == idx) {
    *where = seekEntry(idx, current.key.data(), current.key.size(), current.recno, k, v, &rc);
  } else {
    // The last read was on another index: find the current record's place
    // on this one from its key.
    if (!current.exists) return TBL_NO_CURRENT;
    int status = fetch(current.recno, image.data());
    if (status != TBL_OK) return status == TBL_NOT_FOUND ? TBL_NO_CURRENT : status;
    std::vector<uint8_t>& key = keys[idx];
    buildRecordKey(schema, idx, image.data(), key.data());
    const size_t length = storedKeyLength(schema.indexes()[idx], key.data(), key.size());
    *where = seekEntry(idx, key.data(), length, current.recno, k, v, &rc);
  }
  if (rc != MDB_SUCCESS && rc != MDB_NOTFOUND) return statusFromMdb(rc);
  return TBL_OK;
}

int TCtreeTable::Impl::step(int idx, void* buffer, bool forward, bool inSetMode) {
  int status = checkIndex(idx, !inSetMode);
  if (status != TBL_OK) return status;
  if (!buffer) return TBL_BAD_ARGUMENT;
  const Set& set = ts().set;
  if (inSetMode && (!set.active || set.index != idx)) return TBL_NO_CURRENT;
  status = beginRead(true, idx >= 0);
  if (status != TBL_OK) return status;
  ReadScope scope{*this};
  Seek where = Seek::kAt;
  MDB_val k, v;
  if (!positioned || positionedIndex != idx || positionedFor != &ts()) {
    status = positionFromCurrent(idx, &where, &k, &v);
    if (status != TBL_OK) return status;
  }
  MDB_cursor* cursor = idx < 0 ? recordCursor : indexCursor[idx];
  int rc;
  if (forward) {
    rc = where == Seek::kAt ? mdb_cursor_get(cursor, &k, &v, MDB_NEXT)
                            : (where == Seek::kAfter ? MDB_SUCCESS : MDB_NOTFOUND);
  } else {
    rc = mdb_cursor_get(cursor, &k, &v, where == Seek::kEnd ? MDB_LAST : MDB_PREV);
  }
  if (rc == MDB_SUCCESS && inSetMode && !inSet(set, k)) rc = MDB_NOTFOUND;
  return finishRead(idx, rc, &k, &v, buffer);
}

int TCtreeTable::Impl::keyedRead(int idx, const void* key, void* buffer, int mode) {
  int status = checkIndex(idx, false);
  if (status != TBL_OK) return status;
  if (!key || !buffer) return TBL_BAD_ARGUMENT;
  const TableIndex& ix = schema.indexes()[idx];
  const uint8_t* search = static_cast<const uint8_t*>(key);
  const size_t length = storedKeyLength(ix, search, static_cast<size_t>(ix.keyLength));
  status = beginRead(true, true);
  if (status != TBL_OK) return status;
  ReadScope scope{*this};
  MDB_cursor* cursor = indexCursor[idx];
  MDB_val k{length, const_cast<uint8_t*>(search)}, v;
  int rc;
  switch (mode) {
    case kEqual:
      rc = mdb_cursor_get(cursor, &k, &v, MDB_SET_KEY);
      break;
    case kGreaterEqual:
      rc = mdb_cursor_get(cursor, &k, &v, MDB_SET_RANGE);
      break;
    case kGreater:
      rc = mdb_cursor_get(cursor, &k, &v, MDB_SET_RANGE);
      if (rc == MDB_SUCCESS && sameKey(k, search, length))
        rc = mdb_cursor_get(cursor, &k, &v, MDB_NEXT_NODUP);
      break;
    case kLessEqual:
      rc = mdb_cursor_get(cursor, &k, &v, MDB_SET_RANGE);
      if (rc == MDB_SUCCESS && sameKey(k, search, length)) {
        if (ix.duplicates) rc = mdb_cursor_get(cursor, &k, &v, MDB_LAST_DUP);
      } else if (rc == MDB_SUCCESS) {
        rc = mdb_cursor_get(cursor, &k, &v, MDB_PREV);
      } else if (rc == MDB_NOTFOUND) {
        rc = mdb_cursor_get(cursor, &k, &v, MDB_LAST);
      }
      break;
    default:  // kLess
      rc = mdb_cursor_get(cursor, &k, &v, MDB_SET_RANGE);
      if (rc == MDB_SUCCESS) rc = mdb_cursor_get(cursor, &k, &v, MDB_PREV);
      else if (rc == MDB_NOTFOUND) rc = mdb_cursor_get(cursor, &k, &v, MDB_LAST);
      break;
  }
  return finishRead(idx, rc, &k, &v, buffer);
}

int TCtreeTable::Impl::edgeRead(int idx, void* buffer, bool first) {
  int status = checkIndex(idx, true);
  if (status != TBL_OK) return status;
  if (!buffer) return TBL_BAD_ARGUMENT;
  status = beginRead(true, idx >= 0);
  if (status != TBL_OK) return status;
  ReadScope scope{*this};
  MDB_cursor* cursor = idx < 0 ? recordCursor : indexCursor[idx];
  MDB_val k, v;
  int rc = mdb_cursor_get(cursor, &k, &v, first ? MDB_FIRST : MDB_LAST);
  return finishRead(idx, rc, &k, &v, buffer);
}

bool TCtreeTable::Impl::inSet(const Set& set, const MDB_val& key) const {
  return hasPrefix(key, set.prefix.data(), set.prefix.size());
}

// One index cursor walks the run; each record comes through the record
// cursor, which stays on the leaf page of the previous one, so records stored
// together cost no descent from the root. The current record is set once, at
// the end, to the last entry that a getGTERecord/nextRecord sequence would
// have made current.
int TCtreeTable::Impl::readRun(int idx, const void* key, int prefixLength,
                               RunReceiver& receiver) {
  int status = checkIndex(idx, false);
  if (status != TBL_OK) return status;
  if (!key) return TBL_BAD_ARGUMENT;
  const TableIndex& ix = schema.indexes()[idx];
  if (prefixLength < 0 || prefixLength > ix.keyLength) return TBL_BAD_ARGUMENT;
  const uint8_t* search = static_cast<const uint8_t*>(key);
  const size_t prefix = static_cast<size_t>(prefixLength);
  status = beginRead(true, true);
  if (status != TBL_OK) return status;
  ReadScope scope{*this};
  positioned = false;

  MDB_cursor* cursor = indexCursor[idx];
  MDB_val k{storedKeyLength(ix, search, static_cast<size_t>(ix.keyLength)),
            const_cast<uint8_t*>(search)};
  MDB_val v;
  MDB_val lastKey{0, nullptr};
  uint64_t lastRecno = 0;
  bool reached = false;    // an entry became the current record
  bool onLast = false;     // the index cursor sits on that entry
  int rc = mdb_cursor_get(cursor, &k, &v, MDB_SET_RANGE);
  status = TBL_OK;
  while (rc == MDB_SUCCESS) {
    const uint64_t recno = recnoOf(v);
    if (!hasPrefix(k, search, prefix)) {
      lastKey = k;
      lastRecno = recno;
      reached = onLast = true;
      break;
    }
    void* buffer = receiver.buffer();
    status = buffer ? fetch(recno, static_cast<uint8_t*>(buffer)) : TBL_BAD_ARGUMENT;
    if (status != TBL_OK) {
      if (status == TBL_NOT_FOUND) status = TBL_BAD_FORMAT;  // an index entry without its record
      onLast = false;
      break;
    }
    lastKey = k;
    lastRecno = recno;
    reached = onLast = true;
    if (!receiver.take()) break;
    rc = mdb_cursor_get(cursor, &k, &v, MDB_NEXT);
    onLast = false;
  }
  if (status == TBL_OK && rc != MDB_SUCCESS) status = statusFromMdb(rc);
  if (reached) {
    setCurrent(idx, lastKey, lastRecno);
    if (!bypass && onLast) {
      positioned = true;
      positionedIndex = idx;
      positionedFor = &ts();
    }
  }
  return status;
}

int TCtreeTable::Impl::setRead(int idx, const void* key, void* buffer, int prefixLength,
                               bool first) {
  int status = checkIndex(idx, false);
  if (status != TBL_OK) return status;
  if (!key || !buffer) return TBL_BAD_ARGUMENT;
  const TableIndex& ix = schema.indexes()[idx];
  if (prefixLength < 0 || prefixLength > ix.keyLength) return TBL_BAD_ARGUMENT;
  const uint8_t* prefix = static_cast<const uint8_t*>(key);
  Set& set = ts().set;
  set.active = true;
  set.index = idx;
  set.prefix.assign(prefix, prefix + prefixLength);

  status = beginRead(true, true);
  if (status != TBL_OK) return status;
  ReadScope scope{*this};
  MDB_cursor* cursor = indexCursor[idx];
  MDB_val k, v;
  int rc;
  if (first) {
    if (prefixLength == 0) {
      rc = mdb_cursor_get(cursor, &k, &v, MDB_FIRST);
    } else {
      k.mv_data = const_cast<uint8_t*>(prefix);
      k.mv_size = storedKeyLength(ix, prefix, static_cast<size_t>(prefixLength));
      rc = mdb_cursor_get(cursor, &k, &v, MDB_SET_RANGE);
    }
  } else {
    // The smallest key above the set: the prefix plus one, as a number.
    std::vector<uint8_t> upper(set.prefix);
    int at = prefixLength - 1;
    while (at >= 0 && upper[at] == 0xFF) upper[at--] = 0;
    if (at < 0) {
      rc = mdb_cursor_get(cursor, &k, &v, MDB_LAST);
    } else {
      ++upper[at];
      k.mv_data = upper.data();
      k.mv_size = storedKeyLength(ix, upper.data(), upper.size());
      rc = mdb_cursor_get(cursor, &k, &v, MDB_SET_RANGE);
      if (rc == MDB_SUCCESS) rc = mdb_cursor_get(cursor, &k, &v, MDB_PREV);
      else if (rc == MDB_NOTFOUND) rc = mdb_cursor_get(cursor, &k, &v, MDB_LAST);
    }
  }
  if (rc == MDB_SUCCESS && !inSet(set, k)) rc = MDB_NOTFOUND;
  return finishRead(idx, rc, &k, &v, buffer);
}

int TCtreeTable::Impl::readByNumber(void* buffer, int recordNumber, int length, size_t limit) {
  if (!open) return TBL_NOT_OPEN;
  if (!buffer || length <= 0 || recordNumber <= 0) return TBL_BAD_ARGUMENT;
  int status = beginRead(true, false);
  if (status != TBL_OK) return status;
  ReadScope scope{*this};
  uint64_t recno = static_cast<uint64_t>(recordNumber);
  MDB_val k{sizeof recno, &recno}, v;
  int rc = mdb_get(dataTxn, records, &k, &v);
  if (rc != MDB_SUCCESS) return statusFromMdb(rc);
  expand(v, image.data());
  std::memcpy(buffer, image.data(), std::min(static_cast<size_t>(length), limit));
  positioned = false;  // the record cursor did not move
  setCurrent(-1, k, recno);
  return TBL_OK;
}

// ---------------------------------------------------------------------------

#define TABLE_LOCK std::lock_guard<std::recursive_mutex> tableLock(impl_->mutex)

int TCtreeTable::readByOffset(void* buffer, int recordNumber, int length) {
  TABLE_LOCK;
  return impl_->readByNumber(buffer, recordNumber, length, impl_->schema.recordSize());
}

int TCtreeTable::readFixedByOffset(void* buffer, int recordNumber, int length) {
  TABLE_LOCK;
  return impl_->readByNumber(buffer, recordNumber, length, impl_->schema.fixedRecordSize());
}

int TCtreeTable::firstInSet(int index, void* key, void* buffer, int prefixLength) {
  TABLE_LOCK;
  return impl_->setRead(index, key, buffer, prefixLength, true);
}

int TCtreeTable::lastInSet(int index, void* key, void* buffer, int prefixLength) {
  TABLE_LOCK;
  return impl_->setRead(index, key, buffer, prefixLength, false);
}

int TCtreeTable::nextInSet(int index, void* buffer) {
  TABLE_LOCK; return impl_->step(index, buffer, true, true); }

int TCtreeTable::previousInSet(int index, void* buffer) {
  TABLE_LOCK;
  return impl_->step(index, buffer, false, true);
}

int TCtreeTable::readRun(int index, const void* key, int prefixLength, RunReceiver& receiver) {
  TABLE_LOCK;
  return impl_->readRun(index, key, prefixLength, receiver);
}

int TCtreeTable::getGTERecord(int index, void* key, void* buffer) {
  TABLE_LOCK;
  return impl_->keyedRead(index, key, buffer, kGreaterEqual);
}

int TCtreeTable::getGTRecord(int index, void* key, void* buffer) {
  TABLE_LOCK;
  return impl_->keyedRead(index, key, buffer, kGreater);
}

int TCtreeTable::getLTERecord(int index, void* key, void* buffer) {
  TABLE_LOCK;
  return impl_->keyedRead(index, key, buffer, kLessEqual);
}

int TCtreeTable::getLTRecord(int index, void* key, void* buffer) {
  TABLE_LOCK;
  return impl_->keyedRead(index, key, buffer, kLess);
}

int TCtreeTable::getRecord(int index, void* key, void* buffer) {
  TABLE_LOCK;
  return impl_->keyedRead(index, key, buffer, kEqual);
}

int TCtreeTable::nextRecord(int index, void* buffer) {
  TABLE_LOCK; return impl_->step(index, buffer, true, false); }

int TCtreeTable::previousRecord(int index, void* buffer) {
  TABLE_LOCK;
  return impl_->step(index, buffer, false, false);
}

int TCtreeTable::firstRecord(int index, void* buffer) {
  TABLE_LOCK; return impl_->edgeRead(index, buffer, true); }

int TCtreeTable::lastRecord(int index, void* buffer) {
  TABLE_LOCK; return impl_->edgeRead(index, buffer, false); }
