// The exported functions of libWzScanDB.so.
//
// Every function here is exported under its plain, unmangled name (extern
// "C") so that components can find it with dlsym(), yet takes the library's
// own C++ types: shared-pointer handles, std::string, CKoError. Callers must
// therefore be built with a compatible C++ ABI (same compiler family and
// standard library). For each function FN a pointer type PFN_FN is declared
// for callers that load the library with dlopen().
//
// Database handles: created by CreateWzScanDBObject, driven by the
// WzScanDBObject... functions, each forwarding to one WzScanDB member and
// writing its CKoError result into the last argument (always overwritten).
// Record handles: created by the record factories below. Every object handed
// out may still be released through its handle after DestroyWzScanDBObject or
// Delete...Object destroyed it; the handle itself is left as it is.
// A database handle that is empty or destroyed, or a record handle whose
// record was destroyed, is never used: the function answers errno 22 in its
// error argument, or a neutral result (false, 0, an empty handle or text,
// TBL_BAD_ARGUMENT) where it has none. The file functions ignore their handle.
//
// No function catches exceptions, takes locks or logs of its own.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/WzScanDBExport.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBKeyGUID.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "WzScanDB/records/WzScanDBRecordBase.h"
#include "lustre/CLustreFID.h"
#include "runtime/CKoError.h"
#include "table/TCtreeTable.h"

#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

