// The three record types a scan database can hold, as the tool names them
// (--type generic|lustre|backup-time), and the records the tool makes of them.
//
// Every record is made by the library's exported factories, as the agent
// makes them. The tree types (generic, lustre) carry the entry's struct stat
// in their image; SetStat/GetStat read and write it there.
#pragma once

#include <sys/stat.h>

#include <string>

#include "WzScanDB/records/WzScanDBRecordBase.h"

enum class RecordType { kGeneric, kLustre, kBackupTime };

// "generic", "lustre", "backup-time".
const char* RecordTypeName(RecordType type);
// Generic and Lustre records form a tree; backup-time records do not.
bool HasTree(RecordType type);

// An empty record of `type`: the prototype a database is created from.
WzScanDBRecordBasePtr MakePrototype(RecordType type);

// The record of the file-system entry at `path` (a tree type only): its
// identity from the path, the directory bit and the reference time. The
// status is left zero; fill it with SetStat.
WzScanDBRecordBasePtr MakeEntryRecord(RecordType type, const std::string& path, bool isDir,
                                      unsigned long long refTime);

// The entry status stored in a tree record's image.
void SetStat(RecordType type, WzScanDBRecordBase& record, const struct stat& st);
struct stat GetStat(RecordType type, WzScanDBRecordBase& record);
