// LmdbFile: one table file, held as one LMDB environment in a single file
// (no sub-directory, no lock file: the table serialises its own access).
//
// The file is opened by the engine first (no symlinks followed, close-on-exec)
// and LMDB is handed that very file through /proc/self/fd, so the path cannot
// be swapped in between. The map grows on demand: grow() allocates the disk
// blocks first (so a full disk is an error status, never a SIGBUS on a page
// of the map) and then enlarges the map. close() flushes the map and cuts the
// file back to the pages in use, so files stay proportional to their content.
//
// Not thread-safe. With MDB_NOLOCK no read transaction may stay open across a
// write, and none may be active when the map grows: callers keep every
// transaction short.
#pragma once

#include <lmdb.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace wztable {

// Maps an LMDB or errno code to a TableStatus.
int statusFromMdb(int rc);

class LmdbFile {
 public:
  LmdbFile() = default;
  ~LmdbFile();
  LmdbFile(const LmdbFile&) = delete;
  LmdbFile& operator=(const LmdbFile&) = delete;

  // Opens (or, with `create`, exclusively creates with FXFile::CreatedFileMode(),
  // 0600 unless the settings say otherwise) the file.
  // TBL_FILE_MISSING / TBL_FILE_EXISTS / TBL_BAD_FORMAT (not a regular file,
  // a symlink) / TBL_IO_ERROR.
  int openFile(const std::string& path, bool create, bool readOnly);
  // Non-blocking advisory lock on the file: TBL_IN_USE when held elsewhere.
  int lock(bool exclusive);
  // Checks every page of an existing file that LMDB could follow (see
  // LmdbVerifier.h), before LMDB maps it. TBL_BAD_FORMAT with `reason`.
  int validate(std::string* reason) const;
  // Opens the environment. `growStep` is the map growth step in bytes and
  // `sizeCap` the largest file allowed (0: no cap).
  int openEnv(unsigned maxDbs, size_t growStep, uint64_t sizeCap);
  // Enlarges the map by the growth step (at least `minExtra` bytes).
  // TBL_FILE_FULL past the cap or when the disk refuses the blocks.
  int grow(size_t minExtra = 0);
  // Grows the map when fewer than `bytes` lie past the last page in use, so
  // that a following small transaction cannot run out of room.
  int ensureRoom(size_t bytes);
  // Flushes and closes the environment, cuts the file to its used size and
  // closes the file (which drops the lock). Safe to call twice.
  int close();
  // Closes without flushing or resizing, leaving the file as it was (used
  // after a failed open).
  void abandon();

  MDB_env* env() const { return env_; }
  bool readOnly() const { return readOnly_; }
  int fd() const { return fd_; }
  uint64_t lastTxnId() const;
  uint64_t fileSize() const;
  const std::string& path() const { return path_; }

 private:
  int preallocate(uint64_t size);

  std::string path_;
  int fd_ = -1;
  bool readOnly_ = false;
  bool created_ = false;
  uint64_t originalSize_ = 0;
  MDB_env* env_ = nullptr;
  size_t growStep_ = 0;
  uint64_t sizeCap_ = 0;
  size_t mapSize_ = 0;
};

}  // namespace wztable
