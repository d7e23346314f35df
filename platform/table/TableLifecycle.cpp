// Schema definition, create / open / close, index state, queries.
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "FileLocks.h"
#include "TableFormat.h"
#include "TableHeaders.h"
#include "TableImpl.h"
#include "TableSettings.h"
#include "runtime/WZPlatformInfo.h"
#include "table/TFieldType.h"

using namespace wztable;

#define TABLE_LOCK std::lock_guard<std::recursive_mutex> tableLock(impl_->mutex)

namespace {

constexpr uint64_t kSmallFileCap = uint64_t{4} << 30;  // without huge-file support
constexpr int kDefaultGrowthMiB = 32;



}  // namespace

// ---------------------------------------------------------------------------
// Impl: files

void TCtreeTable::Impl::prepareBuffers() {
  for (auto* buffer : {&image, &oldImage, &replayImage, &replayOld})
    buffer->assign(schema.recordSize(), 0);
  for (Keys* set : {&keys, &oldKeys, &replayKeys, &replayOldKeys}) {
    set->resize(schema.indexes().size());
    for (size_t i = 0; i < set->size(); ++i) (*set)[i].assign(schema.indexes()[i].keyLength, 0);
  }
}

void TCtreeTable::Impl::readSettings() {
  int value = 0;
  verifyAlways = verifyRequested;
  syncIntervalMs = kDefaultSyncIntervalMs;
  if (WZPlatformInfo::getRegInt(kSettingsSection, kSyncIntervalSetting, &value))
    syncIntervalMs = value < 0 ? kDefaultSyncIntervalMs : (value > 60000 ? 60000 : value);
  if (WZPlatformInfo::getRegInt(kSettingsSection, kCheckPagesSetting, &value) && value != 0)
    verifyAlways = true;
  logLimit = uint64_t{64} << 20;
  if (WZPlatformInfo::getRegInt(kSettingsSection, kLogLimitSetting, &value) && value > 0)
    logLimit = uint64_t(value) << 20;
  readerWaitMs = kDefaultReaderWaitMs;
  if (WZPlatformInfo::getRegInt(kSettingsSection, kReaderWaitSetting, &value) && value >= 0)
    readerWaitMs = value;
}

int TCtreeTable::Impl::setIndexState(bool suspendedFlag) {
  IndexState state{0, suspendedFlag ? 1u : 0u, 0};
  const uint64_t lsn = dataLsn;
  return write(index, [&](MDB_txn* txn) {
    MDB_val key = valOf(kStateKey), value = valOf(&state, sizeof state);
    int rc = mdb_put(txn, indexMain, &key, &value, 0);
    // Rebuilt or not, the indexes now stand where the data file stands.
    if (rc == MDB_SUCCESS && !suspendedFlag && !legacyFiles) rc = putLsn(txn, indexMain, lsn);
    return rc;
  });
}

