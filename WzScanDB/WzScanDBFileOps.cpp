// File and folder operations of WzScanDB: addFile, addFolder, removeFile and
// removeFolder. They stamp the record (directory bit, the database's reference
// time), call the record store, and wrap its errors with their own frame.
// removeFolder deletes the sub-tree top-down in bounded batches, then the
// folder record itself. None of them takes dbLock: every table access is
// locked inside the store and sub-tree operations they call.
#include <vector>

#include "WzScanDB/WzScanDB.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/LogWriter.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kSourcePath;

constexpr const char* kAddFileSig = "CKoError WzScanDB::addFile(WzScanDBRecordBasePtr)";
constexpr const char* kAddFolderSig = "CKoError WzScanDB::addFolder(WzScanDBRecordBasePtr)";
constexpr const char* kRemoveFileSig = "CKoError WzScanDB::removeFile(WzScanDBRecordBasePtr)";
constexpr const char* kRemoveFolderSig = "CKoError WzScanDB::removeFolder(WzScanDBRecordBasePtr)";

// Source lines of every error and log site in this file.
namespace site {
constexpr int kAddFileNull = 756;
constexpr int kAddFileFailed = 765;
constexpr int kAddFileAdded = 768;
constexpr int kAddFolderNull = 778;
constexpr int kAddFolderFailed = 787;
constexpr int kAddFolderAdded = 789;
constexpr int kRemoveFileNull = 800;
constexpr int kRemoveFileFailed = 804;
constexpr int kRemoveFileRemoved = 806;
constexpr int kRemoveFolderNull = 818;
constexpr int kRemoveFolderFirstBatchFailed = 824;
constexpr int kRemoveFolderFirstBatchFilled = 825;
constexpr int kRemoveFolderDescendantFailed = 834;
constexpr int kRemoveFolderNextBatchFailed = 838;
constexpr int kRemoveFolderNextBatchFilled = 839;
constexpr int kRemoveFolderSelfFailed = 844;
constexpr int kRemoveFolderDone = 845;
}  // namespace site

// Descendants fetched per sub-tree call; bounds removeFolder's memory.
constexpr int kRemoveBatchSize = 10000;

}  // namespace

CKoError WzScanDB::addFile(WzScanDBRecordBasePtr record) {
  if (!record)
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kAddFileSig, site::kAddFileNull), 22,
                                   "The given record for Add File is NULL");
  record->setFlags(record->getFlags() & ~kRecordFlagDirectory);
  record->setRefTime(refTime);
  CKoError err = addDBRecord(record);
  if (err.IsError())
    return err.Push(FXCodeLocation(kSourcePath, kAddFileSig, site::kAddFileFailed), "addFile() Failed");
  WZ_LOG(6, kAddFileSig, site::kAddFileAdded, "File Record Added : %s", record->toString().c_str());
  return CKoError();
}

CKoError WzScanDB::addFolder(WzScanDBRecordBasePtr record) {
  if (!record)
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kAddFolderSig, site::kAddFolderNull),
                                   22, "The given record for Add Folder is NULL");
  record->setFlags(record->getFlags() | kRecordFlagDirectory);
  record->setRefTime(refTime);
  CKoError err = addDBRecord(record);
  if (err.IsError())
    return err.Push(FXCodeLocation(kSourcePath, kAddFolderSig, site::kAddFolderFailed),
                    "addFolder() Failed");
  WZ_LOG(6, kAddFolderSig, site::kAddFolderAdded, "Folder Record Added : %s",
         record->toString().c_str());
  return CKoError();
}

CKoError WzScanDB::removeFile(WzScanDBRecordBasePtr record) {
  if (!record)
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kRemoveFileSig, site::kRemoveFileNull),
                                   22, "The given record for Remove File is NULL");
  CKoError err = deleteDBRecord(record);
  if (err.IsError())
    return err.Push(FXCodeLocation(kSourcePath, kRemoveFileSig, site::kRemoveFileFailed),
                    "removeFile() Failed");
  WZ_LOG(6, kRemoveFileSig, site::kRemoveFileRemoved, "File Record Removed : %s",
         record->toString().c_str());
  return CKoError();
}

// Each batch comes back in breadth-first order, so a folder's record is
// deleted before the records below it. Deleting while the walk goes on is
// safe: the walk keeps the pending folders in memory and finds their children
// through the parent index, which does not need the folders' own records.
CKoError WzScanDB::removeFolder(WzScanDBRecordBasePtr record) {
  if (!record)
    return FXErrorUtil::ErrorErrNo(
        FXCodeLocation(kSourcePath, kRemoveFolderSig, site::kRemoveFolderNull), 22,
        "The given record for Remove Folder is NULL");

  std::vector<WzScanDBRecordBasePtr> buffer;
  CKoError err = getSubTree(record, buffer, kRemoveBatchSize, false);
  if (err.IsError())
    return err.Push(FXCodeLocation(kSourcePath, kRemoveFolderSig, site::kRemoveFolderFirstBatchFailed),
                    "getSubTree(%s) Failed", record->toString().c_str());
  WZ_LOG(6, kRemoveFolderSig, site::kRemoveFolderFirstBatchFilled,
         "Filled the Buffer with %lu Items from the getSubtree() function",
         static_cast<unsigned long>(buffer.size()));

  while (!buffer.empty()) {
    for (const WzScanDBRecordBasePtr& descendant : buffer) {
      err = deleteDBRecord(descendant);
      if (err.IsError())
        return err.Push(
            FXCodeLocation(kSourcePath, kRemoveFolderSig, site::kRemoveFolderDescendantFailed),
            "Subtree deleteDBRecord (%s) Failed", descendant->toString().c_str());
    }
    err = getSubTree(record, buffer, kRemoveBatchSize, true);
    if (err.IsError())
      return err.Push(FXCodeLocation(kSourcePath, kRemoveFolderSig, site::kRemoveFolderNextBatchFailed),
                      "getSubtree(%s) Failed", record->toString().c_str());
    WZ_LOG(6, kRemoveFolderSig, site::kRemoveFolderNextBatchFilled,
           "Filled the Buffer with %lu Items from the getSubtree() function",
           static_cast<unsigned long>(buffer.size()));
  }

  err = deleteDBRecord(record);
  if (err.IsError())
    return err.Push(FXCodeLocation(kSourcePath, kRemoveFolderSig, site::kRemoveFolderSelfFailed),
                    "Cannot delete the parent record in Remove Folder");
  WZ_LOG(6, kRemoveFolderSig, site::kRemoveFolderDone,
         "Folder Record and its descendants Deleted : %s", record->toString().c_str());
  return CKoError();
}
