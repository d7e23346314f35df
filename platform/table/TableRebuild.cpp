// Index maintenance: suspend, bulk rebuild from the data file, consistency
// check.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>
#include <memory>

#include "ExternalSorter.h"
#include "KeyCodec.h"
#include "TableFormat.h"
#include "TableHeaders.h"
#include "TableImpl.h"

using namespace wztable;

namespace {

// Entries loaded per index transaction during a rebuild: bounded so that a
// transaction that meets a full map can be replayed from memory.
constexpr size_t kChunkBytes = size_t{4} << 20;

void putBigEndian(uint64_t value, uint8_t* out) {
  for (int i = 7; i >= 0; --i) {
    out[i] = static_cast<uint8_t>(value);
    value >>= 8;
  }
}

uint64_t getBigEndian(const uint8_t* in) {
  uint64_t value = 0;
  for (int i = 0; i < 8; ++i) value = (value << 8) | in[i];
  return value;
}

}  // namespace

int TCtreeTable::Impl::sortAllIndexes(std::vector<std::unique_ptr<ExternalSorter>>& sorters) {
  // One pass over the data file feeds every index's sorter; the memory bound
  // is shared among them.
  const size_t share = rebuildMemory / indexDbi.size();
  std::vector<std::vector<uint8_t>> entries(indexDbi.size());
  for (size_t i = 0; i < indexDbi.size(); ++i) {
    const size_t keyLength = static_cast<size_t>(schema.indexes()[i].keyLength);
    sorters.emplace_back(new ExternalSorter(keyLength + 8, share, name));
    entries[i].resize(keyLength + 8);
  }
  int status = beginRead(true, false);
  if (status != TBL_OK) return status;
  ReadScope scope{*this};
  MDB_val k, v;
  int rc = mdb_cursor_get(recordCursor, &k, &v, MDB_FIRST);
  while (rc == MDB_SUCCESS) {
    uint64_t recno;
    std::memcpy(&recno, k.mv_data, sizeof recno);
    expand(v, image.data());
    for (size_t i = 0; i < indexDbi.size(); ++i) {
      uint8_t* entry = entries[i].data();
      const size_t keyLength = entries[i].size() - 8;
      // Entry: the full key, then the record number big-endian, so that one
      // memcmp orders entries by (key, record number).
      buildRecordKey(schema, static_cast<int>(i), image.data(), entry);
      putBigEndian(recno, entry + keyLength);
      status = sorters[i]->add(entry);
      if (status != TBL_OK) return status;
    }
    rc = mdb_cursor_get(recordCursor, &k, &v, MDB_NEXT);
  }
  if (rc != MDB_NOTFOUND) return statusFromMdb(rc);
  for (auto& sorter : sorters) {
    status = sorter->finish();
    if (status != TBL_OK) return status;
  }
  return TBL_OK;
}

int TCtreeTable::Impl::loadIndex(int idx, ExternalSorter& sorter) {
  const TableIndex& ix = schema.indexes()[idx];
  const size_t keyLength = static_cast<size_t>(ix.keyLength);
  const size_t entrySize = keyLength + 8;
  const MDB_dbi dbi = indexDbi[idx];
  int status = TBL_OK;

  // Sorted entries are appended chunk by chunk; the key of the entry before
  // a chunk decides whether its first entry is a new key or a duplicate.
  std::vector<uint8_t> chunk;
  chunk.reserve(kChunkBytes + entrySize);
  std::vector<uint8_t> lastKey(keyLength), chunkLastKey(keyLength);
  bool haveLast = false;
  auto flush = [&]() -> int {
    if (chunk.empty()) return TBL_OK;
    int result = write(index, [&](MDB_txn* txn) {
      MDB_cursor* cursor = nullptr;
      int rc = mdb_cursor_open(txn, dbi, &cursor);
      std::memcpy(chunkLastKey.data(), lastKey.data(), keyLength);
      bool have = haveLast;
      for (size_t at = 0; rc == MDB_SUCCESS && at < chunk.size(); at += entrySize) {
        const uint8_t* entry = chunk.data() + at;
        uint64_t recno = getBigEndian(entry + keyLength);
        MDB_val key{storedKeyLength(ix, entry, keyLength), const_cast<uint8_t*>(entry)};
        MDB_val value{sizeof recno, &recno};
        const bool sameKey = have && std::memcmp(chunkLastKey.data(), entry, keyLength) == 0;
        rc = mdb_cursor_put(cursor, &key, &value, sameKey ? MDB_APPENDDUP : MDB_APPEND);
        std::memcpy(chunkLastKey.data(), entry, keyLength);
        have = true;
      }
      return rc;
    });
    if (result != TBL_OK) return result;
    std::memcpy(lastKey.data(), chunk.data() + chunk.size() - entrySize, keyLength);
    haveLast = true;
    chunk.clear();
    return TBL_OK;
  };

  const uint8_t* entry = nullptr;
  std::vector<uint8_t> previousKey(keyLength);
  bool havePrevious = false;
  while (sorter.next(&entry, &status)) {
    if (!ix.duplicates && havePrevious && std::memcmp(previousKey.data(), entry, keyLength) == 0)
      return TBL_DUPLICATE_KEY;
    std::memcpy(previousKey.data(), entry, keyLength);
    havePrevious = true;
    chunk.insert(chunk.end(), entry, entry + entrySize);
    if (chunk.size() >= kChunkBytes) {
      status = flush();
      if (status != TBL_OK) return status;
    }
  }
  if (status != TBL_OK) return status;
  return flush();
}

