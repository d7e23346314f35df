// create(): new data and index files, made whole before they get their names.
//
// Both files are built under temporary names (<file>.creating) and renamed
// into place, the index file first and the data file last, all while holding
// the directory's creation lock. A process killed at any point leaves either
// no data file (and the next create() clears what was left) or a complete
// pair. Creators in other processes wait on the lock; the one that comes
// second finds the pair and answers TBL_IN_USE while its maker holds it open,
// TBL_FILE_EXISTS otherwise.
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "FileLocks.h"
#include "TableFormat.h"
#include "TableHeaders.h"
#include "TableImpl.h"
#include "TableLog.h"

using namespace wztable;

namespace {

constexpr uint64_t kSmallFileCap = uint64_t{4} << 30;  // without huge-file support
constexpr const char* kCreatingSuffix = ".creating";



enum class Kind { kIndexFile, kLog, kTemporary };

// Whether the file at `path` is what this engine writes under that name: an
// index file or a log, whole and readable.
bool isEngineFile(const std::string& path, Kind kind) {
  if (kind == Kind::kTemporary) return true;  // the name alone is ours
  if (kind == Kind::kLog) {
    TableLog log;
    const int status = log.open(path, true, 0);
    // Whole, or never started (cut short before its header was written).
    return status == TBL_OK || status == TBL_FILE_MISSING || TableLog::unwritten(path);
  }
  uint8_t id[16];
  return readFileTableId(path, kIndexMagic, id) == TBL_OK;
}

// Removes a file of this engine left without its data file; anything else
// under the name is refused (it is not ours to remove).
int clearLeftover(const std::string& path, Kind kind, bool* removed) {
  struct stat st;
  *removed = false;
  if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT ? TBL_OK : TBL_IO_ERROR;
  if (!S_ISREG(st.st_mode) || !isEngineFile(path, kind)) return TBL_FILE_EXISTS;
  if (::unlink(path.c_str()) != 0) return errno == EACCES || errno == EPERM ? TBL_ACCESS_DENIED : TBL_IO_ERROR;
  *removed = true;
  return TBL_OK;
}

int syncDirectory(const std::string& tablePath) {
  const size_t slash = tablePath.rfind('/');
  const std::string dir =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : tablePath.substr(0, slash));
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return TBL_IO_ERROR;
  int status = fsync(fd) == 0 ? TBL_OK : TBL_IO_ERROR;
  ::close(fd);
  return status;
}

}  // namespace

