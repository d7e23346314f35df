// TableLog: the write-ahead log of one table, <name>.log beside its two files.
//
// Every write of a read-write table is appended here (one record: the
// operation, the record number and the stored record image) before the call
// returns, so a killed process loses nothing that returned success: the next
// read-write open replays the log onto the files' last committed state.
// Records are written through a shared mapping of the file: once stored they
// are in the page cache, which outlives the process, at the cost of a memory
// copy, not a system call. The log is flushed to the disk every sync interval
// (LogFlusher), which bounds what a power loss can take. The file's blocks
// are allocated before records are stored in them (reserve()), so a full
// disk is an error status, never a signal.
//
// Layout: two 512-byte header slots (offsets 0 and 512), records from offset
// 4096. A header names the table (its random id), the base LSN (the log
// sequence number both table files held when the log was restarted), a random
// generation and a sequence number. restart() writes the slot of the older
// sequence and syncs it, so a torn header write leaves the previous header
// readable. A record carries a CRC-32 of everything after the CRC, seeded with
// the generation (records of an earlier generation never read as valid), its
// payload length, LSN, record number and operation, then the payload. Records
// are read back in order up to the first one that is torn, damaged or out of
// sequence.
//
// Not thread-safe, except sync(), which a flusher thread may call while the
// owner appends.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace wztable {

class TableLog {
 public:
  enum Op : uint32_t { kAdd = 1, kModify = 2, kDelete = 3 };

  struct Record {
    uint64_t lsn;
    Op op;
    uint64_t recno;
    const uint8_t* payload;
    uint32_t length;
  };

  static constexpr uint64_t kRecordsStart = 4096;
  static constexpr size_t kRecordHeader = 32;

  TableLog() = default;
  ~TableLog();
  TableLog(const TableLog&) = delete;
  TableLog& operator=(const TableLog&) = delete;

  // Creates a new, empty log (never through a symlink, mode
  // FXFile::CreatedFileMode()) for the table `tableId` whose files hold
  // `baseLsn`, syncs it and its directory. TBL_FILE_EXISTS when it exists.
  int create(const std::string& path, const uint8_t* tableId, uint64_t baseLsn,
             uint32_t maxPayload);
  // Opens an existing log and reads its header: TBL_FILE_MISSING when
  // absent or when its creation was cut short (no valid header, no byte
  // past the header slots: it holds no record; removed unless `readOnly`),
  // TBL_BAD_FORMAT when it is not a regular file or neither header slot of
  // a longer file is valid.
  int open(const std::string& path, bool readOnly, uint32_t maxPayload);
  // Whether the file at `path` is a log whose creation a kill cut short
  // before its header reached the disk: a regular file of no more than the
  // header area, all zeros. Such a log holds no write.
  static bool unwritten(const std::string& path);
  bool isOpen() const { return fd_ >= 0; }
  const uint8_t* tableId() const { return tableId_; }
  uint64_t baseLsn() const { return baseLsn_; }
  uint64_t lastLsn() const { return lastLsn_; }
  const std::string& path() const { return path_; }

  // Calls `take` for every valid record in order and stops at the first
  // torn, damaged or out-of-sequence record or at a non-zero answer of
  // `take`, which it returns. Afterwards appends continue after the last
  // valid record (lastLsn() is its LSN).
  int replay(const std::function<int(const Record&)>& take);

  // Makes room for a record of `length` payload bytes: allocates the file's
  // blocks and maps them. TBL_FILE_FULL (disk full, file size limit) or
  // TBL_NO_MEMORY leave the log as it was.
  int reserve(size_t length);
  // Stores a record with the next LSN in room reserve() made. Cannot fail.
  uint64_t append(Op op, uint64_t recno, const uint8_t* payload, uint32_t length);
  // Takes the last record back (its flush failed, so its write failed): its
  // header is cleared, so that no replay reads it, and the file flushed.
  int dropLast();
  // Starts the log afresh for files that now hold `baseLsn`: a new
  // generation, the header synced, no records.
  int restart(uint64_t baseLsn);
  // Flushes what was stored to the disk (fdatasync); a no-op when nothing
  // was stored since the last sync. Safe from another thread.
  int sync();
  // Bytes of records since the last restart.
  uint64_t recordBytes() const { return end_ - kRecordsStart; }

  // Closes the file; with `remove`, unlinks it first and syncs the directory.
  int close(bool remove);

 private:
  int writeHeader(uint64_t generation, uint64_t baseLsn, uint64_t sequence);
  int readHeaders();
  // Gives the file `size` bytes of allocated room: 0 or an errno.
  int allocate(uint64_t size);
  void unmap();

  std::string path_;
  int fd_ = -1;
  bool readOnly_ = false;
  uint32_t maxPayload_ = 0;
  uint8_t tableId_[16] = {};
  uint64_t generation_ = 0;
  uint64_t baseLsn_ = 0;
  uint64_t sequence_ = 0;
  uint64_t lastLsn_ = 0;
  uint64_t end_ = kRecordsStart;      // end of the records stored
  uint64_t lastStart_ = 0;            // where the last record begins (0: none to drop)
  uint8_t* map_ = nullptr;            // the file, mapped shared, `mapped_` bytes
  uint64_t mapped_ = 0;
  std::vector<uint8_t> scratch_;
  std::atomic<uint64_t> written_{0};  // bytes stored since open, never decreasing
  std::atomic<uint64_t> synced_{0};
};

}  // namespace wztable
