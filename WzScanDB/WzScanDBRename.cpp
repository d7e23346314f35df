// Rename operations of WzScanDB. A record's key derives from its path (or its
// name), so a rename never changes a key in place: it adds the record under
// the new key and deletes the one under the old key. Each operation has its
// own order of steps, and none is atomic; what a failure leaves behind
// follows from that order. No lock of their own: the store, lookup and
// sub-tree operations they call lock the table.
#include <string>
#include <vector>

#include "WzScanDB/RecordTypeCheck.h"
#include "WzScanDB/WzScanDB.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXPath.h"
#include "runtime/LogWriter.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kSourcePath;

constexpr const char* kRenameByKeySig =
    "CKoError WzScanDB::renameByKey(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr)";
constexpr const char* kRenameFileSig =
    "CKoError WzScanDB::renameFile(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr)";
constexpr const char* kRenameFolderSig =
    "CKoError WzScanDB::renameFolder(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr, std::string, "
    "std::string)";

// Source lines of every error and log site in this file.
namespace site {
constexpr int kByKeyNull = 855;
constexpr int kByKeyLookupFailed = 867;
constexpr int kByKeyNotFound = 871;
constexpr int kByKeyCopyFieldsFailed = 876;
constexpr int kByKeyDeleteFailed = 880;
constexpr int kByKeyAddFailed = 887;
constexpr int kByKeyRenamed = 894;
constexpr int kFileNull = 904;
constexpr int kFileAddFailed = 912;
constexpr int kFileLookupFailed = 919;
constexpr int kFileNotFound = 922;
constexpr int kFileDeleteFailed = 926;
constexpr int kFileRenamed = 928;
constexpr int kFolderLookupFailed = 941;
constexpr int kFolderNotFound = 944;
constexpr int kFolderFirstBatchFailed = 961;
constexpr int kFolderFirstBatchFilled = 962;
constexpr int kFolderItemCopyFieldsFailed = 983;
constexpr int kFolderItemAddFailed = 988;
constexpr int kFolderItemDeleteFailed = 992;
constexpr int kFolderItemRenamed = 994;
constexpr int kFolderNextBatchFailed = 999;
constexpr int kFolderNextBatchFilled = 1000;
constexpr int kFolderSelfAddFailed = 1005;
constexpr int kFolderSelfDeleteFailed = 1009;
constexpr int kFolderSelfRenamed = 1010;
constexpr int kFolderDone = 1011;
}  // namespace site

// Descendants moved per sub-tree call; bounds renameFolder's memory.
constexpr int kRenameBatchSize = 10000;

using WzScanDBInternal::At;

}  // namespace

// Look up, carry the stored fields over, delete the old key, add the new one.
CKoError WzScanDB::renameByKey(WzScanDBRecordBasePtr oldRecord, WzScanDBRecordBasePtr newRecord) {
  if (!oldRecord || !newRecord)
    return FXErrorUtil::ErrorErrNo(At(kRenameByKeySig, site::kByKeyNull), 22,
                                   "One or both of the given records for Rename is NULL");
  // The old record is deleted before the new one is added: a new record that
  // the add would refuse for its type must be refused before anything changes.
  if (recordPrototype) {
    CKoError typeError = WzScanDBInternal::CheckRecordType(
        recordPrototype, newRecord, At(kRenameByKeySig, site::kByKeyNull));
    if (typeError.IsError()) return typeError;
  }

  WzScanDBRecordBasePtr stored = oldRecord->Clone();
  bool found = false;
  CKoError err = checkDBRecord(oldRecord, stored, found);
  if (err.IsError())
    return err.Push(At(kRenameByKeySig, site::kByKeyLookupFailed), "checkDBRecord(%s) Failed",
                    oldRecord->toString().c_str());
  if (!found)
    return FXErrorUtil::ErrorErrNo(At(kRenameByKeySig, site::kByKeyNotFound), 2,
                                   "Cannot rename since the record doesn't exist in the database.");

  err = newRecord->copyStandardFields(stored);
  if (err.IsError())
    return err.Push(At(kRenameByKeySig, site::kByKeyCopyFieldsFailed),
                    "Error while copying record unchanged fields during rename");

  err = deleteDBRecord(oldRecord);
  if (err.IsError())
    return err.Push(At(kRenameByKeySig, site::kByKeyDeleteFailed),
                    "The old record to perform rename operation cannot be deleted");

  newRecord->setRefTime(refTime);
  err = addDBRecord(newRecord);
  if (err.IsError())
    return err.Push(At(kRenameByKeySig, site::kByKeyAddFailed),
                    "The new record to perform rename operation cannot be added");

  WZ_LOG(6, kRenameByKeySig, site::kByKeyRenamed, "Rename Record : %s ----------> : %s",
         oldRecord->toString().c_str(), newRecord->toString().c_str());
  return CKoError();
}