// Reads the headers, the log sequence numbers and the index state, and opens
// the named databases. Touches the main databases only (the quick page check
// covers them); the record count needs the records tree (loadRecordState).
int TCtreeTable::Impl::loadOpenState() {
  const std::string schemaBytes = schema.serialize();
  uint8_t dataId[16], indexId[16];
  MDB_txn* txn = nullptr;
  uint64_t pin = 0;

  int status = beginPinnedRead(data, &txn, &pin);
  if (status != TBL_OK) return status;
  status = statusFromMdb(mdb_dbi_open(txn, nullptr, 0, &dataMain));
  if (status == TBL_OK) status = checkHeader(txn, dataMain, kDataMagic, schemaBytes, dataId);
  if (status == TBL_OK) {
    int rc = mdb_dbi_open(txn, kRecordsDbName, MDB_INTEGERKEY, &records);
    status = rc == MDB_NOTFOUND ? TBL_BAD_FORMAT : statusFromMdb(rc);
  }
  bool dataHasLsn = false;
  if (status == TBL_OK) status = readU64(txn, dataMain, kLsnKey, &dataLsn, &dataHasLsn);
  if (status == TBL_OK) status = statusFromMdb(mdb_txn_commit(txn));
  else mdb_txn_abort(txn);
  unpinSnapshot(data.fd(), pin);
  if (status != TBL_OK) return status;

  txn = nullptr;
  status = beginPinnedRead(index, &txn, &pin);
  if (status != TBL_OK) return status;
  status = statusFromMdb(mdb_dbi_open(txn, nullptr, 0, &indexMain));
  if (status == TBL_OK) status = checkHeader(txn, indexMain, kIndexMagic, schemaBytes, indexId);
  if (status == TBL_OK && std::memcmp(dataId, indexId, sizeof dataId) != 0)
    status = TBL_FILES_MISMATCH;
  IndexState state{};
  if (status == TBL_OK) {
    MDB_val key = valOf(kStateKey), value;
    int rc = mdb_get(txn, indexMain, &key, &value);
    if (rc == MDB_SUCCESS && value.mv_size == sizeof state) std::memcpy(&state, value.mv_data, sizeof state);
    else status = rc == MDB_SUCCESS || rc == MDB_NOTFOUND ? TBL_BAD_FORMAT : statusFromMdb(rc);
  }
  bool indexHasLsn = false;
  if (status == TBL_OK) status = readU64(txn, indexMain, kLsnKey, &indexLsn, &indexHasLsn);
  indexDbi.assign(schema.indexes().size(), 0);
  for (size_t i = 0; status == TBL_OK && i < indexDbi.size(); ++i) {
    int rc = mdb_dbi_open(txn, indexDbName(i).c_str(), indexDbFlags(schema.indexes()[i]), &indexDbi[i]);
    status = rc == MDB_NOTFOUND ? TBL_BAD_FORMAT : statusFromMdb(rc);
    unsigned flags = 0;
    if (status == TBL_OK && (mdb_dbi_flags(txn, indexDbi[i], &flags) != MDB_SUCCESS ||
                             (flags & indexDbFlags(schema.indexes()[i])) != indexDbFlags(schema.indexes()[i])))
      status = TBL_BAD_FORMAT;
  }
  if (status == TBL_OK) status = statusFromMdb(mdb_txn_commit(txn));
  else mdb_txn_abort(txn);
  unpinSnapshot(index.fd(), pin);
  if (status != TBL_OK) return status;

  data.keepHandles({{kRecordsDbName, MDB_INTEGERKEY, records}});
  std::vector<LmdbFile::Handle> handles;
  for (size_t i = 0; i < indexDbi.size(); ++i)
    handles.push_back({indexDbName(i), indexDbFlags(schema.indexes()[i]), indexDbi[i]});
  index.keepHandles(std::move(handles));
  std::memcpy(tableId, dataId, sizeof tableId);
  legacyFiles = !dataHasLsn || !indexHasLsn;
  suspended = state.suspended != 0;
  if (legacyFiles) {
    // Files of an older engine: each write committed the data file, then the
    // index file with the data file's transaction id.
    dataLsn = indexLsn = 0;
    indexStale = state.dataTxnId != data.lastTxnId();
  } else {
    // The index file is committed first: behind the data file it cannot be
    // brought forward (rebuilt instead); ahead, the log brings the data on.
    indexStale = indexLsn < dataLsn;
  }
  prepareBuffers();
  return TBL_OK;
}