int TCtreeTable::Impl::rebuild() {
  // The files first take every write so far (the rebuild reads the data
  // file's committed state and writes the index file in transactions of its
  // own). Marked suspended next: a rebuild cut short leaves a mark that the
  // next open sees.
  int status = checkpoint();
  if (status != TBL_OK) return status;
  status = setIndexState(true);
  if (status != TBL_OK) return status;
  suspended = true;
  status = write(index, [&](MDB_txn* txn) {
    int rc = MDB_SUCCESS;
    for (size_t i = 0; rc == MDB_SUCCESS && i < indexDbi.size(); ++i) rc = mdb_drop(txn, indexDbi[i], 0);
    return rc;
  });
  if (status != TBL_OK) return status;
  std::vector<std::unique_ptr<ExternalSorter>> sorters;
  status = sortAllIndexes(sorters);
  abortGroup();  // it only read; the index file's loads need no open group
  for (size_t i = 0; status == TBL_OK && i < indexDbi.size(); ++i) {
    status = loadIndex(static_cast<int>(i), *sorters[i]);
    sorters[i].reset();  // frees its memory and its run file
  }
  if (status != TBL_OK) return status;
  status = setIndexState(false);
  if (status != TBL_OK) return status;
  indexLsn = dataLsn;
  suspended = false;
  indexStale = false;
  return TBL_OK;
}

