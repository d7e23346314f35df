// Helpers shared by the record tests.
#pragma once

#include <cerrno>
#include <map>
#include <string>

#include "WzScanDB/WzHandle.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "lustre/GetFIDFromPath.h"
#include "runtime/FXString.h"

using LustreAPI::CLustreFID;
using LustreAPI::CLustreFIDPtr;

// "<size>:" and then " @<offset> <hex>" for each run of non-zero bytes.
inline std::string Bytes(const void* data, size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::string text = std::to_string(size) + ":";
  for (size_t i = 0; i < size; ++i) {
    if (!bytes[i]) continue;
    if (i == 0 || !bytes[i - 1]) text += FXString::Format(" @%zu ", i);
    text += FXString::Format("%02x", bytes[i]);
  }
  return text;
}
inline std::string Image(WzScanDBRecordBase& r) { return Bytes(r.getStructure(), r.recordSize()); }

inline void InitSchema(WzScanDBRecordBase& r) {
  r.initializeFieldInformation();
  r.initializeIndexInformation();
  r.initializeSegmentInformation();
}

inline CLustreFIDPtr Fid(uint64_t sequence, uint32_t oid, uint32_t version = 0) {
  return CLustreFIDPtr(new CLustreFID(sequence, oid, version));
}

// Records of the three types, as the library hands them out. Lustre FIDs are
// (1, oid); a parent oid of 0 makes a root.
inline WzScanDBRecordBasePtr G(const std::string& path, bool isDir = false, unsigned long long time = 0) {
  return WzMakeHandle<WzScanDBRecordBase>(new WzScanDBRecord(path, isDir, time));
}
inline WzScanDBRecordBasePtr L(uint32_t oid, uint32_t parentOid, const std::string& name, bool isDir = false,
                               unsigned long long time = 0) {
  return WzMakeHandle<WzScanDBRecordBase>(
      new WzScanDBLustreRecord(Fid(1, oid), parentOid ? Fid(1, parentOid) : CLustreFIDPtr(), name, isDir, time));
}
inline WzScanDBRecordBasePtr B(unsigned long long inode, unsigned long long ctime) {
  return WzMakeHandle<WzScanDBRecordBase>(new CBackupTimeRecord(inode, ctime));
}

// Resolves the paths of a small fake Lustre tree; anything else is ENOENT.
class FakeLustre {
 public:
  FakeLustre() {
    LustreAPI::SetFIDResolver([](const std::string& path, LustreAPI::lu_fid& fid) {
      static const std::map<std::string, LustreAPI::lu_fid> fids{{"/lustre", {0x200000007ULL, 1, 0}},
                                                                 {"/lustre/dir", {0x200000400ULL, 0x1a, 0}},
                                                                 {"/lustre/dir/file", {0x200000400ULL, 0x1b, 0}}};
      auto it = fids.find(path);
      if (it == fids.end()) return -ENOENT;
      fid = it->second;
      return 0;
    });
  }
  ~FakeLustre() { LustreAPI::ResetFIDResolver(); }
};
