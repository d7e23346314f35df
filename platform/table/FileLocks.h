// FileLocks: the advisory locks through which one writer and any number of
// readers (other table objects or processes) share a table's files.
//
// All are open-file-description locks (F_OFD_SETLK) on bytes far past the end
// of a file, so they never touch its content and belong to the table object
// that opened the file, not to the process:
//   - the writer byte of the data file: held exclusively by the one table
//     object that has the files open read-write (a second writer answers
//     TBL_IN_USE); readers only look whether it is held;
//   - four snapshot bytes per file: a reader holds the byte of the LMDB
//     transaction id it reads (id mod 4), shared, for the length of one read.
//     Before a writer starts a transaction that may reuse the pages of older
//     snapshots, it waits until no reader holds the bytes of those snapshots.
//     A reader therefore never sees a page rewritten under it.
// The creation lock serialises create() across processes: flock() on the
// table's directory.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace wztable {

// Takes the writer byte: TBL_OK, TBL_IN_USE, or TBL_IO_ERROR.
int lockWriter(int fd);
// Whether another file description holds the writer byte.
bool writerPresent(int fd);
// Shared lock on the snapshot byte of `txnid` (waits while a writer checks it).
int pinSnapshot(int fd, uint64_t txnid);
void unpinSnapshot(int fd, uint64_t txnid);
// Waits until no reader holds a snapshot older than `committed`, the last
// committed transaction id: a new write transaction may reuse their pages.
// TBL_IN_USE when one still does after `patience`.
int waitForOlderReaders(int fd, uint64_t committed, std::chrono::milliseconds patience);

// The creation lock of the directory holding `tablePath` (waits up to ten
// seconds for another creator). Returns the lock's descriptor, or -1 with
// `status` set.
int lockDirectory(const std::string& tablePath, int* status);
void unlockDirectory(int fd);

}  // namespace wztable
