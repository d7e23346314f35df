// TCtreeTable: one table of the ISAM table engine, stored in LMDB.
//
// A table is a schema (fields, indexes, key segments, registered through
// internalInitialize / setNextField / setNextIndex / setNextSegment /
// initializeComplete) bound to two files: <name>.dat, the records, and
// <name>.idx, the indexes. Each file is one LMDB environment in a single file.
// Records are fixed-size byte images of recordSize bytes; in a
// variable-length table the bytes after fixedRecordSize are stored without
// their trailing zeros and read back as zeros. Record numbers start at 1, are
// handed out in insertion order and never reused. Keys are built by
// fillKeySegment/finishKey (TFieldType.h: how each field type becomes key
// bytes; TKeyType.h: how keys are stored).
//
// Registration. internalInitialize calls the virtual registerTable(), whose
// internalRegisterTable(maxFields, maxIndices, maxSegments) sets the limits
// the schema must keep: at most maxFields fields, maxIndices indexes and
// maxSegments key segments over all indexes (the base table allows 64, 16, 64;
// WzScanDB declares 18, 12, 18). Beyond a limit, an unknown field type or key
// type, a field outside the record, an integer segment shorter than its field,
// segments that do not add up to the key length: TBL_BAD_SCHEMA.
//
// Files. create() makes both files (mode 0600, or the setting nWzScanDBFileMode
// of section ~FileSystemAgent: FXFile::CreatedFileMode(); never through a symlink)
// and leaves the table open. It builds them under temporary names and names
// the data file last, under a creation lock on the directory: a process
// killed during create() leaves no data file, and the next create() clears
// what it left (an index file or a log without its data file). A create()
// that finds the data file answers TBL_IN_USE while another table object
// holds it open, TBL_FILE_EXISTS otherwise. open(1) opens the files
// read-write, open(2) read-only. It answers TBL_FILE_MISSING when either is
// absent, TBL_ACCESS_DENIED (create too) when the process may not open or make
// them (permissions, a read-only file system), TBL_BAD_FORMAT for anything
// that is not a table file of this engine, TBL_SCHEMA_MISMATCH when the files
// hold another schema, TBL_FILES_MISMATCH when the index file or the log
// belongs to another table (each create() stamps both files with one random
// table id); a failed open leaves the files as they were. Before LMDB maps a
// file, open() checks its pages (LmdbVerifier.h): every page when the files
// were not closed cleanly (a log was left behind), when a file changed after
// its clean close (its clean mark, LmdbFile.h, is gone or stale), or when
// setVerifyOnOpen(true)
// or the setting nWzScanDBCheckPagesOnOpen asks for it; otherwise only what
// the open itself reads (meta pages, main and free-page trees), a few pages
// whatever the size. An index file whose writes stop short of the data
// file's, or whose indexing was left suspended, is rebuilt by open(), which
// logs a line at level 0; if a unique index meets a duplicate key, open()
// still succeeds with indexing suspended (level -1 line): delete the
// duplicates through the physical order and call resumeIndexingAndRebuild().
// A read-only open does not rebuild; its index reads then answer
// TBL_INDEX_SUSPENDED.
//
// Writers and readers. One table object at a time opens the files read-write
// (another answers TBL_IN_USE); any number open them read-only meanwhile, in
// this process or others, and read the table as of the writer's last
// checkpoint (below). A reader holds the snapshot it reads for the length
// of one call; a writer about to reuse that snapshot's pages waits for it,
// at most nWzScanDBReaderWaitMs (default 30000), then refuses the write
// with TBL_IN_USE and an error line (a reader stopped inside a call, by a
// debugger or a shell's Ctrl-Z, must not hang the writer for ever). A
// read-only open of files whose writer was killed reads them as last
// committed, without the log (the next read-write open replays it).
//
// Size. The map starts at the file's size (an open needs no disk space: a
// table on a full disk opens, and reads) and grows on demand by
// max(hugeFileIncr() MiB, 1/8 of its size); the disk blocks are claimed
// before the map grows, so a full disk or a file size limit gives
// TBL_FILE_FULL, never a signal on a page of the map (the process should
// ignore SIGXFSZ so that a file size limit is an error status), and a map the
// address space cannot take gives TBL_NO_MEMORY with the table still usable.
// Without createHugeFile() each file is capped at 4 GiB (TBL_FILE_FULL past
// it); with it, only the disk limits the files. close() cuts both files back
// to the pages in use, so closed files stay proportional to their content.
//
// Durability. Every write is stored in the table's write-ahead log,
// <name>.log, before it returns (through a shared mapping: in the page cache
// once stored, which outlives the process), and changes the two files inside
// LMDB transactions that span many writes; a checkpoint commits them (each
// file synced: its data pages, then its meta page) when the log passes
// nWzScanDBLogLimitMiB (default 64), before the map would run out, at close()
// and before index maintenance. A process killed at any point loses no write
// that returned success: the next read-write open replays the log. The log
// is flushed to the disk every nWzScanDBSyncIntervalMs milliseconds (default
// 1000; 0 flushes every write before it returns): after a power loss or an OS
// crash the table opens with every write older than the last flush, and
// loses at most the writes of the last interval. Nothing that failed is ever
// replayed. A failed flush or checkpoint writes a line at level -1; the next
// write and close() answer its status (the table stays at its last durable
// point, and keeps its log for the next open). After a clean close() exactly
// the two files remain. With a sync interval of 0, writes made inside a
// BulkWrites scope are flushed together when it ends: for operations that
// change many records and are not atomic anyway.
//
// Current record: every successful read (bypass mode off) makes the record it
// returns current; a failed read leaves it where it was; addRecord does not
// move it. modifyRecord and deleteRecord act on it (TBL_NO_CURRENT without
// one). nextRecord/previousRecord continue from it in the order of the index
// given, (key, record number), repositioning by the current record's key when
// the last read was on another index; index -1 is the physical order (record
// numbers ascending) for first/last/next/previousRecord. After deleteRecord,
// next/previous on the same index continue from the deleted record's place.
// setBypassMode(true) makes reads leave the current record where it was
// (look-ups that must not disturb a pending modify or delete).
//
// Sets: firstInSet/lastInSet(index, key, buffer, prefixLength) read the first /
// last record whose key starts with the first prefixLength bytes of key (0:
// the whole index); nextInSet/previousInSet continue within that set and
// answer TBL_NOT_FOUND at its end.
//
// Index maintenance: suspendIndexing() makes writes touch only the data file
// (no unique-key checks) and marks the indexes stale; index reads answer
// TBL_INDEX_SUSPENDED, physical (-1) reads work. resumeIndexingAndRebuild()
// rebuilds every index from the data file as a bulk load: one pass over the
// data file sorts the keys of all indexes in runs that together take at most
// 64 MiB (setRebuildMemoryLimit), spilled to one unlinked temporary file next
// to the table; each index's runs are then merged and appended in order. The
// merge's read buffers stay within the same bound, so a rebuild needs that
// much memory plus a few MiB of transaction buffers, whatever the table's size.
//
// Thread safety: every call holds the table object's own lock, so one object
// may be used from several threads. The current record, the set and the key
// being built belong to the calling thread: a read on one thread does not
// move another thread's current record. A process made with fork() must not
// use its parent's tables (their files are closed in the child).
//
// The virtual operations are declared in their fixed slot order; derived
// tables (WzScanDB) override initialize, registerTable, getTableType and
// createHugeFile. The base initialize(name) sets the table's path for a schema
// already defined. See TableStatus.h for the status codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "table/TKeyType.h"
#include "table/TableStatus.h"
#include "table/WzTableExport.h"

