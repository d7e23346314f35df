// WzScanDB single-record operations, the reference time and the root record.
#include "WzScanDB/RecordTypeCheck.h"
#include "WzScanDB/WzScanDB.h"
#include "runtime/CAutoTimeCounter.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/LogWriter.h"
#include "runtime/auto_lock.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kSourcePath;
const char kSigAdd[] = "CKoError WzScanDB::addDBRecord(WzScanDBRecordBasePtr)";
const char kSigUpdate[] = "CKoError WzScanDB::updateDBRecord(WzScanDBRecordBasePtr)";
const char kSigDelete[] = "CKoError WzScanDB::deleteDBRecord(WzScanDBRecordBasePtr)";
const char kSigAddWithoutCheck[] = "CKoError WzScanDB::addRecordWithoutCheck(WzScanDBRecordBasePtr)";
const char kSigSetRefTime[] = "void WzScanDB::setRefTime(long long unsigned int)";

CKoError NullRecordError(const char* signature, int line) {
  return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, signature, line), 22,
                                 "Input Record pointer is NULL");
}

}  // namespace

CKoError WzScanDB::addDBRecord(WzScanDBRecordBasePtr record) {
  if (!initializeCheck())
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kSigAdd, __LINE__), 22,
                                   "Initialize the Database to Proceed");
  // No dbLock here: the lookup takes it by itself.
  CAutoTimeCounter timer(performanceCounter ? performanceCounter->GetCounter(ADD_RECORD)
                                            : nullptr);
  if (!record) return NullRecordError(kSigAdd, __LINE__);

  bool found = false;
  WzScanDBRecordBasePtr existing = record->Clone();
  CKoError error = checkDBRecord(record, existing, found);
  if (error.IsError())
    return error.Push(FXCodeLocation(kSourcePath, kSigAdd, __LINE__), "checkDBRecord(%s) Failed",
                      record->toString().c_str());

  if (found) {
    WZ_LOG(7, kSigAdd, __LINE__,
           "The Record : %s is already present in the Database, so updating the record...",
           existing->toString().c_str());
    error = updateDBRecord(record);
    if (error.IsError())
      return error.Push(FXCodeLocation(kSourcePath, kSigAdd, __LINE__), "updateDBRecord(%s) Failed",
                        record->toString().c_str());
    return CKoError();
  }

  const int status = addRecord(record->getStructure());
  if (status == 0 && record->isRoot()) {
    WZ_LOG(7, kSigAdd, __LINE__, "Setting the root record as %s", record->toString().c_str());
    sptrDbRoot = record;
  }
  if (status != 0)
    return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigAdd, __LINE__), status,
                                 "addRecord(%s) Failed due to %s", record->toString().c_str(),
                                 errToString(status));
  WZ_LOG(7, kSigAdd, __LINE__, "Inserted Record : %s Successfully", record->toString().c_str());
  return CKoError();
}

CKoError WzScanDB::updateDBRecord(WzScanDBRecordBasePtr record) {
  // Held across the lookup and the write: modifyRecord rewrites the record
  // that the lookup made current.
  auto_lock<FXCriticalSection> lock(dbLock);
  if (!initializeCheck())
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kSigUpdate, __LINE__), 22,
                                   "Initialize the Database to Proceed");
  CAutoTimeCounter timer(performanceCounter ? performanceCounter->GetCounter(UPDATE_RECORD)
                                            : nullptr);
  if (!record) return NullRecordError(kSigUpdate, __LINE__);

  bool found = false;
  WzScanDBRecordBasePtr existing = record->Clone();
  CKoError error = checkDBRecord(record, existing, found);
  if (error.IsError())
    return error.Push(FXCodeLocation(kSourcePath, kSigUpdate, __LINE__), "checkDBRecord(%s) Failed",
                      record->toString().c_str());
  if (!found)
    return FXErrorUtil::ErrorErrNo(
        FXCodeLocation(kSourcePath, kSigUpdate, __LINE__), 22,
        "updateDBRecord(%s) Failed since the Record is not present in the database",
        record->toString().c_str());

  const int status = modifyRecord(record->getStructure());
  if (status != 0)
    return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigUpdate, __LINE__), status,
                                 "modifyRecord(%s) Failed due to: %s",
                                 existing->toString().c_str(), errToString(status));
  return CKoError();
}

CKoError WzScanDB::deleteDBRecord(WzScanDBRecordBasePtr record) {
  if (!initializeCheck())
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kSigDelete, __LINE__), 22,
                                   "Initialize the Database to Proceed");
  // No dbLock here: the lookup takes it by itself.
  CAutoTimeCounter timer(performanceCounter ? performanceCounter->GetCounter(DELETE_RECORD)
                                            : nullptr);
  if (!record) return NullRecordError(kSigDelete, __LINE__);

  bool found = false;
  WzScanDBRecordBasePtr existing = record->Clone();
  CKoError error = checkDBRecord(record, existing, found);
  if (error.IsError())
    return error.Push(FXCodeLocation(kSourcePath, kSigDelete, __LINE__), "CheckDBRecord(%s) Failed",
                      record->toString().c_str());
  if (!found) {
    WZ_LOG(7, kSigDelete, __LINE__, "The record : %s is not present in the database to delete",
           record->toString().c_str());
    return CKoError();
  }

  const int status = deleteRecord();
  if (status != 0)
    return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigDelete, __LINE__), status,
                                 "deleteRecord(%s) Failed : due to %s\n",
                                 existing->toString().c_str(), errToString(status));
  WZ_LOG(7, kSigDelete, __LINE__, "Deleted Record : %s Successfully",
         existing->toString().c_str());
  return CKoError();
}

CKoError WzScanDB::addRecordWithoutCheck(WzScanDBRecordBasePtr record) {
  auto_lock<FXCriticalSection> lock(dbLock);
  if (!record)
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kSigAddWithoutCheck, __LINE__), 22,
                                   "The given record to add is NULL");
  if (recordPrototype) {
    CKoError typeError = WzScanDBInternal::CheckRecordType(
        recordPrototype, record, FXCodeLocation(kSourcePath, kSigAddWithoutCheck, __LINE__));
    if (typeError.IsError()) return typeError;
  }
  // Deliberately no initializeCheck(): the engine reports a table that is
  // not open.
  CAutoTimeCounter timer(performanceCounter ? performanceCounter->GetCounter(ADD_RECORD)
                                            : nullptr);
  const int status = addRecord(record->getStructure());
  if (status == 0 && record->isRoot()) {
    WZ_LOG(7, kSigAddWithoutCheck, __LINE__, "Setting the root record as %s",
           record->toString().c_str());
    sptrDbRoot = record;
  }
  if (status != 0)
    return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigAddWithoutCheck, __LINE__), status,
                                 "addRecord(%s) Failed due to %s", record->toString().c_str(),
                                 errToString(status));
  WZ_LOG(6, kSigAddWithoutCheck, __LINE__, "Record Added : %s", record->toString().c_str());
  return CKoError();
}

void WzScanDB::setRefTime(unsigned long long time) {
  refTime = time;
  WZ_LOG(0, kSigSetRefTime, __LINE__, "The Reference Time for the Database is set to %llu", time);
}

unsigned long long WzScanDB::getRefTime() { return refTime; }

WzScanDBRecordBasePtr WzScanDB::getRoot() { return sptrDbRoot; }