extern "C" {

// ---- database handles -------------------------------------------------------

WZSCANDB_API void CreateWzScanDBObject(WzScanDBPtr& handle, WzScanDBRecordBasePtr prototype);
WZSCANDB_API void DestroyWzScanDBObject(WzScanDBPtr handle);
WZSCANDB_API void WzScanDBObjectInitialize(WzScanDBPtr handle, std::string& directory,
                                           CKoError& error);
WZSCANDB_API bool WzScanDBObjectIsInitialized(WzScanDBPtr handle);
WZSCANDB_API void WzScanDBObjectOpen(WzScanDBPtr handle, CKoError& error,
                                     WZIndexing::TAccessEnum access);
WZSCANDB_API void WzScanDBObjectClose(WzScanDBPtr handle, CKoError& error);
WZSCANDB_API void WzScanDBSuspendIndexing(WzScanDBPtr handle, CKoError& error);
WZSCANDB_API void WzScanDBRebuildIndexing(WzScanDBPtr handle, CKoError& error);
WZSCANDB_API void WzScanDBObjectSetRefTime(WzScanDBPtr handle, unsigned long long refTime);

WZSCANDB_API void WzScanDBObjectRemove(WzScanDBPtr handle, std::string path, CKoError& error);
WZSCANDB_API void WzScanDBObjectMove(WzScanDBPtr handle, std::string from, std::string to,
                                     CKoError& error);
WZSCANDB_API void WzScanDBObjectCopy(WzScanDBPtr handle, std::string from, std::string to,
                                     CKoError& error);

WZSCANDB_API void WzScanDBObjectAddDBRecord(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                            CKoError& error);
WZSCANDB_API void WzScanDBObjectCheckDBRecord(WzScanDBPtr handle, WzScanDBRecordBasePtr in,
                                              WzScanDBRecordBasePtr out, bool& found,
                                              CKoError& error);
WZSCANDB_API void WzScanDBObjectUpdateDBRecord(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                               CKoError& error);
WZSCANDB_API void WzScanDBObjectAddRecordWithoutCheck(WzScanDBPtr handle,
                                                      WzScanDBRecordBasePtr record,
                                                      CKoError& error);
WZSCANDB_API void WzScanDBObjectAddFile(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                        CKoError& error);
WZSCANDB_API void WzScanDBObjectAddFolder(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                          CKoError& error);
WZSCANDB_API void WzScanDBObjectRemoveFile(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                           CKoError& error);
WZSCANDB_API void WzScanDBObjectRemoveFolder(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                             CKoError& error);
WZSCANDB_API void WzScanDBObjectRenameFile(WzScanDBPtr handle, WzScanDBRecordBasePtr oldRecord,
                                           WzScanDBRecordBasePtr newRecord, CKoError& error);
WZSCANDB_API void WzScanDBObjectRenameFolder(WzScanDBPtr handle, WzScanDBRecordBasePtr oldRecord,
                                             WzScanDBRecordBasePtr newRecord, std::string oldPath,
                                             std::string newPath, CKoError& error);
WZSCANDB_API void WzScanDBObjectRenameByKey(WzScanDBPtr handle, WzScanDBRecordBasePtr oldRecord,
                                            WzScanDBRecordBasePtr newRecord, CKoError& error);
WZSCANDB_API void WzScanDBObjectValidateTree(WzScanDBPtr handle, bool& consistent,
                                             CKoError& error);

WZSCANDB_API void WzScanDBObjectGetFirstItem(WzScanDBPtr handle, WzScanDBRecordBasePtr start,
                                             WzScanDBRecordBasePtr& item, std::string& path,
                                             CKoError& error);
WZSCANDB_API void WzScanDBObjectGetNextItem(WzScanDBPtr handle, WzScanDBRecordBasePtr& item,
                                            std::string& path, CKoError& error);
WZSCANDB_API void WzScanDBObjectGetFolderItems(WzScanDBPtr handle, WzScanDBRecordBasePtr folder,
                                               std::vector<WzScanDBRecordBasePtr>& items,
                                               CKoError& error);
WZSCANDB_API int GetFirstRecord(WzScanDBPtr handle, int index, void* buffer);
WZSCANDB_API int GetNextRecord(WzScanDBPtr handle, int index, void* buffer);

WZSCANDB_API void WzScanDBGetParentGUID(WzScanDBRecordPtr record, std::string& text);
WZSCANDB_API void WzScanDBGetStatData(WzScanDBRecordPtr record, struct stat& data);
WZSCANDB_API void WzScanDBGetGUIDString(WzScanDBKeyGUID guid, std::string& text);

// ---- record factories ---------------------------------------------------------

// Generic (Gluster) records.
WZSCANDB_API void CreateGlusterEmptyRecordObject(WzScanDBRecordPtr& handle);
WZSCANDB_API void CreateGlusterRecordObject(WzScanDBRecordPtr& handle, std::string& path,
                                            bool isDir, unsigned long long refTime);
WZSCANDB_API void CreateGlusterRecordObjectPath(WzScanDBRecordPtr& handle, std::string& path);
WZSCANDB_API void CloneGlusterRecordObject(WzScanDBRecordBasePtr& clone,
                                           WzScanDBRecordPtr source);
WZSCANDB_API void DeleteGlusterRecordObject(WzScanDBRecordPtr handle);
WZSCANDB_API unsigned long long GetGlusterRecordRefTime(WzScanDBRecordPtr handle);
WZSCANDB_API void ConvertBaseToGluster(WzScanDBRecordPtr& handle, WzScanDBRecordBasePtr base);

// Lustre records.
WZSCANDB_API void CreateLustreEmptyRecordObject(WzScanDBLustreRecordPtr& handle);
WZSCANDB_API void CreateLustreRecordObject(WzScanDBLustreRecordPtr& handle, std::string path,
                                           bool isDir, unsigned long long refTime);
WZSCANDB_API void CreateLustreRecordObjectWithParentFID(WzScanDBLustreRecordPtr& handle,
                                                        std::string path,
                                                        LustreAPI::CLustreFIDPtr parentFID,
                                                        bool isDir, unsigned long long refTime);
WZSCANDB_API void CreateLustreRecordObjectFull(WzScanDBLustreRecordPtr& handle,
                                               LustreAPI::CLustreFIDPtr fid,
                                               LustreAPI::CLustreFIDPtr parentFID,
                                               std::string& name, bool isDir,
                                               unsigned long long refTime);
WZSCANDB_API void CreateLustreRecordObjectKey(WzScanDBLustreRecordPtr& handle,
                                              LustreAPI::CLustreFIDPtr fid);
WZSCANDB_API void CreateLustreRecordObjectPath(WzScanDBLustreRecordPtr& handle,
                                               std::string& path);
WZSCANDB_API void DeleteLustreRecordObject(WzScanDBLustreRecordPtr handle);
WZSCANDB_API unsigned long long GetLustreRecordRefTime(WzScanDBLustreRecordPtr handle);
WZSCANDB_API void ConvertBaseToLustre(WzScanDBLustreRecordPtr& handle, WzScanDBRecordBasePtr base);

// Backup-time records.
WZSCANDB_API void CreateEmptyBackupTimeRecord(CBackupTimeRecordPtr& handle);
WZSCANDB_API void CreateBackupTimeRecord(CBackupTimeRecordPtr& handle, unsigned long long inode,
                                         unsigned long long ctime);
WZSCANDB_API void ConvertBaseToBackupTimeRecord(CBackupTimeRecordPtr& handle,
                                                WzScanDBRecordBasePtr base);

// ---- pointer types for dlsym() callers --------------------------------------------

typedef void (*PFN_CreateWzScanDBObject)(WzScanDBPtr&, WzScanDBRecordBasePtr);
typedef void (*PFN_DestroyWzScanDBObject)(WzScanDBPtr);
typedef void (*PFN_WzScanDBObjectInitialize)(WzScanDBPtr, std::string&, CKoError&);
typedef bool (*PFN_WzScanDBObjectIsInitialized)(WzScanDBPtr);
typedef void (*PFN_WzScanDBObjectOpen)(WzScanDBPtr, CKoError&, WZIndexing::TAccessEnum);
typedef void (*PFN_WzScanDBObjectClose)(WzScanDBPtr, CKoError&);
typedef void (*PFN_WzScanDBSuspendIndexing)(WzScanDBPtr, CKoError&);
typedef void (*PFN_WzScanDBRebuildIndexing)(WzScanDBPtr, CKoError&);
typedef void (*PFN_WzScanDBObjectSetRefTime)(WzScanDBPtr, unsigned long long);
typedef void (*PFN_WzScanDBObjectRemove)(WzScanDBPtr, std::string, CKoError&);
typedef void (*PFN_WzScanDBObjectMove)(WzScanDBPtr, std::string, std::string, CKoError&);
typedef void (*PFN_WzScanDBObjectCopy)(WzScanDBPtr, std::string, std::string, CKoError&);
typedef void (*PFN_WzScanDBObjectAddDBRecord)(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&);
typedef void (*PFN_WzScanDBObjectCheckDBRecord)(WzScanDBPtr, WzScanDBRecordBasePtr,
                                                WzScanDBRecordBasePtr, bool&, CKoError&);
typedef void (*PFN_WzScanDBObjectUpdateDBRecord)(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&);
typedef void (*PFN_WzScanDBObjectAddRecordWithoutCheck)(WzScanDBPtr, WzScanDBRecordBasePtr,
                                                        CKoError&);
typedef void (*PFN_WzScanDBObjectAddFile)(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&);
typedef void (*PFN_WzScanDBObjectAddFolder)(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&);
typedef void (*PFN_WzScanDBObjectRemoveFile)(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&);
typedef void (*PFN_WzScanDBObjectRemoveFolder)(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&);
typedef void (*PFN_WzScanDBObjectRenameFile)(WzScanDBPtr, WzScanDBRecordBasePtr,
                                             WzScanDBRecordBasePtr, CKoError&);
typedef void (*PFN_WzScanDBObjectRenameFolder)(WzScanDBPtr, WzScanDBRecordBasePtr,
                                               WzScanDBRecordBasePtr, std::string, std::string,
                                               CKoError&);
typedef void (*PFN_WzScanDBObjectRenameByKey)(WzScanDBPtr, WzScanDBRecordBasePtr,
                                              WzScanDBRecordBasePtr, CKoError&);
typedef void (*PFN_WzScanDBObjectValidateTree)(WzScanDBPtr, bool&, CKoError&);
typedef void (*PFN_WzScanDBObjectGetFirstItem)(WzScanDBPtr, WzScanDBRecordBasePtr,
                                               WzScanDBRecordBasePtr&, std::string&, CKoError&);
typedef void (*PFN_WzScanDBObjectGetNextItem)(WzScanDBPtr, WzScanDBRecordBasePtr&, std::string&,
                                              CKoError&);
typedef void (*PFN_WzScanDBObjectGetFolderItems)(WzScanDBPtr, WzScanDBRecordBasePtr,
                                                 std::vector<WzScanDBRecordBasePtr>&, CKoError&);
typedef int (*PFN_GetFirstRecord)(WzScanDBPtr, int, void*);
typedef int (*PFN_GetNextRecord)(WzScanDBPtr, int, void*);
typedef void (*PFN_WzScanDBGetParentGUID)(WzScanDBRecordPtr, std::string&);
typedef void (*PFN_WzScanDBGetStatData)(WzScanDBRecordPtr, struct stat&);
typedef void (*PFN_WzScanDBGetGUIDString)(WzScanDBKeyGUID, std::string&);

typedef void (*PFN_CreateGlusterEmptyRecordObject)(WzScanDBRecordPtr&);
typedef void (*PFN_CreateGlusterRecordObject)(WzScanDBRecordPtr&, std::string&, bool,
                                              unsigned long long);
typedef void (*PFN_CreateGlusterRecordObjectPath)(WzScanDBRecordPtr&, std::string&);
typedef void (*PFN_CloneGlusterRecordObject)(WzScanDBRecordBasePtr&, WzScanDBRecordPtr);
typedef void (*PFN_DeleteGlusterRecordObject)(WzScanDBRecordPtr);
typedef unsigned long long (*PFN_GetGlusterRecordRefTime)(WzScanDBRecordPtr);
typedef void (*PFN_ConvertBaseToGluster)(WzScanDBRecordPtr&, WzScanDBRecordBasePtr);
typedef void (*PFN_CreateLustreEmptyRecordObject)(WzScanDBLustreRecordPtr&);
typedef void (*PFN_CreateLustreRecordObject)(WzScanDBLustreRecordPtr&, std::string, bool,
                                             unsigned long long);
typedef void (*PFN_CreateLustreRecordObjectWithParentFID)(WzScanDBLustreRecordPtr&, std::string,
                                                          LustreAPI::CLustreFIDPtr, bool,
                                                          unsigned long long);
typedef void (*PFN_CreateLustreRecordObjectFull)(WzScanDBLustreRecordPtr&,
                                                 LustreAPI::CLustreFIDPtr,
                                                 LustreAPI::CLustreFIDPtr, std::string&, bool,
                                                 unsigned long long);
typedef void (*PFN_CreateLustreRecordObjectKey)(WzScanDBLustreRecordPtr&,
                                                LustreAPI::CLustreFIDPtr);
typedef void (*PFN_CreateLustreRecordObjectPath)(WzScanDBLustreRecordPtr&, std::string&);
typedef void (*PFN_DeleteLustreRecordObject)(WzScanDBLustreRecordPtr);
typedef unsigned long long (*PFN_GetLustreRecordRefTime)(WzScanDBLustreRecordPtr);
typedef void (*PFN_ConvertBaseToLustre)(WzScanDBLustreRecordPtr&, WzScanDBRecordBasePtr);
typedef void (*PFN_CreateEmptyBackupTimeRecord)(CBackupTimeRecordPtr&);
typedef void (*PFN_CreateBackupTimeRecord)(CBackupTimeRecordPtr&, unsigned long long,
                                           unsigned long long);
typedef void (*PFN_ConvertBaseToBackupTimeRecord)(CBackupTimeRecordPtr&, WzScanDBRecordBasePtr);

}  // extern "C"

#if defined(__clang__)
#pragma clang diagnostic pop
#endif