namespace WZIndexing {
enum TAccessEnum : int {
  kAccessCreate = 0,     // (create() is used instead; open() answers TBL_BAD_ARGUMENT)
  kAccessReadWrite = 1,  // open existing files for reading and writing
  kAccessReadOnly = 2,   // open existing files for reading only
};
}  // namespace WZIndexing

class WZTABLE_API TDebuggable {
 public:
  TDebuggable() = default;
  virtual ~TDebuggable();
  // Writes a printf-style line at `level` through the runtime's log writer.
  virtual void debug(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
};

class WZTABLE_API TCtreeTable : public TDebuggable {
 public:
  TCtreeTable();
  virtual ~TCtreeTable();  // closes the table if open
  TCtreeTable(const TCtreeTable&) = delete;
  TCtreeTable& operator=(const TCtreeTable&) = delete;

  // ---- virtual operations, in slot order --------------------------------
  virtual int initialize(const char* name);
  virtual int registerTable();
  virtual const char* getTableType();
  virtual int open(WZIndexing::TAccessEnum mode);
  // Read the record with that record number: its first min(length,
  // recordSize) bytes, or of its fixed part only.
  virtual int readByOffset(void* buffer, int recordNumber, int length);
  virtual int readFixedByOffset(void* buffer, int recordNumber, int length);
  virtual int firstInSet(int index, void* key, void* buffer, int prefixLength);
  virtual int lastInSet(int index, void* key, void* buffer, int prefixLength);
  virtual int nextInSet(int index, void* buffer);
  virtual int previousInSet(int index, void* buffer);
  // Keyed reads take a full key (the index's key length) built by
  // fillKeySegment/finishKey. On an index with duplicates, getRecord and
  // getGTERecord return the first duplicate, getLTERecord the last.
  virtual int getGTERecord(int index, void* key, void* buffer);
  virtual int getGTRecord(int index, void* key, void* buffer);
  virtual int getLTERecord(int index, void* key, void* buffer);
  virtual int getLTRecord(int index, void* key, void* buffer);
  virtual int getRecord(int index, void* key, void* buffer);
  virtual int nextRecord(int index, void* buffer);
  virtual int previousRecord(int index, void* buffer);
  virtual int firstRecord(int index, void* buffer);
  virtual int lastRecord(int index, void* buffer);
  // Interactive utilities: this engine has none (TBL_NOT_SUPPORTED).
  virtual int shellUtilities();
  virtual int internalInitialize(const char* name, unsigned int variableLength,
                                 unsigned int numFields, unsigned int numIndices,
                                 unsigned int numSegments, unsigned int recordSize,
                                 unsigned int fixedRecordSize);
  // Interactive viewer and editor hooks: not supported (TBL_NOT_SUPPORTED).
  virtual int alternateViewer(short mode, void* buffer);
  virtual int alternateEditor(short mode, void* buffer, int length);
  // True: no cap on the file size; false (the base): each file stops at 4 GiB.
  virtual bool createHugeFile();
  // Map growth step, in MiB (the base: 32).
  virtual int hugeFileIncr();
  // File version conversion hooks: the files carry their own format version,
  // so these answer TBL_NOT_SUPPORTED.
  virtual int adjustTableVersion(const char* name, int& version);
  virtual int processIndexVersionExternal(int& version);
  virtual int processTableVersionExternal(int& version);
  virtual int getIndexesCount();
  virtual int getIndexNameSize(int index);
  virtual int getIndexName(int index, char* buffer, unsigned int size);
  virtual int getFieldsCount();
  virtual int getFieldType(unsigned int field);
  virtual int getFieldUnsignedFlag(unsigned int field);
  virtual int getFieldLength(unsigned int field);
  virtual int getFieldOffset(unsigned int field);
  virtual int getFieldNameSize(unsigned int field);
  virtual int getFieldName(unsigned int field, char* buffer, unsigned int size);
  virtual int getFieldOrderCount();
  virtual int getFieldIdInOrder(unsigned int order);
  virtual void setBypassMode(bool bypass);
  virtual bool getBypassMode();

