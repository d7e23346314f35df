// WzScanDBRecord: the scan record of general (and Gluster) file systems.
//
// One record per file or folder, identified by the WzScanDBKeyGUID of its
// full path and linked to its folder by the identifier of the parent path, so
// the parent of any path is known without reading the table. The table has
// two indexes: 0 on the own identifier, 1 on (parent identifier, first 56
// bytes of the name). No constructor touches the file system; stat_data stays
// zero until a caller fills it through getStructure() or copyStandardFields.
//
// The descriptor lists belong to each object and start empty: only the
// object on which the initialize...Information() calls were made answers
// get...Information(i). Not synchronised: one thread at a time per record.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "WzScanDB/WzScanDBExport.h"
#include "WzScanDB/records/WzScanDBKeyGUID.h"
#include "WzScanDB/records/WzScanDBRecordBase.h"

// The record image: the table's record format, 440 bytes. Bytes 0..435 are
// fields, 436..439 alignment padding (zero after clear()).
struct WZSCANDB_API SRecordStructure {
  WzScanDBKeyGUID guid;         // 0: identifier of the full path
  WzScanDBKeyGUID parent_guid;  // 16: identifier of the parent path; null for the root
  struct stat stat_data;        // 32: the entry's status, 144 bytes
  uint32_t refTime;             // 176: reference time of the last scan that touched it
  uint8_t flags;                // 180: kRecordFlagDirectory | kRecordFlagVisited
  char sname[255];              // 181: the name; no NUL when it is 255 bytes or longer

  // Constructs the identifiers, then clears all 440 bytes.
  SRecordStructure() noexcept { clear(); }
  void clear() noexcept;
};

class WzScanDBRecord;
typedef boost::shared_ptr<WzScanDBRecord> WzScanDBRecordPtr;

class WZSCANDB_API WzScanDBRecord : public WzScanDBRecordBase {
 public:
  // An empty record: image all zero, descriptor lists empty.
  WzScanDBRecord();
  // The record of the entry at `path`: identifier of `path`, identifier of
  // its parent path, the last component as name (at most 255 bytes).
  explicit WzScanDBRecord(const std::string& path);
  // As above, then the directory bit from `isDir` and the low 32 bits of
  // `refTime`.
  WzScanDBRecord(const std::string& path, bool isDir, unsigned long long refTime);
  // Copies the image and the three descriptor lists.
  WzScanDBRecord(const WzScanDBRecord& other);
  ~WzScanDBRecord() override;

  void initializeFieldInformation() override;
  void initializeIndexInformation() override;
  void initializeSegmentInformation() override;
  SFields getFieldInformation(int i) override;
  SIndices getIndexInformation(int i) override;
  SSegments getSegmentInformation(int i) override;
  bool isVariableLength() override;
  int numFields() override;
  int numIndices() override;
  int numSegments() override;
  int recordSize() override;
  int fixedRecordSize() override;
  bool isRoot() override;
  WzScanDBRecordBasePtr getRoot() override;
  int keyIndex() override;
  int parentIndex() override;
  std::string getName() override;
  int getFlags() override;
  void setFlags(int flags) override;
  void setRefTime(unsigned long long refTime) override;
  unsigned long long getRefTime() override;
  void* getStructure() override;
  void setStructure(void* data) override;
  CKoError copyStandardFields(WzScanDBRecordBasePtr other) override;
  bool isDir() override;
  bool checkParent(WzScanDBRecordBasePtr candidate) override;
  SPrepareIndexKeyStructure prepareIndexKeyFromParent() override;
  SPrepareIndexKeyStructure prepareIndexKeyFromKey() override;
  SPrepareIndexKeyStructure prepareIndexKey(int index) override;
  bool checkEqualOnIndex(WzScanDBRecordBasePtr other, int index) override;
  std::string toString() override;
  WzScanDBRecordBasePtr Clone() override;
  WzScanDBRecordBasePtr MakeObject(const std::string& path) override;
  WzScanDBRecordBasePtr MakeParentObject() override;
  std::string toCSVHeader() override;
  std::string toCSV() override;

  WzScanDBKeyGUID getGUID() const { return record.guid; }
  WzScanDBKeyGUID getParentGUID() const { return record.parent_guid; }
  struct stat getStatData() const { return record.stat_data; }

 private:
  WzScanDBRecord& operator=(const WzScanDBRecord&) = delete;
  void assignPath(const std::string& path);

  SRecordStructure record;
  std::vector<SFields> fieldInformation;
  std::vector<SIndices> indexInformation;
  std::vector<SSegments> segmentInformation;
};
