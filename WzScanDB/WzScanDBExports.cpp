// The exported database handle functions: each takes the database object out
// of its handle, forwards to one WzScanDB member with its arguments in the
// same order, and assigns the member's CKoError to the caller's error argument
// (always, success included). Record handles are copied once per call, so a
// record stays alive for the forwarded call whatever the caller does with it.
//
// A database handle that is empty, or whose object DestroyWzScanDBObject
// destroyed, is answered with errno 22 in the error argument (and a neutral
// result where there is none) instead of being used; so is a record handle
// whose record Delete...Object destroyed. An empty record handle goes on to
// the member, which answers it in its own words. The file functions do not
// use their database handle and take any.
#include "WzScanDB/WzScanDBExports.h"

#include <initializer_list>

#include "WzScanDB/LiveHandle.h"
#include "WzScanDB/WzHandle.h"
#include "runtime/FXErrorUtil.h"
#include "table/TableStatus.h"

namespace {
// Stable identifiers of the error sites of this file (support tools match on them).
namespace site {
constexpr const char* kSource = "WzScanDB/WzScanDBExports";
constexpr const char* kOpenSignature =
    "void WzScanDBObjectOpen(WzScanDBPtr, CKoError&, WZIndexing::TAccessEnum)";
constexpr int kOpenFailed = 70;
}  // namespace site

// True, with `error` set, when the database handle or one of the record
// handles given may not be used.
bool Refused(CKoError& error, const char* signature, int line, const WzScanDBPtr& handle,
             std::initializer_list<const WzScanDBRecordBasePtr*> records = {}) {
  const FXCodeLocation location(site::kSource, signature, line);
  if (!handle) {
    error = FXErrorUtil::ErrorErrNo(location, 22, "The database handle is NULL");
    return true;
  }
  if (!WzIsLiveHandle(handle)) {
    error = FXErrorUtil::ErrorErrNo(location, 22,
                                    "The database handle refers to a destroyed database object");
    return true;
  }
  for (const WzScanDBRecordBasePtr* record : records) {
    if (*record && !WzIsLiveHandle(*record)) {
      error = FXErrorUtil::ErrorErrNo(location, 22,
                                      "A record handle refers to a destroyed record object");
      return true;
    }
  }
  return false;
}
}  // namespace

