#include "TableLog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "LmdbFile.h"
#include "runtime/FXFile.h"
#include "table/TableStatus.h"

namespace wztable {
namespace {

constexpr char kLogMagic[8] = {'W', 'Z', 'T', 'B', 'L', 'L', 'O', 'G'};
constexpr uint32_t kLogVersion = 1;
constexpr size_t kSlotSize = 512;
constexpr size_t kReadChunk = size_t{1} << 20;

struct LogHeader {
  char magic[8];
  uint32_t version;
  uint32_t headerSize;
  uint8_t tableId[16];
  uint64_t generation;
  uint64_t baseLsn;
  uint64_t sequence;
  uint32_t crc;  // of the bytes before it
  uint32_t reserved;
};
static_assert(sizeof(LogHeader) == 64, "log header layout");

struct RecordHeader {
  uint32_t crc;  // of the rest of the header and the payload, seeded with the generation
  uint32_t length;
  uint64_t lsn;
  uint64_t recno;
  uint32_t op;
  uint32_t reserved;
};
static_assert(sizeof(RecordHeader) == TableLog::kRecordHeader, "log record layout");

uint32_t headerCrc(const LogHeader& h) {
  return static_cast<uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(&h), offsetof(LogHeader, crc)));
}

uint32_t recordCrc(uint64_t generation, const uint8_t* afterCrc, size_t bytes) {
  uLong crc = crc32(0, reinterpret_cast<const Bytef*>(&generation), sizeof generation);
  return static_cast<uint32_t>(crc32(crc, afterCrc, static_cast<uInt>(bytes)));
}

int syncDirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return statusFromMdb(errno);
  int rc = fsync(fd) == 0 ? TBL_OK : statusFromMdb(errno);
  ::close(fd);
  return rc;
}

int writeAll(int fd, const uint8_t* data, size_t size, uint64_t offset) {
  while (size > 0) {
    ssize_t n = pwrite(fd, data, size, static_cast<off_t>(offset));
    if (n < 0) {
      if (errno == EINTR) continue;
      return statusFromMdb(errno);
    }
    if (n == 0) return TBL_IO_ERROR;
    data += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return TBL_OK;
}

}  // namespace

TableLog::~TableLog() { close(false); }

int TableLog::create(const std::string& path, const uint8_t* tableId, uint64_t baseLsn,
                     uint32_t maxPayload) {
  path_ = path;
  readOnly_ = false;
  maxPayload_ = maxPayload;
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
               FXFile::CreatedFileMode());
  if (fd_ < 0) return statusFromMdb(errno);
  std::memcpy(tableId_, tableId, sizeof tableId_);
  sequence_ = 0;
  int status = restart(baseLsn);
  if (status == TBL_OK) status = syncDirectoryOf(path);
  if (status != TBL_OK) {
    ::unlink(path.c_str());
    ::close(fd_);
    fd_ = -1;
  }
  return status;
}

int TableLog::open(const std::string& path, bool readOnly, uint32_t maxPayload) {
  path_ = path;
  readOnly_ = readOnly;
  maxPayload_ = maxPayload;
  // O_NONBLOCK: a FIFO planted under the log's name must not hang the open.
  fd_ = ::open(path.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd_ < 0) return errno == ELOOP ? TBL_BAD_FORMAT : statusFromMdb(errno);
  struct stat st;
  int status = fstat(fd_, &st) != 0 ? TBL_IO_ERROR : (S_ISREG(st.st_mode) ? TBL_OK : TBL_BAD_FORMAT);
  if (status == TBL_OK) status = readHeaders();
  if (status == TBL_BAD_FORMAT && S_ISREG(st.st_mode) &&
      static_cast<uint64_t>(st.st_size) <= kRecordsStart) {
    // No header and no room for a record: a log whose creation was cut
    // short (records are appended only once a header is synced). It holds
    // nothing; a read-write open removes it.
    status = TBL_FILE_MISSING;
    if (!readOnly && ::unlink(path.c_str()) == 0) syncDirectoryOf(path);
  }
  if (status != TBL_OK) {
    ::close(fd_);
    fd_ = -1;
  }
  return status;
}

bool TableLog::unwritten(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat st;
  bool empty = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
               static_cast<uint64_t>(st.st_size) <= kRecordsStart;
  if (empty && st.st_size > 0) {
    uint8_t bytes[kRecordsStart];
    const ssize_t n = pread(fd, bytes, static_cast<size_t>(st.st_size), 0);
    empty = n == st.st_size && std::all_of(bytes, bytes + n, [](uint8_t b) { return b == 0; });
  }
  ::close(fd);
  return empty;
}