int TCtreeTable::Impl::consistency(std::string* report) {
  auto fail = [report](const char* format, uint64_t a, uint64_t b) {
    if (report) {
      char text[160];
      std::snprintf(text, sizeof text, format, a, b);
      *report = text;
    }
    return TBL_BAD_FORMAT;
  };
  if (!open) return TBL_NOT_OPEN;
  if (!indexUsable()) {
    if (report) *report = "indexing is suspended: the indexes are not checked";
    return TBL_INDEX_SUSPENDED;
  }
  int status = beginRead(true, true);
  if (status != TBL_OK) return status;
  ReadScope scope{*this};

  // A read-only table reads what its writer committed since the open: the
  // numbers handed out are those of the snapshot it reads.
  uint64_t limit = nextRecno;
  MDB_val k, v;
  if (readOnly) {
    bool present = false;
    status = readU64(dataTxn, dataMain, kHighWaterKey, &limit, &present);
    if (status != TBL_OK) return status;
    int rc = mdb_cursor_get(recordCursor, &k, &v, MDB_LAST);
    uint64_t last = 0;
    if (rc == MDB_SUCCESS && k.mv_size == sizeof last) std::memcpy(&last, k.mv_data, sizeof last);
    else if (rc != MDB_NOTFOUND) return statusFromMdb(rc);
    limit = std::max(limit, last) + 1;
  }

  // Every record is in every index under the key its image gives.
  uint64_t recordCount = 0;
  int rc = mdb_cursor_get(recordCursor, &k, &v, MDB_FIRST);
  while (rc == MDB_SUCCESS) {
    uint64_t recno;
    std::memcpy(&recno, k.mv_data, sizeof recno);
    if (recno == 0 || recno >= limit)
      return fail("record number %" PRIu64 " is outside the numbers handed out (next %" PRIu64 ")",
                  recno, limit);
    ++recordCount;
    expand(v, image.data());
    for (size_t i = 0; i < indexDbi.size(); ++i) {
      const TableIndex& ix = schema.indexes()[i];
      buildRecordKey(schema, static_cast<int>(i), image.data(), keys[i].data());
      MDB_val key{storedKeyLength(ix, keys[i].data(), keys[i].size()), keys[i].data()};
      MDB_val value{sizeof recno, &recno};
      int found;
      if (ix.duplicates) {
        found = mdb_cursor_get(indexCursor[i], &key, &value, MDB_GET_BOTH);
      } else {
        found = mdb_get(indexTxn, indexDbi[i], &key, &value);
        if (found == MDB_SUCCESS && (value.mv_size != sizeof recno ||
                                     std::memcmp(value.mv_data, &recno, sizeof recno) != 0))
          found = MDB_NOTFOUND;
      }
      if (found == MDB_NOTFOUND)
        return fail("record %" PRIu64 " is missing from index %" PRIu64, recno, i);
      if (found != MDB_SUCCESS) return statusFromMdb(found);
    }
    rc = mdb_cursor_get(recordCursor, &k, &v, MDB_NEXT);
  }
  if (rc != MDB_NOTFOUND) return statusFromMdb(rc);

  // Every index entry leads to a record whose key matches, and no index holds
  // more entries than there are records.
  for (size_t i = 0; i < indexDbi.size(); ++i) {
    const TableIndex& ix = schema.indexes()[i];
    uint64_t entries = 0;
    rc = mdb_cursor_get(indexCursor[i], &k, &v, MDB_FIRST);
    while (rc == MDB_SUCCESS) {
      ++entries;
      uint64_t recno = 0;
      if (v.mv_size == sizeof recno) std::memcpy(&recno, v.mv_data, sizeof recno);
      MDB_val rk{sizeof recno, &recno}, rv;
      int found = mdb_get(dataTxn, records, &rk, &rv);
      if (found == MDB_NOTFOUND)
        return fail("index %" PRIu64 " holds record %" PRIu64 ", which does not exist", i, recno);
      if (found != MDB_SUCCESS) return statusFromMdb(found);
      expand(rv, image.data());
      buildRecordKey(schema, static_cast<int>(i), image.data(), keys[i].data());
      const size_t length = storedKeyLength(ix, keys[i].data(), keys[i].size());
      if (length != k.mv_size || std::memcmp(k.mv_data, keys[i].data(), length) != 0)
        return fail("index %" PRIu64 " files record %" PRIu64 " under a key it does not have", i,
                    recno);
      rc = mdb_cursor_get(indexCursor[i], &k, &v, MDB_NEXT);
    }
    if (rc != MDB_NOTFOUND) return statusFromMdb(rc);
    if (entries != recordCount)
      return fail("an index holds %" PRIu64 " entries for %" PRIu64 " records", entries, recordCount);
  }
  if (report) report->clear();
  return TBL_OK;
}

// ---------------------------------------------------------------------------

int TCtreeTable::suspendIndexing() {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  Impl& im = *impl_;
  if (!im.open || im.readOnly) return -1;
  if (im.suspended) return TBL_OK;
  if (im.checkpoint() != TBL_OK || im.setIndexState(true) != TBL_OK) return -1;
  im.suspended = true;
  return TBL_OK;
}

int TCtreeTable::resumeIndexingAndRebuild() {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  Impl& im = *impl_;
  if (!im.open) return TBL_NOT_OPEN;
  if (im.readOnly) return TBL_READ_ONLY;
  int status = TBL_NO_MEMORY;
  try {
    // The sort's runs and read buffers are allocated outside any transaction.
    status = im.rebuild();
  } catch (const std::bad_alloc&) {
  }
  if (status != TBL_OK)
    debug(-1, "Table %s: index rebuild failed (%s); indexing stays suspended", im.name.c_str(),
          errToString(status));
  return status;
}

int TCtreeTable::checkConsistency(std::string* report) {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  return impl_->consistency(report);
}

int64_t TCtreeTable::currentRecordNumber() const {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  const Impl::Current& current = impl_->ts().current;
  return current.valid && current.exists ? static_cast<int64_t>(current.recno) : 0;
}

int64_t TCtreeTable::numberOfRecords() {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  Impl& im = *impl_;
  if (!im.open) return -TBL_NOT_OPEN;
  int status = im.beginRead(true, false);
  if (status != TBL_OK) return -status;
  Impl::ReadScope scope{im};
  MDB_stat stat;
  int rc = mdb_stat(im.dataTxn, im.records, &stat);
  if (rc != MDB_SUCCESS) return -statusFromMdb(rc);
  return static_cast<int64_t>(stat.ms_entries);
}
