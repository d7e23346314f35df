// getPathFromRecord, getUpdatedRecords and outputDBAsDirChange: questions
// about records already in the table.

#include <cstdint>
#include <string>
#include <vector>

#include "WzScanDB/RecordIdentity.h"
#include "WzScanDB/WzScanDB.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/auto_lock.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kSourcePath;
constexpr const char* kGetPathFromRecordSignature =
    "CKoError WzScanDB::getPathFromRecord(WzScanDBRecordBasePtr, std::string&)";
constexpr const char* kGetUpdatedRecordsSignature =
    "CKoError WzScanDB::getUpdatedRecords(std::vector<boost::shared_ptr<WzScanDBRecordBase> >*, "
    "long long unsigned int)";

namespace site {
constexpr int kPathParentLookupFailed = 1631;
constexpr int kPathParentMissing = 1638;
}  // namespace site

constexpr char kPathSeparator = '/';

// Index number that makes the engine walk the whole table in storage order.
constexpr int kWholeTable = -1;

}  // namespace

// Follows parent links up to the root record, one keyed lookup per ancestor,
// prepending each stored ancestor's name. The root's own name is part of the
// result.
//
// A cycle of parent links would make the climb endless. It is caught without
// a depth limit and without extra lookups (Brent's method): the identifier of
// one stored ancestor is kept as a mark and every later one is compared with
// it; the mark moves up to the current ancestor each time the count of steps
// since it was set reaches a power of two. In a cycle the mark is met again
// within twice the cycle's length plus the path leading into it. Stored
// records have unique identifiers, so only a cycle repeats one (the caller's
// own record, which may differ from its stored version, is never the mark),
// and a path without a cycle is built exactly as without the check.
CKoError WzScanDB::getPathFromRecord(WzScanDBRecordBasePtr record, std::string& path) {
  auto_lock<FXCriticalSection> lock(dbLock);
  if (!record) {
    return FXErrorUtil::ErrorErrNo(
        FXCodeLocation(kSourcePath, kGetPathFromRecordSignature, __LINE__), 22,
        "The record to build the path of is NULL");
  }

  WzScanDBRecordBasePtr current = record->Clone();
  path = record->getName();

  std::string mark;
  std::string id;
  bool marked = false;
  uint64_t steps = 0;
  uint64_t span = 1;

  while (!current->isRoot()) {
    WzScanDBRecordBasePtr parentProbe = current->MakeParentObject();
    // A record type without parent links (the flat backup-time record) has no
    // parent to follow: its path is its own name.
    if (!parentProbe) break;
    WzScanDBRecordBasePtr probe = parentProbe->Clone();
    WzScanDBRecordBasePtr parent = probe->Clone();
    bool found = false;
    CKoError err = checkDBRecord(probe, parent, found);
    if (err.IsError()) {
      return err.Push(
          FXCodeLocation(kSourcePath, kGetPathFromRecordSignature, site::kPathParentLookupFailed),
          "Cannot check the parent record %s in DB", probe->toString().c_str());
    }
    if (!found) {
      return FXErrorUtil::ErrorErrNo(
          FXCodeLocation(kSourcePath, kGetPathFromRecordSignature, site::kPathParentMissing), 2,
          "The Database is inconsistent. Fix the Database");
    }
    current = parent;
    std::string name = current->getName();
    name += kPathSeparator;
    path.insert(0, name);

    recordIdentity().read(*current, id);
    if (marked && id == mark) {
      return FXErrorUtil::ErrorErrNo(
          FXCodeLocation(kSourcePath, kGetPathFromRecordSignature, __LINE__), 40,
          "The parent links above %s form a cycle through %s: the record has no path",
          record->toString().c_str(), current->toString().c_str());
    }
    if (++steps == span) {
      mark.swap(id);
      marked = true;
      steps = 0;
      span *= 2;
    }
  }
  return CKoError();
}

// Reads every record of the table in the engine's storage order and appends
// those whose reference time is at or after refTime. Each appended record is
// its own object; a probe that was not appended is reused. The walk ends silently at the first non-zero status.
CKoError WzScanDB::getUpdatedRecords(std::vector<WzScanDBRecordBasePtr>* records,
                                     unsigned long long refTime) {
  auto_lock<FXCriticalSection> lock(dbLock);
  if (!records) {
    return FXErrorUtil::ErrorErrNo(
        FXCodeLocation(kSourcePath, kGetUpdatedRecordsSignature, __LINE__), 22,
        "The list to append the updated records to is NULL");
  }
  if (!recordPrototype) return CKoError();  // no record type: no table to read

  WzScanDBRecordBasePtr probe = recordPrototype->Clone();
  void* buffer = probe->getStructure();
  int status = firstRecord(kWholeTable, buffer);
  probe->setStructure(buffer);

  while (status == 0) {
    if (refTime <= probe->getRefTime()) {
      records->push_back(probe);
      probe = probe->Clone();  // the appended record must not be overwritten
    }
    buffer = probe->getStructure();
    status = nextRecord(kWholeTable, buffer);
    probe->setStructure(buffer);
  }
  return CKoError();
}

// Entry point of a directory-change export that this library does not
// produce: it reads and writes nothing.
CKoError WzScanDB::outputDBAsDirChange(std::string /*destination*/) { return CKoError(); }