int TableLog::readHeaders() {
  bool found = false;
  for (int slot = 0; slot < 2; ++slot) {
    LogHeader h;
    if (pread(fd_, &h, sizeof h, static_cast<off_t>(slot * kSlotSize)) != static_cast<ssize_t>(sizeof h))
      continue;
    if (std::memcmp(h.magic, kLogMagic, sizeof h.magic) != 0 || h.version != kLogVersion ||
        h.headerSize != sizeof h || h.crc != headerCrc(h))
      continue;
    if (found && h.sequence <= sequence_) continue;
    found = true;
    std::memcpy(tableId_, h.tableId, sizeof tableId_);
    generation_ = h.generation;
    baseLsn_ = h.baseLsn;
    sequence_ = h.sequence;
  }
  if (!found) return TBL_BAD_FORMAT;
  lastLsn_ = baseLsn_;
  end_ = kRecordsStart;
  return TBL_OK;
}

int TableLog::writeHeader(uint64_t generation, uint64_t baseLsn, uint64_t sequence) {
  uint8_t slot[kSlotSize] = {};
  LogHeader h{};
  std::memcpy(h.magic, kLogMagic, sizeof h.magic);
  h.version = kLogVersion;
  h.headerSize = sizeof h;
  std::memcpy(h.tableId, tableId_, sizeof h.tableId);
  h.generation = generation;
  h.baseLsn = baseLsn;
  h.sequence = sequence;
  h.crc = headerCrc(h);
  std::memcpy(slot, &h, sizeof h);
  return writeAll(fd_, slot, sizeof slot, (sequence % 2) * kSlotSize);
}

int TableLog::restart(uint64_t baseLsn) {
  if (fd_ < 0) return TBL_NOT_OPEN;
  if (readOnly_) return TBL_READ_ONLY;
  uint64_t generation = 0;
  if (getrandom(&generation, sizeof generation, 0) != sizeof generation) return TBL_IO_ERROR;
  // The records of the old generation stay where they are: their checksums
  // are seeded with it, so none reads as valid under the new header.
  int status = writeHeader(generation, baseLsn, sequence_ + 1);
  if (status == TBL_OK && fdatasync(fd_) != 0) status = statusFromMdb(errno);
  if (status != TBL_OK) return status;
  generation_ = generation;
  baseLsn_ = baseLsn;
  ++sequence_;
  lastLsn_ = baseLsn;
  end_ = kRecordsStart;
  lastStart_ = 0;
  return TBL_OK;
}

int TableLog::allocate(uint64_t size) {
  int rc = posix_fallocate(fd_, 0, static_cast<off_t>(size));
  if (rc == EOPNOTSUPP || rc == EINVAL) rc = ftruncate(fd_, static_cast<off_t>(size)) == 0 ? 0 : errno;
  return rc;
}

int TableLog::reserve(size_t length) {
  if (fd_ < 0) return TBL_NOT_OPEN;
  if (readOnly_) return TBL_READ_ONLY;
  const uint64_t need = end_ + kRecordHeader + length;
  if (need <= mapped_) return TBL_OK;
  // Room doubles (from 1 MiB), so a session maps its log a few times only;
  // on a volume without that much room, the log takes what this record
  // needs (in 64 KiB steps) rather than refuse a write that fits.
  uint64_t size = mapped_ ? mapped_ : (uint64_t{1} << 20);
  while (size < need) size *= 2;
  int rc = allocate(size);
  if (rc == ENOSPC || rc == EFBIG) {
    size = (need + 0xFFFF) & ~uint64_t{0xFFFF};
    rc = allocate(size);
  }
  if (rc != 0) return statusFromMdb(rc);
  void* map = map_ ? mremap(map_, mapped_, size, MREMAP_MAYMOVE)
                   : mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
  if (map == MAP_FAILED) return statusFromMdb(errno);
  map_ = static_cast<uint8_t*>(map);
  mapped_ = size;
  return TBL_OK;
}

uint64_t TableLog::append(Op op, uint64_t recno, const uint8_t* payload, uint32_t length) {
  const uint64_t lsn = ++lastLsn_;
  lastStart_ = end_;
  uint8_t* p = map_ + end_;
  RecordHeader h{0, length, lsn, recno, op, 0};
  std::memcpy(p, &h, sizeof h);
  if (length) std::memcpy(p + kRecordHeader, payload, length);
  h.crc = recordCrc(generation_, p + sizeof(uint32_t), kRecordHeader - sizeof(uint32_t) + length);
  std::memcpy(p, &h.crc, sizeof h.crc);
  end_ += kRecordHeader + length;
  written_.fetch_add(kRecordHeader + length, std::memory_order_release);
  return lsn;
}

