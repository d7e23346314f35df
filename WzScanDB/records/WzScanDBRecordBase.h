// WzScanDBRecordBase: the abstract record of the scan database.
//
// Every record the database stores is handled through this interface and
// only through WzScanDBRecordBasePtr. A record type describes its table layout
// (fields, indexes, key segments), exposes its fixed-size record image
// (getStructure), builds key requests for its indexes and compares itself
// with other records of its type. The order of the virtual operations is part
// of the binary interface: record types add nothing between them.
//
// Records are plain values: not synchronised, one thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "WzScanDB/WzScanDBExport.h"
#include "runtime/CKoError.h"
#include "table/TKeyType.h"

// One field of the record image, as registered with the table engine.
struct WZSCANDB_API SFields {
  std::string name;
  uint64_t offset;
  int16_t type;    // engine field type code (128, 146, 24, 59, 239)
  int16_t length;  // bytes
};

// One index, as registered with the table engine.
struct WZSCANDB_API SIndices {
  std::string name;
  int16_t keyLength;      // sum of the segment sizes
  TKeyType keyType;       // 0 plain, 12 compressed at both ends
  int16_t duplicates;     // 1 when several records may share a key
  int16_t nullKey;
  int16_t emptyChar;
  int16_t numSegments;
  int16_t segmentNumber;  // first segment of this index in the segment list
};

// One key segment, as registered with the table engine.
struct WZSCANDB_API SSegments {
  int16_t fieldNumber;
  int16_t segmentSize;
  char caseSensitive;
};

// The request to build the key of one index from a record. Its data pointers
// point into the record that made it (or at a shared zero block): valid only
// while that record lives unchanged.
struct WZSCANDB_API SPrepareIndexKeyStructure {
  int indexNumber = 0;
  std::vector<int> segmentNumbers;
  std::vector<int> segmentModes;
  std::vector<const void*> segmentData;
  std::vector<int> segmentExtra;  // carried along, never filled or read
  int keyBufferSize = 0;
  int finishMode = 0;
  int numSegments = 0;
};

// Flag bits of the tree records.
enum : int {
  kRecordFlagDirectory = 1,
  kRecordFlagVisited = 2,
};

class WzScanDBRecordBase;
typedef boost::shared_ptr<WzScanDBRecordBase> WzScanDBRecordBasePtr;

class WZSCANDB_API WzScanDBRecordBase {
 public:
  WzScanDBRecordBase() {}
  WzScanDBRecordBase(const WzScanDBRecordBase&) {}
  virtual ~WzScanDBRecordBase();

  virtual void initializeFieldInformation() = 0;
  virtual void initializeIndexInformation() = 0;
  virtual void initializeSegmentInformation() = 0;
  virtual SFields getFieldInformation(int i) = 0;
  virtual SIndices getIndexInformation(int i) = 0;
  virtual SSegments getSegmentInformation(int i) = 0;
  virtual bool isVariableLength() = 0;
  virtual int numFields() = 0;
  virtual int numIndices() = 0;
  virtual int numSegments() = 0;
  virtual int recordSize() = 0;
  virtual int fixedRecordSize() = 0;
  virtual bool isRoot() = 0;
  virtual WzScanDBRecordBasePtr getRoot() = 0;
  virtual int keyIndex() = 0;
  virtual int parentIndex() = 0;
  virtual std::string getName() = 0;
  virtual int getFlags() = 0;
  virtual void setFlags(int flags) = 0;
  virtual void setRefTime(unsigned long long refTime) = 0;
  virtual unsigned long long getRefTime() = 0;
  virtual void* getStructure() = 0;
  virtual void setStructure(void* data) = 0;
  virtual CKoError copyStandardFields(WzScanDBRecordBasePtr other) = 0;
  virtual bool isDir() = 0;
  virtual bool checkParent(WzScanDBRecordBasePtr candidate) = 0;
  virtual SPrepareIndexKeyStructure prepareIndexKeyFromParent() = 0;
  virtual SPrepareIndexKeyStructure prepareIndexKeyFromKey() = 0;
  virtual SPrepareIndexKeyStructure prepareIndexKey(int index) = 0;
  virtual bool checkEqualOnIndex(WzScanDBRecordBasePtr other, int index) = 0;
  virtual std::string toString() = 0;
  virtual WzScanDBRecordBasePtr Clone() = 0;
  virtual WzScanDBRecordBasePtr MakeObject(const std::string& path) = 0;
  virtual WzScanDBRecordBasePtr MakeParentObject() = 0;
  virtual std::string toCSVHeader();
  virtual std::string toCSV();
};