// Add the new record first (with the caller's own fields), then look the old
// one up and delete it.
CKoError WzScanDB::renameFile(WzScanDBRecordBasePtr oldRecord, WzScanDBRecordBasePtr newRecord) {
  if (!oldRecord || !newRecord)
    return FXErrorUtil::ErrorErrNo(At(kRenameFileSig, site::kFileNull), 22,
                                   "One or both of the given records for Rename File is NULL");
  // The new record is added before the old one is looked up: an old record
  // that the lookup would refuse for its type must be refused before that.
  if (recordPrototype) {
    CKoError typeError = WzScanDBInternal::CheckRecordType(recordPrototype, oldRecord,
                                                           At(kRenameFileSig, site::kFileNull));
    if (typeError.IsError()) return typeError;
  }

  newRecord->setRefTime(refTime);
  CKoError err = addDBRecord(newRecord);
  if (err.IsError())
    return err.Push(At(kRenameFileSig, site::kFileAddFailed),
                    "The new record to perform rename operation cannot be added");

  WzScanDBRecordBasePtr stored = oldRecord->Clone();
  bool found = false;
  err = checkDBRecord(oldRecord, stored, found);
  if (err.IsError())
    return err.Push(At(kRenameFileSig, site::kFileLookupFailed), "checkDBRecord(%s) Failed",
                    oldRecord->toString().c_str());
  if (!found)
    return FXErrorUtil::ErrorErrNo(
        At(kRenameFileSig, site::kFileNotFound), 2,
        "Cannot rename file since the file doesn't exist in the database.");

  err = deleteDBRecord(oldRecord);
  if (err.IsError())
    return err.Push(At(kRenameFileSig, site::kFileDeleteFailed),
                    "The old record to perform rename operation cannot be deleted");

  WZ_LOG(6, kRenameFileSig, site::kFileRenamed, "Rename Record : %s ----------> : %s",
         oldRecord->toString().c_str(), newRecord->toString().c_str());
  return CKoError();
}

