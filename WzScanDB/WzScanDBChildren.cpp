// getChildren: the direct children of one folder, read from the
// parent-and-name index.

#include <memory>
#include <typeinfo>
#include <utility>

#include "WzScanDB/RecordTypeCheck.h"
#include "WzScanDB/WzScanDB.h"
#include "runtime/CAutoTimeCounter.h"
#include "runtime/CTimeStamp.h"
#include "runtime/FXErrorUtil.h"
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

// Times the table reads of one getChildren call as READ_RECORD samples, one
// per read, each from the end of the previous one (or the start) to the
// arrival of its record: one clock reading per read.
class ReadLaps {
 public:
  explicit ReadLaps(CTimeCounter* counter) noexcept : counter_(counter) {
    if (counter_) last_ = CTimeStamp::Monotonic();
  }
  void lap() noexcept {
    if (!counter_) return;
    const CTimeStamp now = CTimeStamp::Monotonic();
    counter_->Add(now - last_);
    last_ = now;
  }

 private:
  CTimeCounter* counter_;
  CTimeStamp last_;
};

// Takes the records of one engine run: each is read straight into a probe,
// and is a child while its checkParent(folder) holds. A probe is a spare
// record of the folder's own type when there is one (the stored image
// overwrites all of it, as it would a bare record), else a new one.
class ChildCollector : public TCtreeTable::RunReceiver {
 public:
  ChildCollector(const WzScanDBRecordBasePtr& folder,
                 std::vector<WzScanDBRecordBasePtr>& children,
                 std::vector<WzScanDBRecordBasePtr>& spares, ReadLaps& laps)
      : folder_(folder), children_(children), spares_(spares), laps_(laps) {}

  void* buffer() override {
    if (!spares_.empty() && typeid(*spares_.back()) == typeid(*folder_)) {
      probe_ = std::move(spares_.back());
      spares_.pop_back();
      // The spare after this one was last touched a whole batch ago.
      if (!spares_.empty()) {
        const char* next = reinterpret_cast<const char*>(spares_.back().get());
        __builtin_prefetch(next);
        __builtin_prefetch(next + 64);
      }
    } else {
      probe_ = NewProbe(folder_);
    }
    buffer_ = probe_->getStructure();
    return buffer_;
  }
  bool take() override {
    probe_->setStructure(buffer_);
    laps_.lap();
    if (!probe_->checkParent(folder_)) {
      refused_ = true;
      return false;
    }
    children_.push_back(std::move(probe_));
    return true;
  }
  // The run ended on a record that is not a child (its read already timed).
  bool refused() const { return refused_; }

 private:
  const WzScanDBRecordBasePtr& folder_;
  std::vector<WzScanDBRecordBasePtr>& children_;
  std::vector<WzScanDBRecordBasePtr>& spares_;
  ReadLaps& laps_;
  WzScanDBRecordBasePtr probe_;
  void* buffer_ = nullptr;
  bool refused_ = false;
};

}  // namespace

// Key bytes that the children of one folder share on the parent-and-name
// index: every segment but the last (the name). 0 when the schema does not
// tell, which makes the run stop only at a record that is not a child.
int WzScanDB::childKeyPrefix(int index) {
  if (index == prefixIndex) return prefixLength;
  if (!recordPrototype || index < 0 || index >= recordPrototype->numIndices()) return 0;
  const SIndices described = recordPrototype->getIndexInformation(index);
  int prefix = 0;
  if (described.numSegments >= 2) {
    const SSegments name = recordPrototype->getSegmentInformation(described.segmentNumber +
                                                                  described.numSegments - 1);
    prefix = described.keyLength - name.segmentSize;
    if (prefix <= 0 || prefix >= described.keyLength) prefix = 0;
  }
  prefixIndex = index;
  prefixLength = prefix;
  return prefix;
}

// The folder's children key is (folder id, empty name): the lowest key any of
// its children can have. The walk reads forward from there and stops at the
// first record that is not a child, or at the first non-zero engine status;
// that last record is dropped. Each child is a fresh record of the folder's
// type holding the stored image, so the caller owns it outright.
//
// A table of exactly this class reads the whole run in one engine call
// (readRun), which also stops at the first key of another folder without
// reading that record. A class derived from WzScanDB may override the engine
// reads, so it gets the getGTERecord/nextRecord calls themselves.
CKoError WzScanDB::getChildren(WzScanDBRecordBasePtr folder,
                               std::vector<WzScanDBRecordBasePtr>& children) {
  auto_lock<FXCriticalSection> lock(dbLock);
  children.clear();

  // Reading another type's images into probes of this type would overrun
  // them; a null folder has no children key.
  if (!folder) {
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kGetChildrenSignature, __LINE__),
                                   22, "The folder record to list the children of is NULL");
  }
  if (recordPrototype) {
    CKoError typeError = WzScanDBInternal::CheckRecordType(
        recordPrototype, folder, FXCodeLocation(kSourcePath, kGetChildrenSignature, __LINE__));
    if (typeError.IsError()) return typeError;
  }

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

  if (typeid(*this) == typeid(WzScanDB)) {
    ReadLaps laps(readCounter);
    ChildCollector collector(folder, children, spareRecords, laps);
    readRun(index, key.get(), childKeyPrefix(index), collector);
    if (!collector.refused()) laps.lap();  // the read that ended the run
    return CKoError();
  }

  WzScanDBRecordBasePtr probe = NewProbe(folder);
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
