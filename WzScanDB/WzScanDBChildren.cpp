// getChildren: the direct children of one folder, read from the
// parent-and-name index.

#include <memory>
#include <utility>

#include "WzScanDB/WzScanDB.h"
#include "runtime/CAutoTimeCounter.h"
#include "runtime/auto_lock.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kSourcePath;
constexpr const char* kGetChildrenSignature =
    "CKoError WzScanDB::getChildren(WzScanDBRecordBasePtr, "
    "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&)";

namespace site {
constexpr int kChildrenKeyFailed = 1590;
}  // namespace site

// A fresh record of the folder's type to read one stored image into. The
// image overwrites every field, so a bare record (MakeParentObject: identity
// only, no file-system access) serves, and is much cheaper than a clone of a
// folder that descends from the prototype: such a clone would copy the
// prototype's field, index and segment lists once per child. A record type
// without a bare form (MakeParentObject gives null) is cloned.
inline WzScanDBRecordBasePtr NewProbe(const WzScanDBRecordBasePtr& folder) {
  WzScanDBRecordBasePtr probe = folder->MakeParentObject();
  return probe ? probe : folder->Clone();
}

}  // namespace

// The folder's children key is (folder id, empty name): the lowest key any of
// its children can have. The walk reads forward from there and stops at the
// first record that is not a child, or at the first non-zero engine status;
// that last record is dropped. Each child is a fresh record of the folder's
// type holding the stored image, so the caller owns it outright.
CKoError WzScanDB::getChildren(WzScanDBRecordBasePtr folder,
                               std::vector<WzScanDBRecordBasePtr>& children) {
  auto_lock<FXCriticalSection> lock(dbLock);
  children.clear();

  WzScanDBRecordBasePtr probe = NewProbe(folder);

  SPrepareIndexKeyStructure request = folder->prepareIndexKeyFromParent();
  const int keySize = request.keyBufferSize;
  std::unique_ptr<char[]> key(new char[keySize > 0 ? keySize : 1]);
  CKoError err = prepareIndexKey(std::move(request), key.get(), keySize);
  if (err.IsError()) {
    return err.Push(FXCodeLocation(kSourcePath, kGetChildrenSignature, site::kChildrenKeyFailed),
                    "Cannot create key to get children for the directory %s",
                    folder->toString().c_str());
  }

  const int index = folder->parentIndex();
  CTimeCounter* readCounter =
      performanceCounter ? performanceCounter->GetCounter(READ_RECORD) : nullptr;

  int status;
  {
    CAutoTimeCounter timer(readCounter);
    void* buffer = probe->getStructure();
    status = getGTERecord(index, key.get(), buffer);
    probe->setStructure(buffer);
  }

  while (status == 0 && probe->checkParent(folder)) {
    CAutoTimeCounter timer(readCounter);
    children.push_back(std::move(probe));
    probe = NewProbe(folder);
    void* buffer = probe->getStructure();
    status = nextRecord(index, buffer);
    probe->setStructure(buffer);
  }
  return CKoError();
}