int TableLog::dropLast() {
  if (lastStart_ < kRecordsStart || lastStart_ >= end_ || !map_) return TBL_OK;
  std::memset(map_ + lastStart_, 0, kRecordHeader);
  end_ = lastStart_;
  lastStart_ = 0;
  --lastLsn_;
  written_.fetch_add(1, std::memory_order_release);  // the change must reach the disk too
  return sync();
}

int TableLog::sync() {
  if (fd_ < 0) return TBL_OK;
  const uint64_t target = written_.load(std::memory_order_acquire);
  if (synced_.load(std::memory_order_acquire) >= target) return TBL_OK;
  // The mapped pages are the file's page cache: fdatasync writes them.
  if (fdatasync(fd_) != 0) return statusFromMdb(errno);
  uint64_t seen = synced_.load(std::memory_order_relaxed);
  while (seen < target && !synced_.compare_exchange_weak(seen, target)) {
  }
  return TBL_OK;
}

int TableLog::replay(const std::function<int(const Record&)>& take) {
  if (fd_ < 0) return TBL_NOT_OPEN;
  struct stat st;
  if (fstat(fd_, &st) != 0) return TBL_IO_ERROR;
  const uint64_t fileEnd = static_cast<uint64_t>(st.st_size);
  uint64_t expected = baseLsn_ + 1;
  uint64_t at = kRecordsStart;  // offset of the next record
  int answer = TBL_OK;

  // `want` bytes of the file at `from`, or null past its end.
  std::vector<uint8_t>& chunk = scratch_;
  uint64_t chunkFrom = 0;
  size_t chunkSize = 0;
  bool shortOfMemory = false;  // a read buffer could not be had: not the log's end
  auto bytesAt = [&](uint64_t from, size_t want) -> const uint8_t* {
    if (from + want > fileEnd) return nullptr;
    if (from >= chunkFrom && from + want <= chunkFrom + chunkSize) return chunk.data() + (from - chunkFrom);
    const size_t size = std::max(want, kReadChunk);
    try {
      chunk.resize(size);
    } catch (const std::bad_alloc&) {
      shortOfMemory = true;
      return nullptr;
    }
    ssize_t n = pread(fd_, chunk.data(), size, static_cast<off_t>(from));
    if (n < 0) return nullptr;
    chunkFrom = from;
    chunkSize = static_cast<size_t>(n);
    return chunkSize >= want ? chunk.data() : nullptr;
  };

  while (true) {
    const uint8_t* head = bytesAt(at, kRecordHeader);
    if (!head) break;
    RecordHeader h;
    std::memcpy(&h, head, sizeof h);
    if (h.length > maxPayload_ || h.lsn != expected || h.op < kAdd || h.op > kDelete || h.reserved != 0)
      break;
    const uint8_t* whole = bytesAt(at, kRecordHeader + h.length);
    if (!whole) break;
    if (recordCrc(generation_, whole + sizeof(uint32_t), kRecordHeader - sizeof(uint32_t) + h.length) != h.crc)
      break;
    Record r{h.lsn, static_cast<Op>(h.op), h.recno, whole + kRecordHeader, h.length};
    answer = take(r);
    if (answer != TBL_OK) break;
    at += kRecordHeader + h.length;
    ++expected;
  }
  scratch_.clear();
  scratch_.shrink_to_fit();
  if (answer != TBL_OK) return answer;
  // Stopping there would take the records after it for a torn end.
  if (shortOfMemory) return TBL_NO_MEMORY;
  // Appends continue after the last valid record.
  lastLsn_ = expected - 1;
  end_ = at;
  return TBL_OK;
}

void TableLog::unmap() {
  if (map_) munmap(map_, mapped_);
  map_ = nullptr;
  mapped_ = 0;
}

int TableLog::close(bool remove) {
  int status = TBL_OK;
  unmap();
  if (fd_ >= 0) {
    if (remove) {
      if (::unlink(path_.c_str()) != 0 && errno != ENOENT) status = statusFromMdb(errno);
      if (status == TBL_OK) status = syncDirectoryOf(path_);
    }
    ::close(fd_);
    fd_ = -1;
  }
  end_ = kRecordsStart;
  written_.store(0);
  synced_.store(0);
  return status;
}

}  // namespace wztable
