// Schema definition, create / open / close, index state, queries.
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "TableFormat.h"
#include "TableImpl.h"
#include "table/TFieldType.h"

using namespace wztable;

namespace {

constexpr uint64_t kSmallFileCap = uint64_t{4} << 30;  // without huge-file support
constexpr int kDefaultGrowthMiB = 32;

MDB_val valOf(const void* data, size_t size) {
  MDB_val v;
  v.mv_data = const_cast<void*>(data);
  v.mv_size = size;
  return v;
}

MDB_val valOf(const char* text) { return valOf(text, std::strlen(text)); }

unsigned indexDbFlags(const TableIndex& index) {
  return index.duplicates ? (MDB_DUPSORT | MDB_DUPFIXED | MDB_INTEGERDUP) : 0;
}

std::string indexDbName(size_t n) { return "i" + std::to_string(n); }

std::string headerBytes(const char (&magic)[8], const uint8_t* tableId, const std::string& schema) {
  FileHeader header{};
  std::memcpy(header.magic, magic, sizeof header.magic);
  header.version = kFormatVersion;
  std::memcpy(header.tableId, tableId, sizeof header.tableId);
  std::string out(reinterpret_cast<const char*>(&header), sizeof header);
  out += schema;
  return out;
}

// Checks one file's header against the registered schema; copies its table id.
int checkHeader(MDB_txn* txn, MDB_dbi main, const char (&magic)[8], const std::string& schema,
                uint8_t* tableId) {
  MDB_val key = valOf(kHeaderKey), value;
  int rc = mdb_get(txn, main, &key, &value);
  if (rc == MDB_NOTFOUND) return TBL_BAD_FORMAT;
  if (rc != MDB_SUCCESS) return statusFromMdb(rc);
  if (value.mv_size < sizeof(FileHeader)) return TBL_BAD_FORMAT;
  FileHeader header;
  std::memcpy(&header, value.mv_data, sizeof header);
  if (std::memcmp(header.magic, magic, sizeof header.magic) != 0) return TBL_BAD_FORMAT;
  if (header.version != kFormatVersion) return TBL_BAD_FORMAT;
  const size_t schemaSize = value.mv_size - sizeof header;
  if (schemaSize != schema.size() ||
      std::memcmp(static_cast<const char*>(value.mv_data) + sizeof header, schema.data(),
                  schemaSize) != 0)
    return TBL_SCHEMA_MISMATCH;
  std::memcpy(tableId, header.tableId, sizeof header.tableId);
  return TBL_OK;
}

}  // namespace

// ---------------------------------------------------------------------------
// Impl: files

void TCtreeTable::Impl::prepareBuffers() {
  image.assign(schema.recordSize(), 0);
  oldImage.assign(schema.recordSize(), 0);
  keys.resize(schema.indexes().size());
  oldKeys.resize(schema.indexes().size());
  for (size_t i = 0; i < keys.size(); ++i) {
    keys[i].assign(schema.indexes()[i].keyLength, 0);
    oldKeys[i].assign(schema.indexes()[i].keyLength, 0);
  }
}

void TCtreeTable::Impl::dropReadState() {
  for (MDB_cursor*& cursor : indexCursor) {
    if (cursor) mdb_cursor_close(cursor);
    cursor = nullptr;
  }
  indexCursor.clear();
  if (recordCursor) mdb_cursor_close(recordCursor);
  recordCursor = nullptr;
  if (dataRead) mdb_txn_abort(dataRead);
  if (indexRead) mdb_txn_abort(indexRead);
  dataRead = indexRead = nullptr;
  dataActive = indexActive = false;
  positioned = false;
}

