// WzScanDB key building and record lookup.
#include <cstring>
#include <memory>

#include "WzScanDB/RecordTypeCheck.h"
#include "WzScanDB/WzScanDB.h"
#include "runtime/CAutoTimeCounter.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/auto_lock.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kSourcePath;
const char kSigPrepareKey[] =
    "CKoError WzScanDB::prepareIndexKey(SPrepareIndexKeyStructure, char*, int)";
const char kSigCheck[] =
    "CKoError WzScanDB::checkDBRecord(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr, int, bool, "
    "bool&)";

}  // namespace

CKoError WzScanDB::prepareIndexKey(SPrepareIndexKeyStructure key, char* buffer,
                                   int bufferLength) {
  if (buffer && bufferLength > 0) std::memset(buffer, 0, bufferLength);
  char* cursor = buffer;
  int remaining = bufferLength;

  for (int i = 0; i < key.numSegments; ++i) {
    // A request that announces more segments than it carries is refused as
    // the engine refuses a bad key, instead of reading past its lists.
    const size_t at = static_cast<size_t>(i);
    int status = TBL_BAD_ARGUMENT;
    if (at < key.segmentData.size() && at < key.segmentModes.size() &&
        at < key.segmentNumbers.size())
      status = fillKeySegment(&cursor, &remaining, key.segmentData[at], key.segmentModes[at],
                              key.indexNumber, key.segmentNumbers[at]);
    if (status != 0)
      return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigPrepareKey, __LINE__), status,
                                   "fillKeySegment Failed : %s", errToString(status));
  }

  int status = finishKey(&cursor, &remaining, key.indexNumber, key.finishMode);
  if (status != 0)
    return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigPrepareKey, __LINE__), status,
                                 "finishKey Failed : %s", errToString(status));
  return CKoError();
}

CKoError WzScanDB::checkDBRecord(WzScanDBRecordBasePtr in, WzScanDBRecordBasePtr out, int index,
                                 bool exact, bool& found) {
  auto_lock<FXCriticalSection> lock(dbLock);
  CAutoTimeCounter timer(performanceCounter ? performanceCounter->GetCounter(CHECK_RECORD)
                                            : nullptr);

  if (!initializeCheck())
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kSigCheck, __LINE__), 22,
                                   "Initialize the Database to Proceed");
  if (!out)
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kSigCheck, __LINE__), 22,
                                   "Output Record pointer is NULL");
  if (!in)
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kSigCheck, __LINE__), 22,
                                   "Input Record pointer is NULL");
  // Every add, update and delete looks its record up here first, so a record
  // of another type is refused before anything is read into it or written.
  for (const WzScanDBRecordBasePtr* record : {&in, &out}) {
    CKoError typeError = WzScanDBInternal::CheckRecordType(
        recordPrototype, *record, FXCodeLocation(kSourcePath, kSigCheck, __LINE__));
    if (typeError.IsError()) return typeError;
  }

  found = true;

  SPrepareIndexKeyStructure request = in->prepareIndexKey(index);
  const int keySize = request.keyBufferSize > 0 ? request.keyBufferSize : 0;
  std::unique_ptr<char[]> key(new char[keySize > 0 ? keySize : 1]);
  CKoError error = prepareIndexKey(std::move(request), key.get(), keySize);
  if (error.IsError())
    return error.Push(FXCodeLocation(kSourcePath, kSigCheck, __LINE__), "Cannot prepare Key");

  void* buffer = out->getStructure();
  const int status =
      exact ? getRecord(index, key.get(), buffer) : getGTERecord(index, key.get(), buffer);
  key.reset();

  if (status == 0) {
    if (in->checkEqualOnIndex(out, index)) {
      // Let the record refresh whatever it derives from its image.
      out->setStructure(buffer);
    } else {
      out.reset();
      found = false;
    }
    return CKoError();
  }
  out.reset();
  found = false;
  if (status == TBL_NOT_FOUND) return CKoError();
  return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigCheck, __LINE__), status,
                               "getRecord() for index %d Failed: %s", index, errToString(status));
}

CKoError WzScanDB::checkDBRecord(WzScanDBRecordBasePtr in, WzScanDBRecordBasePtr out,
                                 bool& found) {
  // A null record has no key index to look it up on; the full form reports it.
  const int index = in ? in->keyIndex() : 0;
  return checkDBRecord(std::move(in), std::move(out), index, true, found);
}