extern "C" {

// ---- creation, destruction and state ---------------------------------------------

// The database keeps a clone of the prototype, not the caller's record: the
// caller may destroy its record with Delete...Object (which ignores other
// owners) or reuse it as a working record, and the schema must stay intact.
// A null prototype is passed on as it is; the database logs and refuses it.
void CreateWzScanDBObject(WzScanDBPtr& handle, WzScanDBRecordBasePtr prototype) {
  WzScanDBRecordBasePtr copy = prototype;
  WzScanDBRecordBasePtr own = copy ? copy->Clone() : copy;
  handle = WzMakeHandle(new WzScanDB(own));
}

void DestroyWzScanDBObject(WzScanDBPtr handle) { WzDestroyHandleObject(handle); }

void WzScanDBObjectInitialize(WzScanDBPtr handle, std::string& directory, CKoError& error) {
  if (Refused(error, "void WzScanDBObjectInitialize(WzScanDBPtr, std::string&, CKoError&)",
              __LINE__, handle))
    return;
  error = handle->initialize(static_cast<const std::string&>(directory));
}

bool WzScanDBObjectIsInitialized(WzScanDBPtr handle) {
  return WzIsLiveHandle(handle) && handle->initializeCheck();
}

void WzScanDBObjectOpen(WzScanDBPtr handle, CKoError& error, WZIndexing::TAccessEnum access) {
  error.Success();
  if (Refused(error, site::kOpenSignature, __LINE__, handle)) return;
  TCtreeTable* table = handle.get();
  int status = table->open(access);
  if (status == 0) return;
  error = FXErrorUtil::ErrorErrNo(
      FXCodeLocation(site::kSource, site::kOpenSignature, site::kOpenFailed), status,
      "Failed to open Scan DB");
}

void WzScanDBObjectClose(WzScanDBPtr handle, CKoError& error) {
  if (Refused(error, "void WzScanDBObjectClose(WzScanDBPtr, CKoError&)", __LINE__, handle)) return;
  error = handle->close();
}

void WzScanDBSuspendIndexing(WzScanDBPtr handle, CKoError& error) {
  if (Refused(error, "void WzScanDBSuspendIndexing(WzScanDBPtr, CKoError&)", __LINE__, handle))
    return;
  error = handle->suspendIndex();
}

void WzScanDBRebuildIndexing(WzScanDBPtr handle, CKoError& error) {
  if (Refused(error, "void WzScanDBRebuildIndexing(WzScanDBPtr, CKoError&)", __LINE__, handle))
    return;
  error = handle->rebuildIndex();
}

void WzScanDBObjectSetRefTime(WzScanDBPtr handle, unsigned long long refTime) {
  if (!WzIsLiveHandle(handle)) return;
  handle->setRefTime(refTime);
}

// ---- database files (static members; the handle is not used) ----------------------

void WzScanDBObjectRemove(WzScanDBPtr /*handle*/, std::string path, CKoError& error) {
  error = WzScanDB::remove(path);
}

void WzScanDBObjectMove(WzScanDBPtr /*handle*/, std::string from, std::string to,
                        CKoError& error) {
  error = WzScanDB::move(from, to);
}

void WzScanDBObjectCopy(WzScanDBPtr /*handle*/, std::string from, std::string to,
                        CKoError& error) {
  error = WzScanDB::copy(from, to);
}

// ---- record store and tree operations ------------------------------------------

void WzScanDBObjectAddDBRecord(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                               CKoError& error) {
  if (Refused(error, "void WzScanDBObjectAddDBRecord(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&)", __LINE__,
              handle, {&record}))
    return;
  WzScanDBRecordBasePtr copy = record;
  error = handle->addDBRecord(copy);
}

void WzScanDBObjectCheckDBRecord(WzScanDBPtr handle, WzScanDBRecordBasePtr in,
                                 WzScanDBRecordBasePtr out, bool& found, CKoError& error) {
  if (Refused(error,
              "void WzScanDBObjectCheckDBRecord(WzScanDBPtr, WzScanDBRecordBasePtr, "
              "WzScanDBRecordBasePtr, bool&, CKoError&)",
              __LINE__, handle, {&in, &out}))
    return;
  WzScanDBRecordBasePtr inCopy = in;
  WzScanDBRecordBasePtr outCopy = out;
  error = handle->checkDBRecord(inCopy, outCopy, found);
}

void WzScanDBObjectUpdateDBRecord(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                  CKoError& error) {
  if (Refused(error, "void WzScanDBObjectUpdateDBRecord(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&)", __LINE__,
              handle, {&record}))
    return;
  WzScanDBRecordBasePtr copy = record;
  error = handle->updateDBRecord(copy);
}

void WzScanDBObjectAddRecordWithoutCheck(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                         CKoError& error) {
  if (Refused(error, "void WzScanDBObjectAddRecordWithoutCheck(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&)", __LINE__,
              handle, {&record}))
    return;
  WzScanDBRecordBasePtr copy = record;
  error = handle->addRecordWithoutCheck(copy);
}

void WzScanDBObjectAddFile(WzScanDBPtr handle, WzScanDBRecordBasePtr record, CKoError& error) {
  if (Refused(error, "void WzScanDBObjectAddFile(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&)", __LINE__,
              handle, {&record}))
    return;
  WzScanDBRecordBasePtr copy = record;
  error = handle->addFile(copy);
}

void WzScanDBObjectAddFolder(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                             CKoError& error) {
  if (Refused(error, "void WzScanDBObjectAddFolder(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&)", __LINE__,
              handle, {&record}))
    return;
  WzScanDBRecordBasePtr copy = record;
  error = handle->addFolder(copy);
}

void WzScanDBObjectRemoveFile(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                              CKoError& error) {
  if (Refused(error, "void WzScanDBObjectRemoveFile(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&)", __LINE__,
              handle, {&record}))
    return;
  WzScanDBRecordBasePtr copy = record;
  error = handle->removeFile(copy);
}

void WzScanDBObjectRemoveFolder(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                CKoError& error) {
  if (Refused(error, "void WzScanDBObjectRemoveFolder(WzScanDBPtr, WzScanDBRecordBasePtr, CKoError&)", __LINE__,
              handle, {&record}))
    return;
  WzScanDBRecordBasePtr copy = record;
  error = handle->removeFolder(copy);
}

void WzScanDBObjectRenameFile(WzScanDBPtr handle, WzScanDBRecordBasePtr oldRecord,
                              WzScanDBRecordBasePtr newRecord, CKoError& error) {
  if (Refused(error,
              "void WzScanDBObjectRenameFile(WzScanDBPtr, WzScanDBRecordBasePtr, WzScanDBRecordBasePtr, "
              "CKoError&)",
              __LINE__, handle, {&oldRecord, &newRecord}))
    return;
  WzScanDBRecordBasePtr oldCopy = oldRecord;
  WzScanDBRecordBasePtr newCopy = newRecord;
  error = handle->renameFile(oldCopy, newCopy);
}

void WzScanDBObjectRenameFolder(WzScanDBPtr handle, WzScanDBRecordBasePtr oldRecord,
                                WzScanDBRecordBasePtr newRecord, std::string oldPath,
                                std::string newPath, CKoError& error) {
  if (Refused(error,
              "void WzScanDBObjectRenameFolder(WzScanDBPtr, WzScanDBRecordBasePtr, "
              "WzScanDBRecordBasePtr, std::string, std::string, CKoError&)",
              __LINE__, handle, {&oldRecord, &newRecord}))
    return;
  WzScanDBRecordBasePtr oldCopy = oldRecord;
  WzScanDBRecordBasePtr newCopy = newRecord;
  error = handle->renameFolder(oldCopy, newCopy, oldPath, newPath);
}

void WzScanDBObjectRenameByKey(WzScanDBPtr handle, WzScanDBRecordBasePtr oldRecord,
                               WzScanDBRecordBasePtr newRecord, CKoError& error) {
  if (Refused(error,
              "void WzScanDBObjectRenameByKey(WzScanDBPtr, WzScanDBRecordBasePtr, WzScanDBRecordBasePtr, "
              "CKoError&)",
              __LINE__, handle, {&oldRecord, &newRecord}))
    return;
  WzScanDBRecordBasePtr oldCopy = oldRecord;
  WzScanDBRecordBasePtr newCopy = newRecord;
  error = handle->renameByKey(oldCopy, newCopy);
}

void WzScanDBObjectValidateTree(WzScanDBPtr handle, bool& consistent, CKoError& error) {
  if (Refused(error, "void WzScanDBObjectValidateTree(WzScanDBPtr, bool&, CKoError&)", __LINE__,
              handle))
    return;
  error = handle->validateTree(consistent);
}

// ---- traversal -----------------------------------------------------------------

void WzScanDBObjectGetFirstItem(WzScanDBPtr handle, WzScanDBRecordBasePtr start,
                                WzScanDBRecordBasePtr& item, std::string& path,
                                CKoError& error) {
  if (Refused(error,
              "void WzScanDBObjectGetFirstItem(WzScanDBPtr, WzScanDBRecordBasePtr, "
              "WzScanDBRecordBasePtr&, std::string&, CKoError&)",
              __LINE__, handle, {&start}))
    return;
  WzScanDBRecordBasePtr copy = start;
  error = handle->getFirstItem(copy, item, path);
}

void WzScanDBObjectGetNextItem(WzScanDBPtr handle, WzScanDBRecordBasePtr& item,
                               std::string& path, CKoError& error) {
  if (Refused(error,
              "void WzScanDBObjectGetNextItem(WzScanDBPtr, WzScanDBRecordBasePtr&, "
              "std::string&, CKoError&)",
              __LINE__, handle))
    return;
  error = handle->getNextItem(item, path);
}

void WzScanDBObjectGetFolderItems(WzScanDBPtr handle, WzScanDBRecordBasePtr folder,
                                  std::vector<WzScanDBRecordBasePtr>& items, CKoError& error) {
  if (Refused(error,
              "void WzScanDBObjectGetFolderItems(WzScanDBPtr, WzScanDBRecordBasePtr, "
              "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, CKoError&)",
              __LINE__, handle, {&folder}))
    return;
  WzScanDBRecordBasePtr copy = folder;
  error = handle->getChildren(copy, items);
}

int GetFirstRecord(WzScanDBPtr handle, int index, void* buffer) {
  if (!WzIsLiveHandle(handle)) return TBL_BAD_ARGUMENT;
  TCtreeTable* table = handle.get();
  return table->firstRecord(index, buffer);
}

int GetNextRecord(WzScanDBPtr handle, int index, void* buffer) {
  if (!WzIsLiveHandle(handle)) return TBL_BAD_ARGUMENT;
  TCtreeTable* table = handle.get();
  return table->nextRecord(index, buffer);
}

// ---- generic record accessors ----------------------------------------------------

// Without a record there is no identifier: the text is emptied, the status
// all zero.
void WzScanDBGetParentGUID(WzScanDBRecordPtr record, std::string& text) {
  if (!WzIsLiveHandle(record)) {
    text.clear();
    return;
  }
  text = record->getParentGUID().toString();
}

void WzScanDBGetStatData(WzScanDBRecordPtr record, struct stat& data) {
  if (!WzIsLiveHandle(record)) {
    data = {};
    return;
  }
  data = record->getStatData();
}

void WzScanDBGetGUIDString(WzScanDBKeyGUID guid, std::string& text) { text = guid.toString(); }

}  // extern "C"