int TCtreeTable::Impl::beginRead(bool needData, bool needIndex) {
  int rc = MDB_SUCCESS;
  if (needData && !dataActive) {
    rc = dataRead ? mdb_txn_renew(dataRead)
                  : mdb_txn_begin(data.env(), nullptr, MDB_RDONLY, &dataRead);
    if (rc != MDB_SUCCESS) {
      if (dataRead) mdb_txn_abort(dataRead);
      dataRead = nullptr;
      return statusFromMdb(rc);
    }
    dataActive = true;
    rc = recordCursor ? mdb_cursor_renew(dataRead, recordCursor)
                      : mdb_cursor_open(dataRead, records, &recordCursor);
    if (rc != MDB_SUCCESS) {
      endRead();
      return statusFromMdb(rc);
    }
  }
  if (needIndex && !indexActive) {
    rc = indexRead ? mdb_txn_renew(indexRead)
                   : mdb_txn_begin(index.env(), nullptr, MDB_RDONLY, &indexRead);
    if (rc != MDB_SUCCESS) {
      if (indexRead) mdb_txn_abort(indexRead);
      indexRead = nullptr;
      endRead();
      return statusFromMdb(rc);
    }
    indexActive = true;
    indexCursor.resize(indexDbi.size(), nullptr);
    for (size_t i = 0; i < indexDbi.size() && rc == MDB_SUCCESS; ++i)
      rc = indexCursor[i] ? mdb_cursor_renew(indexRead, indexCursor[i])
                          : mdb_cursor_open(indexRead, indexDbi[i], &indexCursor[i]);
    if (rc != MDB_SUCCESS) {
      endRead();
      return statusFromMdb(rc);
    }
  }
  return TBL_OK;
}

void TCtreeTable::Impl::endRead() {
  // A reset transaction is inactive: writes and map growth may follow.
  if (dataActive) mdb_txn_reset(dataRead);
  if (indexActive) mdb_txn_reset(indexRead);
  dataActive = indexActive = false;
  positioned = false;
}

int TCtreeTable::Impl::setIndexState(uint64_t dataTxnId, bool suspendedFlag) {
  IndexState state{dataTxnId, suspendedFlag ? 1u : 0u, 0};
  return write(index, [&](MDB_txn* txn) {
    MDB_val key = valOf(kStateKey), value = valOf(&state, sizeof state);
    return mdb_put(txn, indexMain, &key, &value, 0);
  });
}