// Moves every descendant, batch by batch in breadth-first order, each added
// under its new path before its old record is deleted; the folder's own record
// moves last. A descendant folder's new path is given a trailing delimiter
// before the record is made from it ("<new>/a/b/"), so a record type that keys
// on the path text keys such a folder on that text; the old path of the log
// line never carries one.
CKoError WzScanDB::renameFolder(WzScanDBRecordBasePtr oldRecord, WzScanDBRecordBasePtr newRecord,
                                std::string oldPath, std::string newPath) {
  if (!oldRecord || !newRecord)
    return FXErrorUtil::ErrorErrNo(At(kRenameFolderSig, __LINE__), 22,
                                   "One or both of the given records for Rename Folder is NULL");
  // Every descendant is re-made from the new record (MakeObject) and moved
  // before the new record itself is added: a new record of another type must
  // be refused before anything moves.
  if (recordPrototype) {
    CKoError typeError = WzScanDBInternal::CheckRecordType(recordPrototype, newRecord,
                                                           At(kRenameFolderSig, __LINE__));
    if (typeError.IsError()) return typeError;
  }
  WzScanDBRecordBasePtr stored = oldRecord->Clone();
  bool found = false;
  CKoError err = checkDBRecord(oldRecord, stored, found);
  if (err.IsError())
    return err.Push(At(kRenameFolderSig, site::kFolderLookupFailed), "checkDBRecord(%s) Failed",
                    oldRecord->toString().c_str());
  if (!found)
    return FXErrorUtil::ErrorErrNo(
        At(kRenameFolderSig, site::kFolderNotFound), 2,
        "Cannot rename folder %s since the folder doesn't exist in the database", oldPath.c_str());

  newRecord->setRefTime(refTime);

  std::string oldPrefix = oldPath;
  std::string newPrefix = newPath;
  FXPath::AppendTrailingDelimiter(oldPrefix);
  FXPath::AppendTrailingDelimiter(newPrefix);

  std::vector<WzScanDBRecordBasePtr> records;
  std::vector<std::string> paths;
  err = getSubTree(stored, records, paths, kRenameBatchSize, false);
  if (err.IsError())
    return err.Push(At(kRenameFolderSig, site::kFolderFirstBatchFailed), "getSubTree( %s ) Failed",
                    oldPath.c_str());
  WZ_LOG(6, kRenameFolderSig, site::kFolderFirstBatchFilled,
         "Filled the Buffer with %lu Items from the getSubtree function",
         static_cast<unsigned long>(records.size()));

  std::string itemOldPath;
  std::string itemNewPath;
  while (!records.empty()) {
    for (size_t i = 0; i < records.size(); ++i) {
      const WzScanDBRecordBasePtr& entry = records[i];
      itemOldPath = oldPrefix;
      FXPath::Append(itemOldPath, paths[i], 0);
      itemNewPath = newPrefix;
      FXPath::Append(itemNewPath, paths[i], 0);
      if (entry->isDir()) FXPath::AppendTrailingDelimiter(itemNewPath);

      WzScanDBRecordBasePtr moved = newRecord->MakeObject(itemNewPath);
      err = moved->copyStandardFields(entry);
      if (err.IsError())
        return err.Push(At(kRenameFolderSig, site::kFolderItemCopyFieldsFailed),
                        "Error while copying record unchanged fields during rename");
      moved->setRefTime(refTime);
      err = addDBRecord(moved);
      if (err.IsError())
        return err.Push(At(kRenameFolderSig, site::kFolderItemAddFailed),
                        "Error while Adding new records during rename");
      err = deleteDBRecord(entry);
      if (err.IsError())
        return err.Push(At(kRenameFolderSig, site::kFolderItemDeleteFailed),
                        "Error while Deleting old records during rename");
      WZ_LOG(6, kRenameFolderSig, site::kFolderItemRenamed, "Renaming path from : %s to %s",
             itemOldPath.c_str(), itemNewPath.c_str());
    }
    err = getSubTree(stored, records, paths, kRenameBatchSize, true);
    if (err.IsError())
      return err.Push(At(kRenameFolderSig, site::kFolderNextBatchFailed), "getSubTree( %s ) Failed",
                      oldPath.c_str());
    WZ_LOG(6, kRenameFolderSig, site::kFolderNextBatchFilled,
           "Filled the Buffer with %lu Items from the getSubtree function",
           static_cast<unsigned long>(records.size()));
  }

  err = addDBRecord(newRecord);
  if (err.IsError())
    return err.Push(At(kRenameFolderSig, site::kFolderSelfAddFailed),
                    "Error while Adding new records during rename");
  err = deleteDBRecord(stored);
  if (err.IsError())
    return err.Push(At(kRenameFolderSig, site::kFolderSelfDeleteFailed),
                    "Error while Deleting old records during rename");
  WZ_LOG(6, kRenameFolderSig, site::kFolderSelfRenamed, "Renaming path from : %s to %s",
         oldPath.c_str(), newPath.c_str());
  WZ_LOG(6, kRenameFolderSig, site::kFolderDone,
         "Rename Operation from %s to %s performed successfully", oldPath.c_str(),
         newPath.c_str());
  return CKoError();
}
