// The exported database handle functions: each takes the database object out
// of its handle, forwards to one WzScanDB member with its arguments in the
// same order, and assigns the member's CKoError to the caller's error argument
// (always, success included). Record handles are copied once per call, so a
// record stays alive for the forwarded call whatever the caller does with it.
#include "WzScanDB/WzScanDBExports.h"

#include "WzScanDB/WzHandle.h"
#include "runtime/FXErrorUtil.h"

namespace {
// Stable identifiers of the error sites of this file (support tools match on them).
namespace site {
constexpr const char* kSource = "WzScanDB/WzScanDBExports";
constexpr const char* kOpenSignature =
    "void WzScanDBObjectOpen(WzScanDBPtr, CKoError&, WZIndexing::TAccessEnum)";
constexpr int kOpenFailed = 70;
}  // namespace site
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
  error = handle->initialize(static_cast<const std::string&>(directory));
}

bool WzScanDBObjectIsInitialized(WzScanDBPtr handle) { return handle->initializeCheck(); }

void WzScanDBObjectOpen(WzScanDBPtr handle, CKoError& error, WZIndexing::TAccessEnum access) {
  error.Success();
  TCtreeTable* table = handle.get();
  int status = table->open(access);
  if (status == 0) return;
  error = FXErrorUtil::ErrorErrNo(
      FXCodeLocation(site::kSource, site::kOpenSignature, site::kOpenFailed), status,
      "Failed to open Scan DB");
}

void WzScanDBObjectClose(WzScanDBPtr handle, CKoError& error) { error = handle->close(); }

void WzScanDBSuspendIndexing(WzScanDBPtr handle, CKoError& error) {
  error = handle->suspendIndex();
}

void WzScanDBRebuildIndexing(WzScanDBPtr handle, CKoError& error) {
  error = handle->rebuildIndex();
}

void WzScanDBObjectSetRefTime(WzScanDBPtr handle, unsigned long long refTime) {
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
  WzScanDBRecordBasePtr copy = record;
  error = handle->addDBRecord(copy);
}

void WzScanDBObjectCheckDBRecord(WzScanDBPtr handle, WzScanDBRecordBasePtr in,
                                 WzScanDBRecordBasePtr out, bool& found, CKoError& error) {
  WzScanDBRecordBasePtr inCopy = in;
  WzScanDBRecordBasePtr outCopy = out;
  error = handle->checkDBRecord(inCopy, outCopy, found);
}

void WzScanDBObjectUpdateDBRecord(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                  CKoError& error) {
  WzScanDBRecordBasePtr copy = record;
  error = handle->updateDBRecord(copy);
}

void WzScanDBObjectAddRecordWithoutCheck(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                         CKoError& error) {
  WzScanDBRecordBasePtr copy = record;
  error = handle->addRecordWithoutCheck(copy);
}

void WzScanDBObjectAddFile(WzScanDBPtr handle, WzScanDBRecordBasePtr record, CKoError& error) {
  WzScanDBRecordBasePtr copy = record;
  error = handle->addFile(copy);
}

void WzScanDBObjectAddFolder(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                             CKoError& error) {
  WzScanDBRecordBasePtr copy = record;
  error = handle->addFolder(copy);
}

void WzScanDBObjectRemoveFile(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                              CKoError& error) {
  WzScanDBRecordBasePtr copy = record;
  error = handle->removeFile(copy);
}

void WzScanDBObjectRemoveFolder(WzScanDBPtr handle, WzScanDBRecordBasePtr record,
                                CKoError& error) {
  WzScanDBRecordBasePtr copy = record;
  error = handle->removeFolder(copy);
}

void WzScanDBObjectRenameFile(WzScanDBPtr handle, WzScanDBRecordBasePtr oldRecord,
                              WzScanDBRecordBasePtr newRecord, CKoError& error) {
  WzScanDBRecordBasePtr oldCopy = oldRecord;
  WzScanDBRecordBasePtr newCopy = newRecord;
  error = handle->renameFile(oldCopy, newCopy);
}

void WzScanDBObjectRenameFolder(WzScanDBPtr handle, WzScanDBRecordBasePtr oldRecord,
                                WzScanDBRecordBasePtr newRecord, std::string oldPath,
                                std::string newPath, CKoError& error) {
  WzScanDBRecordBasePtr oldCopy = oldRecord;
  WzScanDBRecordBasePtr newCopy = newRecord;
  error = handle->renameFolder(oldCopy, newCopy, oldPath, newPath);
}

void WzScanDBObjectRenameByKey(WzScanDBPtr handle, WzScanDBRecordBasePtr oldRecord,
                               WzScanDBRecordBasePtr newRecord, CKoError& error) {
  WzScanDBRecordBasePtr oldCopy = oldRecord;
  WzScanDBRecordBasePtr newCopy = newRecord;
  error = handle->renameByKey(oldCopy, newCopy);
}

void WzScanDBObjectValidateTree(WzScanDBPtr handle, bool& consistent, CKoError& error) {
  error = handle->validateTree(consistent);
}

// ---- traversal -----------------------------------------------------------------

void WzScanDBObjectGetFirstItem(WzScanDBPtr handle, WzScanDBRecordBasePtr start,
                                WzScanDBRecordBasePtr& item, std::string& path,
                                CKoError& error) {
  WzScanDBRecordBasePtr copy = start;
  error = handle->getFirstItem(copy, item, path);
}

void WzScanDBObjectGetNextItem(WzScanDBPtr handle, WzScanDBRecordBasePtr& item,
                               std::string& path, CKoError& error) {
  error = handle->getNextItem(item, path);
}

void WzScanDBObjectGetFolderItems(WzScanDBPtr handle, WzScanDBRecordBasePtr folder,
                                  std::vector<WzScanDBRecordBasePtr>& items, CKoError& error) {
  WzScanDBRecordBasePtr copy = folder;
  error = handle->getChildren(copy, items);
}

int GetFirstRecord(WzScanDBPtr handle, int index, void* buffer) {
  TCtreeTable* table = handle.get();
  return table->firstRecord(index, buffer);
}

int GetNextRecord(WzScanDBPtr handle, int index, void* buffer) {
  TCtreeTable* table = handle.get();
  return table->nextRecord(index, buffer);
}

// ---- generic record accessors ----------------------------------------------------

void WzScanDBGetParentGUID(WzScanDBRecordPtr record, std::string& text) {
  text = record->getParentGUID().toString();
}

void WzScanDBGetStatData(WzScanDBRecordPtr record, struct stat& data) {
  data = record->getStatData();
}

void WzScanDBGetGUIDString(WzScanDBKeyGUID guid, std::string& text) { text = guid.toString(); }

}  // extern "C"
