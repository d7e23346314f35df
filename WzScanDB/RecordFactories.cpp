// The exported record factories: create, clone, convert and delete records
// on behalf of components that never construct records themselves. Every
// record leaves through WzMakeHandle, so a handle may still be dropped after
// Delete...Object destroyed its record. A source handle that is empty or
// whose record was destroyed gives an empty clone, an empty conversion and a
// reference time of 0, instead of being used.
#include <cstring>
#include <new>

#include "WzScanDB/LiveHandle.h"
#include "WzScanDB/WzHandle.h"
#include "WzScanDB/WzScanDBExports.h"

extern "C" {

// ---- generic (Gluster) records ----------------------------------------------------

void CreateGlusterEmptyRecordObject(WzScanDBRecordPtr& handle) {
  handle = WzMakeHandle(new WzScanDBRecord());
}

void CreateGlusterRecordObject(WzScanDBRecordPtr& handle, std::string& path, bool isDir,
                               unsigned long long refTime) {
  handle = WzMakeHandle(new WzScanDBRecord(path, isDir, refTime));
}

void CreateGlusterRecordObjectPath(WzScanDBRecordPtr& handle, std::string& path) {
  handle = WzMakeHandle(new WzScanDBRecord(path));
}

void CloneGlusterRecordObject(WzScanDBRecordBasePtr& clone, WzScanDBRecordPtr source) {
  if (!WzIsLiveHandle(source)) {
    clone.reset();
    return;
  }
  clone = source->Clone();
}

void DeleteGlusterRecordObject(WzScanDBRecordPtr handle) { WzDestroyHandleObject(handle); }

unsigned long long GetGlusterRecordRefTime(WzScanDBRecordPtr handle) {
  return WzIsLiveHandle(handle) ? handle->getRefTime() : 0;
}

void ConvertBaseToGluster(WzScanDBRecordPtr& handle, WzScanDBRecordBasePtr base) {
  WzScanDBRecordPtr converted;
  if (WzIsLiveHandle(base)) converted = boost::dynamic_pointer_cast<WzScanDBRecord>(base);
  handle.swap(converted);
}

// ---- Lustre records ------------------------------------------------------------

void CreateLustreEmptyRecordObject(WzScanDBLustreRecordPtr& handle) {
  // Zero-filled storage, so that nothing the constructor leaves alone holds
  // stale heap bytes. Allocated with the global operator new that the
  // handle's delete pairs with.
  void* storage = ::operator new(sizeof(WzScanDBLustreRecord));
  std::memset(storage, 0, sizeof(WzScanDBLustreRecord));
  WzScanDBLustreRecord* record;
  try {
    record = new (storage) WzScanDBLustreRecord();
  } catch (...) {
    ::operator delete(storage);
    throw;
  }
  handle = WzMakeHandle(record);
}

void CreateLustreRecordObject(WzScanDBLustreRecordPtr& handle, std::string path, bool isDir,
                              unsigned long long refTime) {
  handle = WzMakeHandle(new WzScanDBLustreRecord(path, isDir, refTime));
}

void CreateLustreRecordObjectWithParentFID(WzScanDBLustreRecordPtr& handle, std::string path,
                                           LustreAPI::CLustreFIDPtr parentFID, bool isDir,
                                           unsigned long long refTime) {
  handle = WzMakeHandle(new WzScanDBLustreRecord(path, parentFID, isDir, refTime));
}

void CreateLustreRecordObjectFull(WzScanDBLustreRecordPtr& handle, LustreAPI::CLustreFIDPtr fid,
                                  LustreAPI::CLustreFIDPtr parentFID, std::string& name,
                                  bool isDir, unsigned long long refTime) {
  handle = WzMakeHandle(new WzScanDBLustreRecord(fid, parentFID, name, isDir, refTime));
}

void CreateLustreRecordObjectKey(WzScanDBLustreRecordPtr& handle, LustreAPI::CLustreFIDPtr fid) {
  handle = WzMakeHandle(new WzScanDBLustreRecord(fid));
}

void CreateLustreRecordObjectPath(WzScanDBLustreRecordPtr& handle, std::string& path) {
  handle = WzMakeHandle(new WzScanDBLustreRecord(path));
}

void DeleteLustreRecordObject(WzScanDBLustreRecordPtr handle) { WzDestroyHandleObject(handle); }

unsigned long long GetLustreRecordRefTime(WzScanDBLustreRecordPtr handle) {
  return WzIsLiveHandle(handle) ? handle->getRefTime() : 0;
}

void ConvertBaseToLustre(WzScanDBLustreRecordPtr& handle, WzScanDBRecordBasePtr base) {
  WzScanDBLustreRecordPtr converted;
  if (WzIsLiveHandle(base)) converted = boost::dynamic_pointer_cast<WzScanDBLustreRecord>(base);
  handle.swap(converted);
}

// ---- backup-time records ---------------------------------------------------------

void CreateEmptyBackupTimeRecord(CBackupTimeRecordPtr& handle) {
  handle = WzMakeHandle(new CBackupTimeRecord());
}

void CreateBackupTimeRecord(CBackupTimeRecordPtr& handle, unsigned long long inode,
                            unsigned long long ctime) {
  handle = WzMakeHandle(new CBackupTimeRecord(inode, ctime));
}

void ConvertBaseToBackupTimeRecord(CBackupTimeRecordPtr& handle, WzScanDBRecordBasePtr base) {
  CBackupTimeRecordPtr converted;
  if (WzIsLiveHandle(base)) converted = boost::dynamic_pointer_cast<CBackupTimeRecord>(base);
  handle.swap(converted);
}

}  // extern "C"
