// LmdbFile: one table file, held as one LMDB environment in a single file
// (no sub-directory, no LMDB lock file: FileLocks.h coordinates writers and
// readers).
//
// The file is opened by the engine first (no symlinks followed, close-on-exec,
// never blocking on a FIFO) and LMDB is handed that very file through
// /proc/self/fd, so the path cannot be swapped in between. A read-write
// environment commits with LMDB's full sync (data pages, then the meta page).
// The map starts at the file's size, so opening needs no disk space, and
// grows on demand: grow() allocates the disk blocks first (so a full disk is
// an error status, never a SIGBUS on a page of the map) and then enlarges the
// map; if the larger map cannot be made (no address space), the environment
// is reopened at its old size with the owner's database handles (keepHandles),
// or closed when even that fails. close() cuts
// the file back to the pages in use, so files stay proportional to their
// content.
//
// A read-write close that settled the file leaves a clean mark on it (an
// extended attribute naming the file's inode, size and modification time);
// cleanMark() tells whether the file is still exactly as that close left it.
//
// Not thread-safe. No transaction may be active when the map grows.
#pragma once

#include <lmdb.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

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
  // Checks the file before LMDB maps it (LmdbVerifier.h): every page LMDB
  // could follow with `deep`, else the meta pages, the main and free-page
  // trees and the roots of the named databases. TBL_BAD_FORMAT with `reason`.
  int validate(std::string* reason, bool deep) const;
  // Opens the environment. `growStep` is the map growth step in bytes and
  // `sizeCap` the largest file allowed (0: no cap).
  int openEnv(unsigned maxDbs, size_t growStep, uint64_t sizeCap);
  // The file now lives under `path` (after a rename).
  void renamed(const std::string& path) { path_ = path; }
  // Enlarges the map by the growth step (at least `minExtra` bytes).
  // TBL_FILE_FULL past the cap or when the disk refuses the blocks.
  int grow(size_t minExtra = 0);
  // The named databases the owner opened, with their flags and handles: when
  // a failed growth reopens the environment, they are opened again in this
  // order so that the handles stay valid (or the environment is closed).
  struct Handle {
    std::string name;
    unsigned flags;
    MDB_dbi dbi;
  };
  void keepHandles(std::vector<Handle> handles) { handles_ = std::move(handles); }
  // Grows the map when fewer than `bytes` lie past the last page in use (by
  // a growth step, or less when the disk or a size limit leaves less).
  int ensureRoom(size_t bytes);
  // The growth step: the configured step or 1/8 of the map, the larger.
  size_t growStep() const { return growStep_ > mapSize_ / 8 ? growStep_ : mapSize_ / 8; }
  enum class Mark { kIntact, kAbsent, kUnsupported };
  // Whether the file carries the mark of the last clean close and has not
  // changed since (same inode, size and modification time): kAbsent when
  // there is no mark or it does not match, kUnsupported when the file
  // system keeps no extended attributes.
  Mark cleanMark() const;
  // Removes the mark: the file is about to change. Best effort.
  void clearCleanMark();
  // Flushes and closes the environment, cuts the file to its used size,
  // marks it clean and closes the file (which drops the lock). Safe to call
  // twice.
  int close();
  // Closes without flushing or resizing, leaving the file as it was (used
  // after a failed open).
  void abandon();

  // The next page a write transaction of this environment would allocate,
  // or 0 when it cannot be told. LMDB does not publish it: it is read from
  // the transaction's first fields (LMDB 0.9's layout), and trusted only
  // when the fields beside it hold the transaction's id and environment, as
  // LMDB reports them.
  uint64_t nextPage(MDB_txn* txn) const;
  // Pages the map holds.
  uint64_t mapPages() const;
  // Pages to keep free past the last page in use: room for one more write
  // and for the commit's lists of freed pages (less in a small map).
  uint64_t headroomPages() const;
  // Bytes the volume holding the file has free for it (UINT64_MAX when it
  // cannot be told).
  uint64_t diskRoom() const;

  MDB_env* env() const { return env_; }
  bool readOnly() const { return readOnly_; }
  int fd() const { return fd_; }
  uint64_t lastTxnId() const;
  uint64_t fileSize() const;
  const std::string& path() const { return path_; }

 private:
  int preallocate(uint64_t size);
  int mapEnv(size_t mapSize);
  int reopenHandles();
  void markClean();

  unsigned maxDbs_ = 0;

  std::string path_;
  int fd_ = -1;
  bool readOnly_ = false;
  bool created_ = false;
  uint64_t originalSize_ = 0;
  MDB_env* env_ = nullptr;
  size_t growStep_ = 0;
  uint64_t sizeCap_ = 0;
  size_t mapSize_ = 0;
  std::vector<Handle> handles_;
};

}  // namespace wztable
