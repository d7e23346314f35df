// ClientApi: every exported function of libWzScanDB.so, found with dlsym()
// under its plain name, as another component of the agent loads it. Only the
// public headers are used for the types; the library itself is not linked.
#pragma once

#include <dlfcn.h>

#include <string>
#include <vector>

#include "WzScanDB/WzScanDBExports.h"

// X(name) for each exported function: database handles, then record
// factories.
#define WZ_CLIENT_HANDLE_FUNCTIONS(X)                                                    \
  X(CreateWzScanDBObject) X(DestroyWzScanDBObject) X(WzScanDBObjectInitialize)            \
  X(WzScanDBObjectIsInitialized) X(WzScanDBObjectOpen) X(WzScanDBObjectClose)             \
  X(WzScanDBSuspendIndexing) X(WzScanDBRebuildIndexing) X(WzScanDBObjectSetRefTime)       \
  X(WzScanDBObjectRemove) X(WzScanDBObjectMove) X(WzScanDBObjectCopy)                     \
  X(WzScanDBObjectAddDBRecord) X(WzScanDBObjectCheckDBRecord)                             \
  X(WzScanDBObjectUpdateDBRecord) X(WzScanDBObjectAddRecordWithoutCheck)                  \
  X(WzScanDBObjectAddFile) X(WzScanDBObjectAddFolder) X(WzScanDBObjectRemoveFile)         \
  X(WzScanDBObjectRemoveFolder) X(WzScanDBObjectRenameFile) X(WzScanDBObjectRenameFolder) \
  X(WzScanDBObjectRenameByKey) X(WzScanDBObjectValidateTree) X(WzScanDBObjectGetFirstItem) \
  X(WzScanDBObjectGetNextItem) X(WzScanDBObjectGetFolderItems) X(GetFirstRecord)          \
  X(GetNextRecord) X(WzScanDBGetParentGUID) X(WzScanDBGetStatData) X(WzScanDBGetGUIDString)

#define WZ_CLIENT_RECORD_FUNCTIONS(X)                                                        \
  X(CreateGlusterEmptyRecordObject) X(CreateGlusterRecordObject)                             \
  X(CreateGlusterRecordObjectPath) X(CloneGlusterRecordObject) X(DeleteGlusterRecordObject)   \
  X(GetGlusterRecordRefTime) X(ConvertBaseToGluster) X(CreateLustreEmptyRecordObject)         \
  X(CreateLustreRecordObject) X(CreateLustreRecordObjectWithParentFID)                        \
  X(CreateLustreRecordObjectFull) X(CreateLustreRecordObjectKey)                              \
  X(CreateLustreRecordObjectPath) X(DeleteLustreRecordObject) X(GetLustreRecordRefTime)       \
  X(ConvertBaseToLustre) X(CreateEmptyBackupTimeRecord) X(CreateBackupTimeRecord)            \
  X(ConvertBaseToBackupTimeRecord)

struct ClientApi {
#define WZ_CLIENT_MEMBER(name) PFN_##name name = nullptr;
  WZ_CLIENT_HANDLE_FUNCTIONS(WZ_CLIENT_MEMBER)
  WZ_CLIENT_RECORD_FUNCTIONS(WZ_CLIENT_MEMBER)
#undef WZ_CLIENT_MEMBER

  void* library = nullptr;
  std::string loadError;
  std::vector<std::string> missing;  // names dlsym() did not find

  // Loads `path` and resolves every function; check loadError and missing.
  explicit ClientApi(const char* path) {
    library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
      const char* text = dlerror();
      loadError = text ? text : "dlopen failed";
      return;
    }
#define WZ_CLIENT_RESOLVE(name)                                       \
  name = reinterpret_cast<PFN_##name>(dlsym(library, #name));         \
  if (!name) missing.push_back(#name);
    WZ_CLIENT_HANDLE_FUNCTIONS(WZ_CLIENT_RESOLVE)
    WZ_CLIENT_RECORD_FUNCTIONS(WZ_CLIENT_RESOLVE)
#undef WZ_CLIENT_RESOLVE
  }
  // The library stays loaded for the life of the process: records and
  // databases made by it may outlive this object.
  ClientApi(const ClientApi&) = delete;
  ClientApi& operator=(const ClientApi&) = delete;
};