  // ---- schema definition ---------------------------------------------------
  int setNextField(const char* name, unsigned long offset, short type, short length);
  int setNextIndex(const char* name, short keyLength, TKeyType keyType, short duplicates,
                   short nullKey, short emptyChar, short numSegments, short segmentNumber);
  int setNextSegment(short fieldNumber, short segmentSize, char caseSensitive);
  int shellOrder(int fieldNumber);
  int initializeComplete();
  int internalRegisterTable(short maxFields, short maxIndices, short maxSegments);

  // ---- files -----------------------------------------------------------------
  int create();
  int close();
  bool isOpen() const;
  // Check every page at every open (see Files above), whatever the settings.
  void setVerifyOnOpen(bool always);
  // Brings the closed table `name` (path without extension) whose writer did
  // not close it to the state a clean close leaves: opens it with the schema
  // its data file records (every page checked), replays its log and closes
  // it. TBL_OK at once when there is no log; TBL_IN_USE while another object
  // holds it; any open status otherwise.
  static int settle(const char* name);

  // While a BulkWrites lives, this thread's writes are not flushed to the
  // disk one by one when the sync interval is 0: one flush when it ends
  // covers them all (with a sync interval, the flusher covers them anyway).
  // finish() ends it early and answers the status of that flush.
  class WZTABLE_API BulkWrites {
   public:
    explicit BulkWrites(TCtreeTable& table);
    ~BulkWrites();
    BulkWrites(const BulkWrites&) = delete;
    BulkWrites& operator=(const BulkWrites&) = delete;
    int finish();

