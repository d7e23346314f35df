#include "RecordTypes.h"

#include <cstddef>

#include "ToolError.h"
#include "WzScanDB/WzScanDBExports.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"

static_assert(sizeof(struct stat) == 144, "record images hold a 144-byte struct stat");
static_assert(offsetof(SRecordStructure, stat_data) == 32, "generic stat_data offset");
static_assert(offsetof(SLustreRecord, stat_data) == 48, "Lustre stat_data offset");

const char* RecordTypeName(RecordType type) {
  switch (type) {
    case RecordType::kGeneric: return "generic";
    case RecordType::kLustre: return "lustre";
    case RecordType::kBackupTime: return "backup-time";
  }
  return "unknown";
}

bool HasTree(RecordType type) { return type != RecordType::kBackupTime; }

WzScanDBRecordBasePtr MakePrototype(RecordType type) {
  switch (type) {
    case RecordType::kGeneric: {
      WzScanDBRecordPtr record;
      CreateGlusterEmptyRecordObject(record);
      return record;
    }
    case RecordType::kLustre: {
      WzScanDBLustreRecordPtr record;
      CreateLustreEmptyRecordObject(record);
      return record;
    }
    case RecordType::kBackupTime: {
      CBackupTimeRecordPtr record;
      CreateEmptyBackupTimeRecord(record);
      return record;
    }
  }
  return WzScanDBRecordBasePtr();
}

WzScanDBRecordBasePtr MakeEntryRecord(RecordType type, const std::string& path, bool isDir,
                                      unsigned long long refTime) {
  std::string fullPath = path;
  if (type == RecordType::kGeneric) {
    WzScanDBRecordPtr record;
    CreateGlusterRecordObject(record, fullPath, isDir, refTime);
    return record;
  }
  if (type == RecordType::kLustre) {
    WzScanDBLustreRecordPtr record;
    CreateLustreRecordObject(record, fullPath, isDir, refTime);
    return record;
  }
  throw ToolError(kExitNotFound, std::string("records of type ") + RecordTypeName(type) +
                                     " do not describe file-system entries");
}

void SetStat(RecordType type, WzScanDBRecordBase& record, const struct stat& st) {
  if (type == RecordType::kGeneric)
    static_cast<SRecordStructure*>(record.getStructure())->stat_data = st;
  else if (type == RecordType::kLustre)
    static_cast<SLustreRecord*>(record.getStructure())->stat_data = st;
}

struct stat GetStat(RecordType type, WzScanDBRecordBase& record) {
  if (type == RecordType::kGeneric)
    return static_cast<SRecordStructure*>(record.getStructure())->stat_data;
  if (type == RecordType::kLustre)
    return static_cast<SLustreRecord*>(record.getStructure())->stat_data;
  struct stat none = {};
  return none;
}
