// WzScanDB database files (remove, move, copy of a closed database) and
// index maintenance on the open table.
#include <sys/stat.h>

#include <optional>

#include "WzScanDB/WzScanDB.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXFile.h"
#include "runtime/LogWriter.h"
#include "runtime/WZDebugFunction.h"
#include "table/TableStatus.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kSourcePath;
const char kSigRemove[] = "static CKoError WzScanDB::remove(const string&)";
const char kSigMove[] = "static CKoError WzScanDB::move(const string&, const string&)";
const char kSigCopy[] = "static CKoError WzScanDB::copy(const string&, const string&)";
const char kSigSuspend[] = "CKoError WzScanDB::suspendIndex()";
const char kSigRebuild[] = "CKoError WzScanDB::rebuildIndex()";

const char kName[] = "WzScanDB";
const char kDataSuffix[] = "/WzScanDB.dat";
const char kIndexSuffix[] = "/WzScanDB.idx";
const char kLogSuffix[] = "/WzScanDB.log";
const char kTableSuffix[] = "/WzScanDB";
const char kTempSuffix[] = ".tmp";

// A database whose process ended without closing it keeps its last writes in
// its log beside the two files. Before the files are moved or copied, the
// log is replayed into them (TCtreeTable::settle), so that the pair carries
// every write that returned success. Files held open by a live table object
// are left to their owner, as the file operations expect closed databases.
CKoError SettleLog(const std::string& directory, const char* signature, int line) {
  const int status = TCtreeTable::settle((directory + kTableSuffix).c_str());
  if (status == TBL_OK || status == TBL_IN_USE) return CKoError();
  return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, signature, line), status,
                               "Cannot replay the log of %s in %s: %s", kName, directory.c_str(),
                               TCtreeTable::errToString(status));
}

// The log of a database being replaced by a move or a copy: replayed when
// it can be, so that nothing is lost if the operation fails; removed once the
// database it belonged to has been replaced, since it belongs to no table
// there any more.
bool SettleReplacedLog(const std::string& to) {
  return TCtreeTable::settle((to + kTableSuffix).c_str()) != TBL_IN_USE;
}

void RemoveReplacedLog(const std::string& to, bool mayRemove) {
  struct stat st;
  if (mayRemove && ::lstat((to + kLogSuffix).c_str(), &st) == 0 && S_ISREG(st.st_mode))
    FXFile::RemoveFile(to + kLogSuffix);
}

}  // namespace

CKoError WzScanDB::remove(const std::string& directory) {
  CKoError error = FXFile::RemoveFile(directory + kDataSuffix);
  if (error.IsError())
    return error.Push(FXCodeLocation(kSourcePath, kSigRemove, __LINE__), "Couldn't remove %s.dat in %s",
                      kName, directory.c_str());
  error = FXFile::RemoveFile(directory + kIndexSuffix);
  if (error.IsError())
    return error.Push(FXCodeLocation(kSourcePath, kSigRemove, __LINE__), "Couldn't remove %s.idx in %s",
                      kName, directory.c_str());
  // The log goes with the pair (a database whose writer was killed has one).
  struct stat st;
  if (::lstat((directory + kLogSuffix).c_str(), &st) == 0) {
    error = FXFile::RemoveFile(directory + kLogSuffix);
    if (error.IsError())
      return error.Push(FXCodeLocation(kSourcePath, kSigRemove, __LINE__),
                        "Couldn't remove %s.log in %s", kName, directory.c_str());
  }
  WZ_LOG(0, kSigRemove, __LINE__, "Removing %s in %s : completed successfully", kName,
         directory.c_str());
  return CKoError();
}