// The next record number: above the highest ever handed out.
int TCtreeTable::Impl::loadRecordState() {
  MDB_txn* txn = nullptr;
  uint64_t pin = 0;
  int status = beginPinnedRead(data, &txn, &pin);
  if (status != TBL_OK) return status;
  uint64_t highest = 0;
  bool present = false;
  status = readU64(txn, dataMain, kHighWaterKey, &highest, &present);
  if (status == TBL_OK) {
    MDB_cursor* cursor = nullptr;
    int rc = mdb_cursor_open(txn, records, &cursor);
    MDB_val key, value;
    if (rc == MDB_SUCCESS) rc = mdb_cursor_get(cursor, &key, &value, MDB_LAST);
    if (rc == MDB_SUCCESS && key.mv_size == sizeof(uint64_t)) {
      uint64_t last;
      std::memcpy(&last, key.mv_data, sizeof last);
      if (last > highest) highest = last;
    } else if (rc != MDB_NOTFOUND) {
      status = rc == MDB_SUCCESS ? TBL_BAD_FORMAT : statusFromMdb(rc);
    }
    if (cursor) mdb_cursor_close(cursor);
  }
  mdb_txn_abort(txn);
  unpinSnapshot(data.fd(), pin);
  if (status != TBL_OK) return status;
  nextRecno = committedNextRecno = highest + 1;
  return TBL_OK;
}

int TCtreeTable::Impl::verifyFiles(bool deep) {
  std::string damage;
  const LmdbFile* damaged = nullptr;
  int status = data.validate(&damage, deep);
  if (status == TBL_BAD_FORMAT) damaged = &data;
  if (status == TBL_OK && (status = index.validate(&damage, deep)) == TBL_BAD_FORMAT) damaged = &index;
  if (damaged)
    self->debug(-1, "Table %s: the file %s is damaged (%s)", name.c_str(), damaged->path().c_str(),
                damage.c_str());
  return status;
}