int TCtreeTable::Impl::createFiles() {
  readOnly = false;
  readSettings();
  int status = TBL_OK;
  const int dirLock = lockDirectory(name, &status);
  if (dirLock < 0) return status;
  struct Unlock {
    int fd;
    ~Unlock() { unlockDirectory(fd); }
  } unlock{dirLock};

  struct stat st;
  if (::lstat(dataPath().c_str(), &st) == 0) {
    // Someone made the table first; is its maker still holding it?
    int fd = ::open(dataPath().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    const bool inUse = fd >= 0 && writerPresent(fd);
    if (fd >= 0) ::close(fd);
    return inUse ? TBL_IN_USE : TBL_FILE_EXISTS;
  }
  // Without its data file, an index file, a log or a half-built file is what
  // a create killed before its end left (or what a move left behind): none
  // holds anything the table needs.
  const std::pair<std::string, Kind> leftovers[] = {{indexPath(), Kind::kIndexFile},
                                                    {logPath(), Kind::kLog},
                                                    {dataPath() + kCreatingSuffix, Kind::kTemporary},
                                                    {indexPath() + kCreatingSuffix, Kind::kTemporary}};
  for (const auto& [path, kind] : leftovers) {
    bool removed = false;
    status = clearLeftover(path, kind, &removed);
    if (status != TBL_OK) return status;
    if (removed) self->debug(0, "Table %s: removed %s, left without its data file", name.c_str(), path.c_str());
  }

  const std::string dataTemp = dataPath() + kCreatingSuffix;
  const std::string indexTemp = indexPath() + kCreatingSuffix;
  const size_t step = static_cast<size_t>(self->hugeFileIncr() > 0 ? self->hugeFileIncr() : 1) << 20;
  const uint64_t cap = self->createHugeFile() ? 0 : kSmallFileCap;
  status = data.openFile(dataTemp, true, false);
  bool createdData = status == TBL_OK, createdIndex = false;
  if (status == TBL_OK) status = lockWriter(data.fd());
  if (status == TBL_OK) {
    status = index.openFile(indexTemp, true, false);
    createdIndex = status == TBL_OK;
  }
  if (status == TBL_OK) status = data.openEnv(2, step, cap);
  if (status == TBL_OK)
    status = index.openEnv(static_cast<unsigned>(schema.indexes().size()) + 1, step, cap);

  if (status == TBL_OK && getrandom(tableId, sizeof tableId, 0) != sizeof tableId)
    status = TBL_IO_ERROR;
  const std::string schemaBytes = schema.serialize();
  const uint64_t lsn = 0;
  if (status == TBL_OK) {
    const std::string header = headerBytes(kDataMagic, tableId, schemaBytes);
    status = write(data, [&](MDB_txn* txn) {
      MDB_dbi main, recs;
      int rc = mdb_dbi_open(txn, nullptr, 0, &main);
      MDB_val key = valOf(kHeaderKey), value = valOf(header.data(), header.size());
      if (rc == MDB_SUCCESS) rc = mdb_put(txn, main, &key, &value, 0);
      key = valOf(kLsnKey);
      value = valOf(&lsn, sizeof lsn);
      if (rc == MDB_SUCCESS) rc = mdb_put(txn, main, &key, &value, 0);
      if (rc == MDB_SUCCESS) rc = mdb_dbi_open(txn, kRecordsDbName, MDB_CREATE | MDB_INTEGERKEY, &recs);
      return rc;
    });
  }
  if (status == TBL_OK) {
    const std::string header = headerBytes(kIndexMagic, tableId, schemaBytes);
    const IndexState state{0, 0, 0};
    status = write(index, [&](MDB_txn* txn) {
      MDB_dbi main, dbi;
      int rc = mdb_dbi_open(txn, nullptr, 0, &main);
      MDB_val key = valOf(kHeaderKey), value = valOf(header.data(), header.size());
      if (rc == MDB_SUCCESS) rc = mdb_put(txn, main, &key, &value, 0);
      key = valOf(kStateKey);
      value = valOf(&state, sizeof state);
      if (rc == MDB_SUCCESS) rc = mdb_put(txn, main, &key, &value, 0);
      key = valOf(kLsnKey);
      value = valOf(&lsn, sizeof lsn);
      if (rc == MDB_SUCCESS) rc = mdb_put(txn, main, &key, &value, 0);
      for (size_t i = 0; rc == MDB_SUCCESS && i < schema.indexes().size(); ++i)
        rc = mdb_dbi_open(txn, indexDbName(i).c_str(), MDB_CREATE | indexDbFlags(schema.indexes()[i]),
                          &dbi);
      return rc;
    });
  }
  // Whole and synced: the index file takes its name first, the data file
  // (whose presence makes the table exist) last.
  bool namedIndex = false, namedData = false;
  if (status == TBL_OK) {
    namedIndex = ::rename(indexTemp.c_str(), indexPath().c_str()) == 0;
    status = namedIndex ? TBL_OK : TBL_IO_ERROR;
  }
  if (status == TBL_OK) {
    index.renamed(indexPath());
    namedData = ::rename(dataTemp.c_str(), dataPath().c_str()) == 0;
    status = namedData ? TBL_OK : TBL_IO_ERROR;
  }
  if (status == TBL_OK) {
    data.renamed(dataPath());
    status = syncDirectory(name);
  }
  if (status == TBL_OK) status = loadOpenState();
  if (status == TBL_OK) status = loadRecordState();
  if (status != TBL_OK) {
    dropTransactions();
    index.abandon();
    data.abandon();
    if (createdIndex) ::unlink((namedIndex ? indexPath() : indexTemp).c_str());
    if (createdData) ::unlink((namedData ? dataPath() : dataTemp).c_str());
  }
  return status;
}