CKoError WzScanDB::move(const std::string& from, const std::string& to) {
  const std::string fromData = from + kDataSuffix;
  const std::string toData = to + kDataSuffix;
  CKoError error = SettleLog(from, kSigMove, __LINE__);
  if (error.IsError())
    return error.Push(FXCodeLocation(kSourcePath, kSigMove, __LINE__),
                      "Couldn't move %s from %s to %s", kName, from.c_str(), to.c_str());
  const bool replaced = SettleReplacedLog(to);
  error = FXFile::WZMoveFileEx(fromData, toData, FXFile::kMoveReplaceExisting);
  if (error.IsSuccess()) {
    error = FXFile::WZMoveFileEx(from + kIndexSuffix, to + kIndexSuffix,
                                 FXFile::kMoveReplaceExisting);
    if (error.IsSuccess()) {
      RemoveReplacedLog(to, replaced);
      WZ_LOG(0, kSigMove, __LINE__, "Moving %s from %s to %s completed successfully", kName,
             from.c_str(), to.c_str());
      return CKoError();
    }
    // Keep the pair together in the source directory.
    FXFile::WZMoveFileEx(toData, fromData, FXFile::kMoveReplaceExisting);
  }
  return error.Push(FXCodeLocation(kSourcePath, kSigMove, __LINE__), "Couldn't move %s from %s to %s",
                    kName, from.c_str(), to.c_str());
}

CKoError WzScanDB::copy(const std::string& from, const std::string& to) {
  // Copies go to temporary names first, so that a partial copy never
  // carries the final names.
  const std::string toData = to + kDataSuffix;
  const std::string toIndex = to + kIndexSuffix;
  const std::string tempData = toData + kTempSuffix;
  const std::string tempIndex = toIndex + kTempSuffix;

  CKoError error = SettleLog(from, kSigCopy, __LINE__);
  if (error.IsError())
    return error.Push(FXCodeLocation(kSourcePath, kSigCopy, __LINE__),
                      "Couldn't copy %s from %s to %s", kName, from.c_str(), to.c_str());
  const bool replaced = SettleReplacedLog(to);
  error = FXFile::WZCopyFile(from + kDataSuffix, tempData, 0);
  if (error.IsSuccess()) error = FXFile::WZCopyFile(from + kIndexSuffix, tempIndex, 0);
  if (error.IsSuccess()) error = FXFile::WZMoveFileEx(tempData, toData, FXFile::kMoveReplaceExisting);
  if (error.IsSuccess())
    error = FXFile::WZMoveFileEx(tempIndex, toIndex, FXFile::kMoveReplaceExisting);
  if (error.IsError()) {
    FXFile::RemoveFile(tempData);
    FXFile::RemoveFile(tempIndex);
    return error.Push(FXCodeLocation(kSourcePath, kSigCopy, __LINE__),
                      "Couldn't copy %s from %s to %s", kName, from.c_str(), to.c_str());
  }
  RemoveReplacedLog(to, replaced);
  WZ_LOG(0, kSigCopy, __LINE__, "Copying %s from %s to %s completed successfully", kName,
         from.c_str(), to.c_str());
  return CKoError();
}

CKoError WzScanDB::suspendIndex() {
  if (suspendIndexing() == -1)
    return FXErrorUtil::ErrorWin32(FXCodeLocation(kSourcePath, kSigSuspend, __LINE__),
                                   kWin32IndexFailure, "The Indexing Suspend operation failed.");
  WZ_LOG(0, kSigSuspend, __LINE__, "The Indexing for this WzScanDB is suspended");
  return CKoError();
}

CKoError WzScanDB::rebuildIndex() {
  std::optional<WZDebugFunction> trace;
  if (g_ptrLogWriter->GetLevel() >= 0) trace.emplace(2, kSigRebuild);

  WZ_LOG(0, kSigRebuild, __LINE__,
         "Indexing is resumed and going to be rebuilt. This is an expensive operation. Will "
         "take considerable amount of time.");
  const int status = resumeIndexingAndRebuild();
  if (status != 0)
    return FXErrorUtil::ErrorWin32(FXCodeLocation(kSourcePath, kSigRebuild, __LINE__),
                                   kWin32IndexFailure, "Rebuild Index Failed due to %s",
                                   errToString(status));
  WZ_LOG(0, kSigRebuild, __LINE__, "The Index has been rebuilt.");
  return CKoError();
}
