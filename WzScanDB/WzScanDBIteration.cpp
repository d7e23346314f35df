// getFirstItem / getNextItem: the sub-tree below a folder, one item at a
// time, each with its path relative to the folder.
//
// The items are buffered one batch of the batched sub-tree walk at a time
// (itemRecords/itemPaths, itemCursor). The first batch is read without
// touching any flag; every later batch clears the visited bit of its records
// and writes them back. That difference is deliberate: it is what the table's
// flag bytes show after an iteration.

#include <string>

#include "WzScanDB/WzScanDB.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/LogWriter.h"
#include "runtime/auto_lock.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kSourcePath;
constexpr const char* kGetFirstItemSignature =
    "CKoError WzScanDB::getFirstItem(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr&, "
    "std::string&)";
constexpr const char* kGetNextItemSignature =
    "CKoError WzScanDB::getNextItem(WzScanDBRecordBasePtr&, std::string&)";

namespace site {
// getFirstItem
constexpr int kFirstSubTreeFailed = 1538;
constexpr int kFirstBuffered = 1540;
constexpr int kFirstNoItems = 1541;
constexpr int kFirstItem = 1543;
// getNextItem
constexpr int kNextSubTreeFailed = 1558;
constexpr int kNextBuffered = 1559;
constexpr int kNextNoMoreItems = 1561;
constexpr int kNextEnd = 1562;
constexpr int kNextItem = 1567;
}  // namespace site

// Items per batch; by the batching rule a full batch holds at least one more.
constexpr int kItemBatch = 10000;

// Moves the records of a used-up batch that nothing else holds (items are
// handed out as clones; a folder still waiting in the walk is shared) to the
// spares, which the next batch is read into: a batch of frees and as many
// allocations saved per refill.
void KeepSpares(std::vector<WzScanDBRecordBasePtr>& batch,
                std::vector<WzScanDBRecordBasePtr>& spares) {
  spares.reserve(spares.size() + batch.size());
  for (WzScanDBRecordBasePtr& record : batch)
    if (record.use_count() == 1) spares.push_back(std::move(record));
  batch.clear();
}

// Frees the spares once no batch will be read into them.
void DropSpares(std::vector<WzScanDBRecordBasePtr>& spares) {
  std::vector<WzScanDBRecordBasePtr>().swap(spares);
}

// Fetches the record and the path handed out a few calls from now: the batch
// is larger than the cache, so its entries are cold by the time they go out.
// Inlined early on purpose: a function that only prefetches looks free of
// effects to the optimiser, which would drop its calls.
constexpr size_t kPrefetchAhead = 4;
__attribute__((always_inline)) inline void PrefetchItem(
    const std::vector<WzScanDBRecordBasePtr>& records, const std::vector<std::string>& paths,
    size_t index) {
  if (index >= records.size() || index >= paths.size()) return;
  const char* record = reinterpret_cast<const char*>(records[index].get());
  for (int line = 0; line < 8; ++line) __builtin_prefetch(record + 64 * line);
  __builtin_prefetch(paths[index].data());
}

}  // namespace

CKoError WzScanDB::getFirstItem(WzScanDBRecordBasePtr start, WzScanDBRecordBasePtr& item,
                                std::string& path) {
  auto_lock<FXCriticalSection> lock(dbLock);
  if (!start) {
    return FXErrorUtil::ErrorErrNo(
        FXCodeLocation(kSourcePath, kGetFirstItemSignature, __LINE__), 22,
        "The start folder of the item walk is NULL");
  }
  itemCursor = 0;

  KeepSpares(itemRecords, spareRecords);
  CKoError err = getSubTree(start, itemRecords, itemPaths, kItemBatch, false);
  if (err.IsError()) {
    DropSpares(spareRecords);
    return err.Push(FXCodeLocation(kSourcePath, kGetFirstItemSignature, site::kFirstSubTreeFailed),
                    "getSubtree(%s) Failed", start->toString().c_str());
  }
  WZ_LOG(6, kGetFirstItemSignature, site::kFirstBuffered,
         "Calling Subtree function to Buffer %lu items in Memory",
         static_cast<unsigned long>(itemRecords.size()));

  // A start folder without children: the walk is already over.
  if (itemRecords.empty()) {
    DropSpares(spareRecords);
    return FXErrorUtil::ErrorWin32(
        FXCodeLocation(kSourcePath, kGetFirstItemSignature, site::kFirstNoItems),
        kWin32NoMoreFiles);
  }

  for (size_t ahead = 1; ahead <= kPrefetchAhead; ++ahead)
    PrefetchItem(itemRecords, itemPaths, ahead);
  item = itemRecords[itemCursor]->Clone();
  WZ_LOG(6, kGetFirstItemSignature, site::kFirstItem, "The First Item from WzScanDB is : %s",
         item->toString().c_str());
  path = itemPaths[itemCursor];
  ++itemCursor;
  return CKoError();
}

CKoError WzScanDB::getNextItem(WzScanDBRecordBasePtr& item, std::string& path) {
  auto_lock<FXCriticalSection> lock(dbLock);

  // The cursor can only pass the buffer's end after the iteration ended (the
  // buffer is then empty); a refill of the finished walk reports the end again.
  if (itemCursor >= itemRecords.size()) {
    KeepSpares(itemRecords, spareRecords);
    CKoError err = getSubTree(WzScanDBRecordBasePtr(), itemRecords, itemPaths, false, kItemBatch,
                              true);
    if (err.IsError()) {
      DropSpares(spareRecords);
      return err.Push(FXCodeLocation(kSourcePath, kGetNextItemSignature, site::kNextSubTreeFailed),
                      "Get Subtree function failed in subsequent call");
    }
    WZ_LOG(6, kGetNextItemSignature, site::kNextBuffered,
           "Calling Subtree function to Buffer %lu items in Memory",
           static_cast<unsigned long>(itemRecords.size()));
    if (itemRecords.empty()) {
      DropSpares(spareRecords);
      WZ_LOG(6, kGetNextItemSignature, site::kNextNoMoreItems,
             "No more Items returned from the Subtree function");
      return FXErrorUtil::ErrorWin32(
          FXCodeLocation(kSourcePath, kGetNextItemSignature, site::kNextEnd), kWin32NoMoreFiles);
    }
    itemCursor = 0;
    for (size_t ahead = 0; ahead < kPrefetchAhead; ++ahead)
      PrefetchItem(itemRecords, itemPaths, ahead);
  }

  PrefetchItem(itemRecords, itemPaths, itemCursor + kPrefetchAhead);
  item = itemRecords[itemCursor]->Clone();
  WZ_LOG(6, kGetNextItemSignature, site::kNextItem, "The Next Item from WzScanDB is : %s",
         item->toString().c_str());
  path = itemPaths[itemCursor];
  ++itemCursor;
  return CKoError();
}