   private:
    TCtreeTable& table_;
    bool finished_ = false;
    int status_ = 0;
  };

  // ---- records -----------------------------------------------------------
  int addRecord(void* record);
  int modifyRecord(void* record);
  int deleteRecord();

  // ---- runs of records -----------------------------------------------------
  // Receives the records of readRun one at a time: buffer() names where the
  // next record is read to (recordSize bytes), take() is called once it is
  // there and answers whether to read on. Neither may call the table.
  class WZTABLE_API RunReceiver {
   public:
    virtual void* buffer() = 0;
    virtual bool take() = 0;

   protected:
    ~RunReceiver() = default;
  };
  // Reads the records of `index` from the first whose key is >= `key` (a
  // full key, as getGTERecord takes) for as long as their keys begin with the
  // first prefixLength bytes of `key` and the receiver takes them: the
  // records that getGTERecord and then nextRecord would return, in one call,
  // without reading the record of the entry that ends the run. It leaves the
  // current record where those calls would: on the refused record or on the
  // first entry outside the prefix; at the end of the index (TBL_NOT_FOUND)
  // or after a failed read, on the last record read (unchanged if none).
  // TBL_OK when the run ends at a key outside the prefix or at a refusal.
  int readRun(int index, const void* key, int prefixLength, RunReceiver& receiver);

  // ---- keys --------------------------------------------------------------
  // fillKeySegment appends segment `segment` (0-based within `index`) of the
  // key, taken from `data` (the field's first byte), and advances the cursor;
  // finishKey pads the key with zeros to the index's key length (segments not
  // given read as zeros: the smallest key with that prefix). mode must be 0.
  // A null pointer, an unknown index or segment, or too little room:
  // TBL_BAD_ARGUMENT, with nothing written.
  int fillKeySegment(char** cursor, int* remaining, const void* data, int mode, int index,
                     int segment);
  int finishKey(char** cursor, int* remaining, int index, int mode);

  // ---- index maintenance -----------------------------------------------------
  // Returns -1 on failure, any other value on success.
  int suspendIndexing();
  // 0, or TBL_DUPLICATE_KEY (a unique index meets a duplicate: indexing stays
  // suspended, no record is touched) or a file status.
  int resumeIndexingAndRebuild();
  // Checks that every index entry leads to a record whose key matches and that
  // every record is in every index. TBL_OK or TBL_BAD_FORMAT, with a text
  // describing the first problem in *report when given; TBL_INDEX_SUSPENDED
  // while indexing is suspended.
  int checkConsistency(std::string* report = nullptr);

  // Record number of the current record (numbers start at 1, are handed out
  // in insertion order and never reused; readByOffset takes them), or 0 when
  // there is none.
  int64_t currentRecordNumber() const;
  // Records in the data file, or a negated status.
  int64_t numberOfRecords();
  // Memory bound of an index rebuild's sorting (default 64 MiB).
  void setRebuildMemoryLimit(size_t bytes);

  static const char* errToString(int status);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
