// TCtreeTable: one table of the ISAM table engine, stored in LMDB.
//
// A table is a schema (fields, indexes, key segments, registered through
// internalInitialize / setNext* / initializeComplete) bound to two files:
// <name>.dat, the records, and <name>.idx, the indexes. Records are fixed-size
// byte images; keys are built by fillKeySegment/finishKey. A table object has
// a current record: the record most recently located by a read.
// modifyRecord and deleteRecord act on it; nextRecord/previousRecord move
// from it in the order of the index they are given.
//
// Durability: every write commits before it returns (data file first, then the
// index file). A killed process loses no operation that returned success and
// never leaves files that cannot be opened; an index file left behind the data
// file is rebuilt by open(). After a power loss or OS crash, operations of the
// last moments before close() may be lost (commits are not synced one by one),
// but the files stay openable; close() syncs both files.
//
// Thread safety: a table object is not thread-safe; its owner serialises all
// calls. Two table objects (or processes) cannot hold the same files open:
// the second gets TBL_IN_USE.
//
// The virtual operations are declared in their fixed slot order; derived
// tables (WzScanDB) override initialize, registerTable, getTableType and
// createHugeFile. See TableStatus.h for the status codes, TKeyType.h for key
// types and TFieldType.h for field types.
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
  kAccessCreate = 0,     // (create() is used instead; open() refuses it)
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
  virtual int readByOffset(void* buffer, int recordNumber, int length);
  virtual int readFixedByOffset(void* buffer, int recordNumber, int length);
  virtual int firstInSet(int index, void* key, void* buffer, int prefixLength);
  virtual int lastInSet(int index, void* key, void* buffer, int prefixLength);
  virtual int nextInSet(int index, void* buffer);
  virtual int previousInSet(int index, void* buffer);
  virtual int getGTERecord(int index, void* key, void* buffer);
  virtual int getGTRecord(int index, void* key, void* buffer);
  virtual int getLTERecord(int index, void* key, void* buffer);
  virtual int getLTRecord(int index, void* key, void* buffer);
  virtual int getRecord(int index, void* key, void* buffer);
  virtual int nextRecord(int index, void* buffer);
  virtual int previousRecord(int index, void* buffer);
  virtual int firstRecord(int index, void* buffer);
  virtual int lastRecord(int index, void* buffer);
  virtual int shellUtilities();
  virtual int internalInitialize(const char* name, unsigned int variableLength,
                                 unsigned int numFields, unsigned int numIndices,
                                 unsigned int numSegments, unsigned int recordSize,
                                 unsigned int fixedRecordSize);
  virtual int alternateViewer(short mode, void* buffer);
  virtual int alternateEditor(short mode, void* buffer, int length);
  virtual bool createHugeFile();
  virtual int hugeFileIncr();
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

  // ---- records -----------------------------------------------------------
  int addRecord(void* record);
  int modifyRecord(void* record);
  int deleteRecord();

  // ---- keys --------------------------------------------------------------
  int fillKeySegment(char** cursor, int* remaining, const void* data, int mode, int index,
                     int segment);
  int finishKey(char** cursor, int* remaining, int index, int mode);

  // ---- index maintenance -----------------------------------------------------
  // Returns -1 on failure, any other value on success.
  int suspendIndexing();
  int resumeIndexingAndRebuild();
  // Checks that every index entry leads to a record whose key matches and that
  // every record is in every index. TBL_OK or TBL_BAD_FORMAT, with a text
  // describing the first problem in *report when given.
  int checkConsistency(std::string* report = nullptr);

  // Record number of the current record (numbers start at 1, are handed out
  // in insertion order and never reused; readByOffset takes them), or 0 when
  // there is none.
  int64_t currentRecordNumber() const;
  // Records in the data file, or a negated status.
  int64_t numberOfRecords();
  // Memory bound of one index rebuild's sort run (default 64 MiB).
  void setRebuildMemoryLimit(size_t bytes);

  static const char* errToString(int status);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
