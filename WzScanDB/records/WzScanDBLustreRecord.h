// WzScanDBLustreRecord: the scan record of Lustre file systems.
//
// Same shape as WzScanDBRecord (six fields, index 0 on the own identifier,
// index 1 on (parent identifier, first 56 bytes of the name)), but identified
// by the FID that Lustre gives every entry instead of a hash of the path. The
// path constructors ask the Lustre client (LustreAPI::GetFIDFromPath); a
// failed lookup leaves the FID empty and writes one error line per lookup,
// and the record is built anyway.
//
// The descriptor lists are class-wide: any instance's initialize calls fill
// them for all. Those calls must not race other uses of the lists. Otherwise
// not synchronised: one thread at a time per record.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "WzScanDB/WzScanDBExport.h"
#include "WzScanDB/records/WzScanDBRecordBase.h"
#include "lustre/CLustreFID.h"

// The record image: the table's record format, 456 bytes. Bytes 0..451 are
// fields, 452..455 alignment padding. The FID header words are zero in every
// record: the image is cleared when built and FID assignment never writes them.
struct WZSCANDB_API SLustreRecord {
  LustreAPI::CLustreFID FID;        // 0: own FID
  LustreAPI::CLustreFID ParentFID;  // 24: parent folder's FID; empty for the root
  struct stat stat_data;            // 48: the entry's status, 144 bytes
  uint32_t refTime;                 // 192
  uint8_t flags;                    // 196: kRecordFlagDirectory | kRecordFlagVisited
  char sname[255];                  // 197: the name; no NUL when 255 bytes or longer

  // Constructs both FIDs, then clears all 456 bytes.
  SLustreRecord() noexcept { clear(); }
  SLustreRecord(const SLustreRecord& other) noexcept : SLustreRecord() { *this = other; }
  // Field by field: the FIDs by FID assignment (header words kept), the
  // status bytes, refTime, flags and all 255 name bytes; padding untouched.
  SLustreRecord& operator=(const SLustreRecord& other) noexcept;
  void clear() noexcept;
};

class WzScanDBLustreRecord;
typedef boost::shared_ptr<WzScanDBLustreRecord> WzScanDBLustreRecordPtr;

class WZSCANDB_API WzScanDBLustreRecord : public WzScanDBRecordBase {
 public:
  // An empty record, image all zero.
  WzScanDBLustreRecord();
  // Clears the image, then copies the FIDs, status, refTime, flags and name.
  WzScanDBLustreRecord(const WzScanDBLustreRecord& other);
  // Own FID from `path`, parent FID from its parent path, last component as
  // name.
  explicit WzScanDBLustreRecord(const std::string& path);
  // As above, then the directory bit and the low 32 bits of `refTime`.
  WzScanDBLustreRecord(std::string path, bool isDir, unsigned long long refTime);
  // Own FID from `path`; parent FID from `parentFID` (no lookup; a null
  // pointer leaves it empty).
  WzScanDBLustreRecord(std::string path, LustreAPI::CLustreFIDPtr parentFID, bool isDir,
                       unsigned long long refTime);
  // No file-system access: FIDs from the pointers that are not null, `name`
  // as given.
  WzScanDBLustreRecord(LustreAPI::CLustreFIDPtr fid, LustreAPI::CLustreFIDPtr parentFID,
                       const std::string& name, bool isDir, unsigned long long refTime);
  // A lookup probe carrying only its own FID.
  explicit WzScanDBLustreRecord(LustreAPI::CLustreFIDPtr fid);
  ~WzScanDBLustreRecord() override;

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

  const LustreAPI::CLustreFID& getFID() const { return record.FID; }
  const LustreAPI::CLustreFID& getParentFID() const { return record.ParentFID; }

  static std::vector<SFields> sFieldInformation;
  static std::vector<SIndices> sIndexInformation;
  static std::vector<SSegments> sSegmentInformation;

 private:
  WzScanDBLustreRecord& operator=(const WzScanDBLustreRecord&) = delete;
  void setName(const std::string& name);
  void setDirAndRefTime(bool isDir, unsigned long long refTime);

  SLustreRecord record;
};