int TCtreeTable::Impl::loadOpenState() {
  const std::string schemaBytes = schema.serialize();
  uint8_t dataId[16], indexId[16];
  MDB_txn* txn = nullptr;

  int rc = mdb_txn_begin(data.env(), nullptr, MDB_RDONLY, &txn);
  if (rc != MDB_SUCCESS) return statusFromMdb(rc);
  int status = statusFromMdb(mdb_dbi_open(txn, nullptr, 0, &dataMain));
  if (status == TBL_OK) status = checkHeader(txn, dataMain, kDataMagic, schemaBytes, dataId);
  if (status == TBL_OK) {
    rc = mdb_dbi_open(txn, kRecordsDbName, MDB_INTEGERKEY, &records);
    status = rc == MDB_NOTFOUND ? TBL_BAD_FORMAT : statusFromMdb(rc);
  }
  uint64_t highest = 0;
  if (status == TBL_OK) {
    MDB_val key = valOf(kHighWaterKey), value;
    rc = mdb_get(txn, dataMain, &key, &value);
    if (rc == MDB_SUCCESS && value.mv_size == sizeof highest) std::memcpy(&highest, value.mv_data, sizeof highest);
    else if (rc != MDB_NOTFOUND) status = rc == MDB_SUCCESS ? TBL_BAD_FORMAT : statusFromMdb(rc);
  }
  if (status == TBL_OK) {
    MDB_cursor* cursor = nullptr;
    rc = mdb_cursor_open(txn, records, &cursor);
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
  if (status == TBL_OK) status = statusFromMdb(mdb_txn_commit(txn));
  else mdb_txn_abort(txn);
  if (status != TBL_OK) return status;
  nextRecno = highest + 1;

  rc = mdb_txn_begin(index.env(), nullptr, MDB_RDONLY, &txn);
  if (rc != MDB_SUCCESS) return statusFromMdb(rc);
  status = statusFromMdb(mdb_dbi_open(txn, nullptr, 0, &indexMain));
  if (status == TBL_OK) status = checkHeader(txn, indexMain, kIndexMagic, schemaBytes, indexId);
  if (status == TBL_OK && std::memcmp(dataId, indexId, sizeof dataId) != 0)
    status = TBL_FILES_MISMATCH;
  IndexState state{};
  if (status == TBL_OK) {
    MDB_val key = valOf(kStateKey), value;
    rc = mdb_get(txn, indexMain, &key, &value);
    if (rc == MDB_SUCCESS && value.mv_size == sizeof state) std::memcpy(&state, value.mv_data, sizeof state);
    else status = rc == MDB_SUCCESS || rc == MDB_NOTFOUND ? TBL_BAD_FORMAT : statusFromMdb(rc);
  }
  indexDbi.assign(schema.indexes().size(), 0);
  for (size_t i = 0; status == TBL_OK && i < indexDbi.size(); ++i) {
    rc = mdb_dbi_open(txn, indexDbName(i).c_str(), indexDbFlags(schema.indexes()[i]), &indexDbi[i]);
    status = rc == MDB_NOTFOUND ? TBL_BAD_FORMAT : statusFromMdb(rc);
    unsigned flags = 0;
    if (status == TBL_OK && (mdb_dbi_flags(txn, indexDbi[i], &flags) != MDB_SUCCESS ||
                             (flags & indexDbFlags(schema.indexes()[i])) != indexDbFlags(schema.indexes()[i])))
      status = TBL_BAD_FORMAT;
  }
  if (status == TBL_OK) status = statusFromMdb(mdb_txn_commit(txn));
  else mdb_txn_abort(txn);
  if (status != TBL_OK) return status;

  suspended = state.suspended != 0;
  indexStale = state.dataTxnId != data.lastTxnId();
  prepareBuffers();
  return TBL_OK;
}

int TCtreeTable::Impl::openFiles(WZIndexing::TAccessEnum mode) {
  readOnly = mode == WZIndexing::kAccessReadOnly;
  const size_t step = static_cast<size_t>(self->hugeFileIncr() > 0 ? self->hugeFileIncr() : 1) << 20;
  const uint64_t cap = self->createHugeFile() ? 0 : kSmallFileCap;
  int status = data.openFile(dataPath(), false, readOnly);
  if (status == TBL_OK) status = data.lock(!readOnly);
  if (status == TBL_OK) status = index.openFile(indexPath(), false, readOnly);
  // LMDB trusts its pages: a damaged file is refused here, before it is mapped.
  std::string damage;
  const LmdbFile* damaged = nullptr;
  if (status == TBL_OK && (status = data.validate(&damage)) == TBL_BAD_FORMAT) damaged = &data;
  if (status == TBL_OK && (status = index.validate(&damage)) == TBL_BAD_FORMAT) damaged = &index;
  if (damaged)
    self->debug(-1, "Table %s: the file %s is damaged (%s)", name.c_str(), damaged->path().c_str(),
                damage.c_str());
  if (status == TBL_OK) status = data.openEnv(2, step, cap);
  if (status == TBL_OK)
    status = index.openEnv(static_cast<unsigned>(schema.indexes().size()) + 1, step, cap);
  if (status == TBL_OK) status = loadOpenState();
  if (status != TBL_OK) {
    dropReadState();
    index.abandon();
    data.abandon();
  }
  return status;
}

int TCtreeTable::Impl::createFiles() {
  readOnly = false;
  struct stat st;
  if (lstat(dataPath().c_str(), &st) == 0 || lstat(indexPath().c_str(), &st) == 0)
    return TBL_FILE_EXISTS;
  const size_t step = static_cast<size_t>(self->hugeFileIncr() > 0 ? self->hugeFileIncr() : 1) << 20;
  const uint64_t cap = self->createHugeFile() ? 0 : kSmallFileCap;
  bool createdData = false, createdIndex = false;
  int status = data.openFile(dataPath(), true, false);
  createdData = status == TBL_OK;
  if (status == TBL_OK) status = data.lock(true);
  if (status == TBL_OK) {
    status = index.openFile(indexPath(), true, false);
    createdIndex = status == TBL_OK;
  }
  if (status == TBL_OK) status = data.openEnv(2, step, cap);
  if (status == TBL_OK)
    status = index.openEnv(static_cast<unsigned>(schema.indexes().size()) + 1, step, cap);

  uint8_t tableId[16];
  if (status == TBL_OK && getrandom(tableId, sizeof tableId, 0) != sizeof tableId)
    status = TBL_IO_ERROR;
  const std::string schemaBytes = schema.serialize();
  if (status == TBL_OK) {
    const std::string header = headerBytes(kDataMagic, tableId, schemaBytes);
    status = write(data, [&](MDB_txn* txn) {
      MDB_dbi main, recs;
      int rc = mdb_dbi_open(txn, nullptr, 0, &main);
      MDB_val key = valOf(kHeaderKey), value = valOf(header.data(), header.size());
      if (rc == MDB_SUCCESS) rc = mdb_put(txn, main, &key, &value, 0);
      if (rc == MDB_SUCCESS) rc = mdb_dbi_open(txn, kRecordsDbName, MDB_CREATE | MDB_INTEGERKEY, &recs);
      return rc;
    });
  }
  if (status == TBL_OK) {
    const std::string header = headerBytes(kIndexMagic, tableId, schemaBytes);
    const IndexState state{data.lastTxnId(), 0, 0};
    status = write(index, [&](MDB_txn* txn) {
      MDB_dbi main, dbi;
      int rc = mdb_dbi_open(txn, nullptr, 0, &main);
      MDB_val key = valOf(kHeaderKey), value = valOf(header.data(), header.size());
      if (rc == MDB_SUCCESS) rc = mdb_put(txn, main, &key, &value, 0);
      key = valOf(kStateKey);
      value = valOf(&state, sizeof state);
      if (rc == MDB_SUCCESS) rc = mdb_put(txn, main, &key, &value, 0);
      for (size_t i = 0; rc == MDB_SUCCESS && i < schema.indexes().size(); ++i)
        rc = mdb_dbi_open(txn, indexDbName(i).c_str(), MDB_CREATE | indexDbFlags(schema.indexes()[i]),
                          &dbi);
      return rc;
    });
  }
  if (status == TBL_OK) status = loadOpenState();
  if (status != TBL_OK) {
    dropReadState();
    index.abandon();
    data.abandon();
    if (createdIndex) ::unlink(indexPath().c_str());
    if (createdData) ::unlink(dataPath().c_str());
  }
  return status;
}

int TCtreeTable::Impl::closeFiles() {
  dropReadState();
  int indexStatus = index.close();
  int dataStatus = data.close();  // last: closing the data file drops the lock
  open = false;
  readOnly = false;
  current = Current();
  set = Set();
  return indexStatus != TBL_OK ? indexStatus : dataStatus;
}

// ---------------------------------------------------------------------------
// TCtreeTable: life cycle

TCtreeTable::TCtreeTable() : impl_(new Impl(this)) {}

TCtreeTable::~TCtreeTable() {
  if (impl_->open) impl_->closeFiles();
}

int TCtreeTable::initialize(const char* name) {
  if (impl_->open) return TBL_ALREADY_OPEN;
  if (!name || !*name) return TBL_BAD_ARGUMENT;
  impl_->name = name;
  return TBL_OK;
}

int TCtreeTable::registerTable() {
  const TableLimits defaults;
  return internalRegisterTable(static_cast<short>(defaults.maxFields),
                               static_cast<short>(defaults.maxIndices),
                               static_cast<short>(defaults.maxSegments));
}

const char* TCtreeTable::getTableType() { return "TCtreeTable"; }

int TCtreeTable::internalRegisterTable(short maxFields, short maxIndices, short maxSegments) {
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
  if (impl_->open) return TBL_ALREADY_OPEN;
  return impl_->schema.addField(name, offset, type, length);
}

int TCtreeTable::setNextIndex(const char* name, short keyLength, TKeyType keyType, short duplicates,
                              short nullKey, short emptyChar, short numSegments,
                              short segmentNumber) {
  if (impl_->open) return TBL_ALREADY_OPEN;
  return impl_->schema.addIndex(name, keyLength, keyType, duplicates, nullKey, emptyChar,
                                numSegments, segmentNumber);
}

int TCtreeTable::setNextSegment(short fieldNumber, short segmentSize, char caseSensitive) {
  if (impl_->open) return TBL_ALREADY_OPEN;
  return impl_->schema.addSegment(fieldNumber, segmentSize, caseSensitive);
}

int TCtreeTable::shellOrder(int fieldNumber) {
  if (impl_->open) return TBL_ALREADY_OPEN;
  return impl_->schema.addOrder(fieldNumber);
}

int TCtreeTable::initializeComplete() {
  if (impl_->open) return TBL_ALREADY_OPEN;
  return impl_->schema.complete();
}

bool TCtreeTable::createHugeFile() { return false; }

int TCtreeTable::hugeFileIncr() { return kDefaultGrowthMiB; }

int TCtreeTable::create() {
  if (impl_->open) return TBL_ALREADY_OPEN;
  if (!impl_->schema.isComplete() || impl_->name.empty()) return TBL_NOT_DEFINED;
  int status = impl_->createFiles();
  if (status != TBL_OK) return status;
  impl_->open = true;
  return TBL_OK;
}

int TCtreeTable::open(WZIndexing::TAccessEnum mode) {
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
  status = impl_->rebuild();
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
  if (!impl_->open) return TBL_NOT_OPEN;
  return impl_->closeFiles();
}

bool TCtreeTable::isOpen() const { return impl_->open; }

void TCtreeTable::setRebuildMemoryLimit(size_t bytes) {
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

int TCtreeTable::getIndexesCount() { return static_cast<int>(impl_->schema.indexes().size()); }

int TCtreeTable::getIndexNameSize(int index) {
  if (index < 0 || index >= getIndexesCount()) return -1;
  return static_cast<int>(impl_->schema.indexes()[index].name.size() + 1);
}

int TCtreeTable::getIndexName(int index, char* buffer, unsigned int size) {
  if (index < 0 || index >= getIndexesCount()) return TBL_BAD_ARGUMENT;
  return copyName(impl_->schema.indexes()[index].name, buffer, size);
}

int TCtreeTable::getFieldsCount() { return static_cast<int>(impl_->schema.fields().size()); }

int TCtreeTable::getFieldType(unsigned int field) {
  if (field >= impl_->schema.fields().size()) return -1;
  return impl_->schema.fields()[field].type;
}

int TCtreeTable::getFieldUnsignedFlag(unsigned int field) {
  if (field >= impl_->schema.fields().size()) return -1;
  const short type = impl_->schema.fields()[field].type;
  return (type == kFieldUInt8 || type == kFieldUInt32 || type == kFieldUInt64) ? 1 : 0;
}

int TCtreeTable::getFieldLength(unsigned int field) {
  if (field >= impl_->schema.fields().size()) return -1;
  return impl_->schema.fields()[field].length;
}

int TCtreeTable::getFieldOffset(unsigned int field) {
  if (field >= impl_->schema.fields().size()) return -1;
  return static_cast<int>(impl_->schema.fields()[field].offset);
}

int TCtreeTable::getFieldNameSize(unsigned int field) {
  if (field >= impl_->schema.fields().size()) return -1;
  return static_cast<int>(impl_->schema.fields()[field].name.size() + 1);
}

int TCtreeTable::getFieldName(unsigned int field, char* buffer, unsigned int size) {
  if (field >= impl_->schema.fields().size()) return TBL_BAD_ARGUMENT;
  return copyName(impl_->schema.fields()[field].name, buffer, size);
}

int TCtreeTable::getFieldOrderCount() { return static_cast<int>(impl_->schema.order().size()); }

int TCtreeTable::getFieldIdInOrder(unsigned int order) {
  if (order >= impl_->schema.order().size()) return -1;
  return impl_->schema.order()[order];
}

void TCtreeTable::setBypassMode(bool bypass) { impl_->bypass = bypass; }

bool TCtreeTable::getBypassMode() { return impl_->bypass; }
