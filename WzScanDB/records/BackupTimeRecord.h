// CBackupTimeRecord: one (inode, status change time) pair of a flat table
// keyed by the inode number. There is no tree: no parent, name, flags or
// folders, and the tree operations of the database find nothing to walk.
// getRefTime() answers the ctime, which stands in for the reference time.
//
// The descriptor lists are class-wide; their initialize calls must not race
// other uses of them. Otherwise not synchronised: one thread per record.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "WzScanDB/WzScanDBExport.h"
#include "WzScanDB/records/WzScanDBRecordBase.h"

// The record image, 24 bytes: inode and ctime, then "0" and NUL filler when
// built from values, then 4 bytes of padding.
struct WZSCANDB_API SBackupTimeRecordStructure {
  uint64_t inode;  // 0
  uint64_t ctime;  // 8
  char dummy[4];   // 16

  SBackupTimeRecordStructure() noexcept { clear(); }
  void clear() noexcept;
};

class CBackupTimeRecord;
typedef boost::shared_ptr<CBackupTimeRecord> CBackupTimeRecordPtr;

class WZSCANDB_API CBackupTimeRecord : public WzScanDBRecordBase {
 public:
  CBackupTimeRecord();
  CBackupTimeRecord(unsigned long long inode, unsigned long long ctime);
  CBackupTimeRecord(const CBackupTimeRecord& other);
  ~CBackupTimeRecord() override;

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

  unsigned long long getInode() const { return record.inode; }
  unsigned long long getCtime() const { return record.ctime; }

  static std::vector<SFields> sFieldInformation;
  static std::vector<SIndices> sIndexInformation;
  static std::vector<SSegments> sSegmentInformation;

 private:
  CBackupTimeRecord& operator=(const CBackupTimeRecord&) = delete;

  SBackupTimeRecordStructure record;
};