// A copy of a closed table (WzScanDB::copy) renames its temporary data file
// into place before its temporary index file. Killed between the two, it
// leaves the new data file beside no index file or the one it was replacing,
// and its index file under the temporary name: that index file is put in
// place. Nothing else is touched.
void TCtreeTable::Impl::finishInterruptedCopy() {
  const std::string temp = indexPath() + ".tmp";
  struct stat st;
  if (::lstat(temp.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return;
  uint8_t dataId[16], tempId[16], indexId[16];
  if (readFileTableId(dataPath(), kDataMagic, dataId) != TBL_OK ||
      readFileTableId(temp, kIndexMagic, tempId) != TBL_OK ||
      std::memcmp(dataId, tempId, sizeof dataId) != 0)
    return;
  if (readFileTableId(indexPath(), kIndexMagic, indexId) == TBL_OK &&
      std::memcmp(dataId, indexId, sizeof dataId) == 0)
    return;
  if (::rename(temp.c_str(), indexPath().c_str()) == 0)
    self->debug(0, "Table %s: finished an interrupted copy: %s renamed to %s", name.c_str(),
                temp.c_str(), indexPath().c_str());
}

int TCtreeTable::Impl::openFiles(WZIndexing::TAccessEnum mode) {
  readOnly = mode == WZIndexing::kAccessReadOnly;
  readSettings();
  if (!readOnly) finishInterruptedCopy();
  const size_t step = static_cast<size_t>(self->hugeFileIncr() > 0 ? self->hugeFileIncr() : 1) << 20;
  const uint64_t cap = self->createHugeFile() ? 0 : kSmallFileCap;
  int status = data.openFile(dataPath(), false, readOnly);
  // One writer at a time; readers share the files with it.
  if (status == TBL_OK && !readOnly) status = lockWriter(data.fd());
  if (status == TBL_OK) status = index.openFile(indexPath(), false, readOnly);
  struct stat st;
  const bool logPresent = status == TBL_OK && ::lstat(logPath().c_str(), &st) == 0;
  // Files a live writer holds are trusted (their pages change under a check).
  const bool liveWriter = status == TBL_OK && readOnly && writerPresent(data.fd());
  // Files not closed cleanly (a log was left), or changed since their clean
  // close by anything else (their mark is gone or stale: a copy, a restore,
  // another program's write), get every page checked; files as this engine
  // closed them, the quick check of what the open itself reads. Where the
  // file system keeps no marks, a file without a log counts as clean.
  bool deep = verifyAlways || logPresent;
  if (status == TBL_OK && !deep && !liveWriter)
    deep = data.cleanMark() == LmdbFile::Mark::kAbsent || index.cleanMark() == LmdbFile::Mark::kAbsent;
  if (status == TBL_OK && !liveWriter) status = verifyFiles(deep);
  if (status == TBL_OK && !readOnly) {
    // From here on the files change: a kill leaves them unmarked.
    data.clearCleanMark();
    index.clearCleanMark();
  }
  if (status == TBL_OK) status = data.openEnv(2, step, cap);
  if (status == TBL_OK)
    status = index.openEnv(static_cast<unsigned>(schema.indexes().size()) + 1, step, cap);
  if (status == TBL_OK) status = loadOpenState();
  if (status == TBL_OK && legacyFiles && !deep && !liveWriter) {
    // Files of an older engine carry no mark of a clean close.
    deep = true;
    status = verifyFiles(true);
  }
  if (status == TBL_OK) status = loadRecordState();
  if (status == TBL_OK && liveWriter) {
    // What the writer is doing to the index is read at every read.
    suspended = indexStale = false;
  } else if (status == TBL_OK && readOnly && !legacyFiles && indexLsn != dataLsn) {
    indexStale = true;
  }
  if (status == TBL_OK && logPresent && !readOnly) {
    open = true;  // replay checkpoints as an open table does
    status = replayLog();
    open = false;
  }
  if (status == TBL_OK && !readOnly && !legacyFiles && indexLsn > dataLsn) {
    // The index holds writes the data file never received: rebuilt below.
    indexStale = true;
  }
  if (status == TBL_OK && logPresent && readOnly && !liveWriter)
    self->debug(0,
                "Table %s opened read-only: the log %s of a process that did not close the table "
                "is not replayed; reads see the table as last committed",
                name.c_str(), logPath().c_str());
  if (status != TBL_OK) {
    flusher.stop();
    log.close(false);
    dropTransactions();
    index.abandon();
    data.abandon();
  }
  return status;
}

void TCtreeTable::Impl::dropTransactions() {
  if (!readOnly) {
    abortGroup();
    return;
  }
  endRead();
  for (MDB_cursor*& cursor : indexCursor) {
    if (cursor) mdb_cursor_close(cursor);
    cursor = nullptr;
  }
  if (recordCursor) mdb_cursor_close(recordCursor);
  recordCursor = nullptr;
  if (dataTxn) mdb_txn_abort(dataTxn);
  if (indexTxn) mdb_txn_abort(indexTxn);
  dataTxn = indexTxn = nullptr;
  dataActive = indexActive = false;
  positioned = false;
}

int TCtreeTable::Impl::closeFiles() {
  flusher.stop();
  int status = TBL_OK;
  if (!readOnly) {
    status = checkpoint();
    if (status == TBL_OK) status = failure;
    // A clean close leaves the two files alone; after a failure the log
    // stays, and the next open replays it and checks every page.
    int logStatus = log.close(status == TBL_OK);
    if (logStatus != TBL_OK)
      self->debug(-1, "Table %s: removing the log %s at close failed (%s)", name.c_str(),
                  logPath().c_str(), errToString(logStatus));
    if (status == TBL_OK) status = logStatus;
  }
  dropTransactions();
  int indexStatus = index.close();
  int dataStatus = data.close();  // last: closing the data file drops the writer lock
  // Each file's length is cut to its pages and flushed: a failure is a failed flush.
  auto reportClose = [this](int fileStatus, const LmdbFile& file) {
    if (fileStatus != TBL_OK)
      self->debug(-1, "Table %s: flushing %s at close failed (%s)", name.c_str(),
                  file.path().c_str(), errToString(fileStatus));
  };
  reportClose(indexStatus, index);
  reportClose(dataStatus, data);
  if (status == TBL_OK) status = indexStatus != TBL_OK ? indexStatus : dataStatus;
  open = false;
  readOnly = false;
  failure = TBL_OK;
  threads.clear();
  lastState = nullptr;
  positionedFor = nullptr;
  return status;
}

// ---------------------------------------------------------------------------
// TCtreeTable: life cycle

TCtreeTable::TCtreeTable() : impl_(new Impl(this)) {}

TCtreeTable::~TCtreeTable() {
  TABLE_LOCK;
  if (impl_->open) impl_->closeFiles();
}

void TCtreeTable::setVerifyOnOpen(bool always) {
  TABLE_LOCK;
  impl_->verifyRequested = always;
}

TCtreeTable::BulkWrites::BulkWrites(TCtreeTable& table) : table_(table) {
  std::lock_guard<std::recursive_mutex> lock(table_.impl_->mutex);
  ++table_.impl_->ts().bulk;
}

TCtreeTable::BulkWrites::~BulkWrites() { finish(); }

int TCtreeTable::BulkWrites::finish() {
  if (finished_) return status_;
  finished_ = true;
  std::lock_guard<std::recursive_mutex> lock(table_.impl_->mutex);
  Impl& im = *table_.impl_;
  if (--im.ts().bulk > 0 || !im.log.isOpen() || im.syncIntervalMs != 0) return status_;
  // With every write flushed (sync interval 0), the bulk's writes are
  // flushed together.
  status_ = im.log.sync();
  if (status_ != TBL_OK) {
    im.failure = status_;
    im.reportFlushFailure(status_, "writing the log");
  }
  return status_;
}

int TCtreeTable::initialize(const char* name) {
  TABLE_LOCK;
  if (impl_->open) return TBL_ALREADY_OPEN;
  if (!name || !*name) return TBL_BAD_ARGUMENT;
  impl_->name = name;
  return TBL_OK;
}

int TCtreeTable::registerTable() {
  TABLE_LOCK;
  const TableLimits defaults;
  return internalRegisterTable(static_cast<short>(defaults.maxFields),
                               static_cast<short>(defaults.maxIndices),
                               static_cast<short>(defaults.maxSegments));
}

const char* TCtreeTable::getTableType() { return "TCtreeTable"; }

int TCtreeTable::internalRegisterTable(short maxFields, short maxIndices, short maxSegments) {
  TABLE_LOCK;
  if (impl_->open) return TBL_ALREADY_OPEN;
  if (maxFields <= 0 || maxFields > kHardMaxFields || maxIndices <= 0 ||
      maxIndices > kHardMaxIndices || maxSegments <= 0 || maxSegments > kHardMaxSegments)
    return TBL_BAD_SCHEMA;
  impl_->limits.maxFields = maxFields;
  impl_->limits.maxIndices = maxIndices;
  impl_->limits.maxSegments = maxSegments;
  return TBL_OK;
}

int TCtreeTable::internalInitialize(const char* name, unsigned int variableLength,
                                    unsigned int numFields, unsigned int numIndices,
                                    unsigned int numSegments, unsigned int recordSize,
                                    unsigned int fixedRecordSize) {
  TABLE_LOCK;
  if (impl_->open) return TBL_ALREADY_OPEN;
  if (!name || !*name) return TBL_BAD_ARGUMENT;
  impl_->schema.clear();
  int status = registerTable();
  if (status != TBL_OK) return status;
  impl_->name = name;
  return impl_->schema.begin(variableLength, numFields, numIndices, numSegments, recordSize,
                             fixedRecordSize, impl_->limits);
}

int TCtreeTable::setNextField(const char* name, unsigned long offset, short type, short length) {
  TABLE_LOCK;
  if (impl_->open) return TBL_ALREADY_OPEN;
  return impl_->schema.addField(name, offset, type, length);
}

int TCtreeTable::setNextIndex(const char* name, short keyLength, TKeyType keyType, short duplicates,
                              short nullKey, short emptyChar, short numSegments,
                              short segmentNumber) {
  TABLE_LOCK;
  if (impl_->open) return TBL_ALREADY_OPEN;
  return impl_->schema.addIndex(name, keyLength, keyType, duplicates, nullKey, emptyChar,
                                numSegments, segmentNumber);
}

int TCtreeTable::setNextSegment(short fieldNumber, short segmentSize, char caseSensitive) {
  TABLE_LOCK;
  if (impl_->open) return TBL_ALREADY_OPEN;
  return impl_->schema.addSegment(fieldNumber, segmentSize, caseSensitive);
}

int TCtreeTable::shellOrder(int fieldNumber) {
  TABLE_LOCK;
  if (impl_->open) return TBL_ALREADY_OPEN;
  return impl_->schema.addOrder(fieldNumber);
}

int TCtreeTable::initializeComplete() {
  TABLE_LOCK;
  if (impl_->open) return TBL_ALREADY_OPEN;
  return impl_->schema.complete();
}

bool TCtreeTable::createHugeFile() { return false; }

int TCtreeTable::hugeFileIncr() { return kDefaultGrowthMiB; }

int TCtreeTable::create() {
  TABLE_LOCK;
  if (impl_->open) return TBL_ALREADY_OPEN;
  if (!impl_->schema.isComplete() || impl_->name.empty()) return TBL_NOT_DEFINED;
  int status = impl_->createFiles();
  if (status != TBL_OK) return status;
  impl_->open = true;
  return TBL_OK;
}

int TCtreeTable::open(WZIndexing::TAccessEnum mode) {
  TABLE_LOCK;
  if (impl_->open) return TBL_ALREADY_OPEN;
  if (!impl_->schema.isComplete() || impl_->name.empty()) return TBL_NOT_DEFINED;
  if (mode != WZIndexing::kAccessReadWrite && mode != WZIndexing::kAccessReadOnly)
    return TBL_BAD_ARGUMENT;
  int status = impl_->openFiles(mode);
  if (status != TBL_OK) return status;
  impl_->open = true;
  if (!impl_->suspended && !impl_->indexStale) return TBL_OK;

  const char* why = impl_->suspended ? "indexing was left suspended"
                                     : "the index file is behind the data file";
  if (impl_->readOnly) {
    debug(0, "Table %s opened read-only with stale indexes (%s): index reads are refused",
          impl_->name.c_str(), why);
    impl_->indexStale = true;
    return TBL_OK;
  }
  debug(0, "Rebuilding the indexes of table %s during open: %s", impl_->name.c_str(), why);
  try {
    // The sort's runs and read buffers are allocated outside any transaction.
    status = impl_->rebuild();
  } catch (const std::bad_alloc&) {
    status = TBL_NO_MEMORY;
  }
  if (status == TBL_DUPLICATE_KEY) {
    debug(-1,
          "Table %s: a unique index meets a duplicate key; indexing stays suspended and no "
          "record was lost",
          impl_->name.c_str());
    return TBL_OK;
  }
  if (status != TBL_OK) {
    impl_->closeFiles();
    return status;
  }
  debug(0, "Rebuilt the indexes of table %s", impl_->name.c_str());
  return TBL_OK;
}

int TCtreeTable::close() {
  TABLE_LOCK;
  if (!impl_->open) return TBL_NOT_OPEN;
  return impl_->closeFiles();
}

bool TCtreeTable::isOpen() const {
  TABLE_LOCK;
  return impl_->open;
}

void TCtreeTable::setRebuildMemoryLimit(size_t bytes) {
  TABLE_LOCK;
  impl_->rebuildMemory = bytes < 4096 ? 4096 : bytes;
}

// ---------------------------------------------------------------------------
// Hooks this engine does not have: each answers TBL_NOT_SUPPORTED.

int TCtreeTable::shellUtilities() { return TBL_NOT_SUPPORTED; }
int TCtreeTable::alternateViewer(short, void*) { return TBL_NOT_SUPPORTED; }
int TCtreeTable::alternateEditor(short, void*, int) { return TBL_NOT_SUPPORTED; }
int TCtreeTable::adjustTableVersion(const char*, int&) { return TBL_NOT_SUPPORTED; }
int TCtreeTable::processIndexVersionExternal(int&) { return TBL_NOT_SUPPORTED; }
int TCtreeTable::processTableVersionExternal(int&) { return TBL_NOT_SUPPORTED; }

// ---------------------------------------------------------------------------
// Schema queries

namespace {
int copyName(const std::string& name, char* buffer, unsigned int size) {
  if (!buffer || size < name.size() + 1) return TBL_BAD_ARGUMENT;
  std::memcpy(buffer, name.c_str(), name.size() + 1);
  return TBL_OK;
}
}  // namespace

int TCtreeTable::getIndexesCount() {
  TABLE_LOCK; return static_cast<int>(impl_->schema.indexes().size()); }

int TCtreeTable::getIndexNameSize(int index) {
  TABLE_LOCK;
  if (index < 0 || index >= getIndexesCount()) return -1;
  return static_cast<int>(impl_->schema.indexes()[index].name.size() + 1);
}

int TCtreeTable::getIndexName(int index, char* buffer, unsigned int size) {
  TABLE_LOCK;
  if (index < 0 || index >= getIndexesCount()) return TBL_BAD_ARGUMENT;
  return copyName(impl_->schema.indexes()[index].name, buffer, size);
}

int TCtreeTable::getFieldsCount() {
  TABLE_LOCK; return static_cast<int>(impl_->schema.fields().size()); }

int TCtreeTable::getFieldType(unsigned int field) {
  TABLE_LOCK;
  if (field >= impl_->schema.fields().size()) return -1;
  return impl_->schema.fields()[field].type;
}

int TCtreeTable::getFieldUnsignedFlag(unsigned int field) {
  TABLE_LOCK;
  if (field >= impl_->schema.fields().size()) return -1;
  const short type = impl_->schema.fields()[field].type;
  return (type == kFieldUInt8 || type == kFieldUInt32 || type == kFieldUInt64) ? 1 : 0;
}

int TCtreeTable::getFieldLength(unsigned int field) {
  TABLE_LOCK;
  if (field >= impl_->schema.fields().size()) return -1;
  return impl_->schema.fields()[field].length;
}

int TCtreeTable::getFieldOffset(unsigned int field) {
  TABLE_LOCK;
  if (field >= impl_->schema.fields().size()) return -1;
  return static_cast<int>(impl_->schema.fields()[field].offset);
}

int TCtreeTable::getFieldNameSize(unsigned int field) {
  TABLE_LOCK;
  if (field >= impl_->schema.fields().size()) return -1;
  return static_cast<int>(impl_->schema.fields()[field].name.size() + 1);
}

int TCtreeTable::getFieldName(unsigned int field, char* buffer, unsigned int size) {
  TABLE_LOCK;
  if (field >= impl_->schema.fields().size()) return TBL_BAD_ARGUMENT;
  return copyName(impl_->schema.fields()[field].name, buffer, size);
}

int TCtreeTable::getFieldOrderCount() {
  TABLE_LOCK; return static_cast<int>(impl_->schema.order().size()); }

int TCtreeTable::getFieldIdInOrder(unsigned int order) {
  TABLE_LOCK;
  if (order >= impl_->schema.order().size()) return -1;
  return impl_->schema.order()[order];
}

void TCtreeTable::setBypassMode(bool bypass) {
  TABLE_LOCK; impl_->bypass = bypass; }

bool TCtreeTable::getBypassMode() {
  TABLE_LOCK; return impl_->bypass; }
