// Tree validation and statistics of WzScanDB.
//
// validateTree marks every record reachable from the root with the visited
// bit (a batched breadth-first walk that writes each mark), scans the whole
// table for the first record without the mark, and unmarks the reachable
// records again. printStats counts the root's descendants and leaves them
// marked.
#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

#include "WzScanDB/WzScanDB.h"
#include "runtime/LogWriter.h"
#include "runtime/WZDebugFunction.h"
#include "runtime/auto_lock.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kSourcePath;

constexpr const char* kValidateTreeSig = "CKoError WzScanDB::validateTree(bool&)";
constexpr const char* kPrintStatsSig = "CKoError WzScanDB::printStats()";

// Source lines of every error and log site in this file.
namespace site {
constexpr int kPrintStatsSubTreeFailed = 472;
constexpr int kPrintStatsFailed = 476;
constexpr int kValidateStarted = 1037;
constexpr int kMarkFirstFailed = 1048;
constexpr int kMarkFirstCount = 1049;
constexpr int kMarkNextFailed = 1052;
constexpr int kMarkNextCount = 1053;
constexpr int kMarkDone = 1055;
constexpr int kDisconnected = 1065;
constexpr int kUnmarkFirstFailed = 1075;
constexpr int kUnmarkFirstCount = 1076;
constexpr int kUnmarkNextFailed = 1079;
constexpr int kUnmarkNextCount = 1080;
constexpr int kValidateDone = 1082;
}  // namespace site

// Records per sub-tree call in both passes; bounds validateTree's memory.
constexpr int kValidateBatchSize = 10000;

using WzScanDBInternal::At;

}  // namespace

CKoError WzScanDB::validateTree(bool& consistent) {
  auto_lock<FXCriticalSection> lock(dbLock);
  std::unique_ptr<WZDebugFunction> trace;
  if (g_ptrLogWriter->IsEnabled(0)) trace.reset(new WZDebugFunction(2, kValidateTreeSig));

  WZ_LOG(0, kValidateTreeSig, site::kValidateStarted,
         "Validate Function Called. Expensive Function, May Take Time. Performing BFS Search "
         "marking all nodes as visited.");
  consistent = true;
  WzScanDBRecordBasePtr root = getRoot();
  // No database of a tree type was made in this process: the walk refuses
  // the missing root, and the messages name it so.
  auto rootText = [&root] { return root ? root->toString() : std::string("NULL"); };

  // Marking pass.
  std::vector<WzScanDBRecordBasePtr> buffer;
  // A cycle of parent links through the root stops the marking walk; an
  // unmarking walk stops at the same record, so it takes back exactly the
  // marks written, and the next validation still sees every record's own bit.
  auto takeBackMarksAfterCycle = [&](const CKoError& failure) {
    if (failure.GetKind() != EKoErrorKind::kErrNo || failure.GetCode() != ELOOP) return;
    std::vector<WzScanDBRecordBasePtr> batch;
    for (CKoError e = getSubTree(root, batch, false, kValidateBatchSize, false);
         e.IsSuccess() && !batch.empty();
         e = getSubTree(root, batch, false, kValidateBatchSize, true)) {
    }
  };

  CKoError err = getSubTree(root, buffer, true, kValidateBatchSize, false);
  takeBackMarksAfterCycle(err);
  if (err.IsError())
    return err.Push(At(kValidateTreeSig, site::kMarkFirstFailed),
                    "getSubtree(%s) with validate = true Failed", rootText().c_str());
  WZ_LOG(5, kValidateTreeSig, site::kMarkFirstCount, "%lu Records marked as Visited",
         static_cast<unsigned long>(buffer.size()));
  while (!buffer.empty()) {
    err = getSubTree(root, buffer, true, kValidateBatchSize, true);
    takeBackMarksAfterCycle(err);
    if (err.IsError())
      return err.Push(At(kValidateTreeSig, site::kMarkNextFailed),
                      "getSubtree(%s) with validation = true on subsequent call Failed",
                      rootText().c_str());
    WZ_LOG(5, kValidateTreeSig, site::kMarkNextCount, "%lu Records marked as Visited",
           static_cast<unsigned long>(buffer.size()));
  }
  WZ_LOG(0, kValidateTreeSig, site::kMarkDone,
         "Visited All Reachable Nodes from the Root. Now Checking if any of the Nodes are "
         "disconnected.");

  // Scan of the whole table for the first record left unmarked. Only that
  // one is reported: finding one is enough to call the tree inconsistent.
  WzScanDBRecordBasePtr scanned = recordPrototype->Clone();
  void* image = scanned->getStructure();
  int status = firstRecord(-1, image);
  scanned->setStructure(image);
  while (status == 0 && (scanned->getFlags() & kRecordFlagVisited) != 0) {
    status = nextRecord(-1, image);
    scanned->setStructure(image);
  }
  if (status == 0) {
    WZ_LOG(-1, kValidateTreeSig, site::kDisconnected, "Found a disconnected node : %s\n",
           scanned->toString().c_str());
    consistent = false;
  }

  // Unmarking pass, whatever the scan found.
  err = getSubTree(root, buffer, false, kValidateBatchSize, false);
  if (err.IsError())
    return err.Push(At(kValidateTreeSig, site::kUnmarkFirstFailed),
                    "getSubtree(%s) with validate = False Failed", rootText().c_str());
  WZ_LOG(5, kValidateTreeSig, site::kUnmarkFirstCount, "%lu Records marked as Not Visited",
         static_cast<unsigned long>(buffer.size()));
  while (!buffer.empty()) {
    err = getSubTree(root, buffer, false, kValidateBatchSize, true);
    if (err.IsError())
      return err.Push(At(kValidateTreeSig, site::kUnmarkNextFailed),
                      "getSubtree(%s) with validate = False on subsequent call Failed",
                      rootText().c_str());
    WZ_LOG(5, kValidateTreeSig, site::kUnmarkNextCount, "%lu Records marked as Not Visited",
           static_cast<unsigned long>(buffer.size()));
  }

  WZ_LOG(0, kValidateTreeSig, site::kValidateDone,
         "Marked all Nodes Reachable from Root as Not Visited. The Database is %s",
         consistent ? "Consistent" : "Not Consistent");
  return CKoError();
}

// Walks the whole sub-tree of the root at once in visited mode: every
// reachable record is left with its visited bit set in the table.
CKoError WzScanDB::printStats() {
  WzScanDBRecordBasePtr root = getRoot();
  std::vector<WzScanDBRecordBasePtr> records;
  CKoError err = getSubTree(root, records, true);
  if (err.IsError()) {
    const std::string text = err.AsString();
    g_ptrLogWriter->Write(-1, kPrintStatsSig, site::kPrintStatsSubTreeFailed,
                          "Couldn't get the subtree due to : %s", text.c_str());
    std::printf("Couldn't get the subtree due to : %s", text.c_str());
    std::fflush(stdout);
    return err.Push(At(kPrintStatsSig, site::kPrintStatsFailed),
                    "Couldn't get the subtree to print the stats of the database");
  }

  int folders = 0;
  int files = 0;
  for (const WzScanDBRecordBasePtr& record : records) {
    if (record->isDir())
      ++folders;
    else
      ++files;
  }
  std::printf(
      "\nTotal Number of Records : %lu , Number of Directories : %d  , Number of Files : %d \n",
      static_cast<unsigned long>(records.size()), folders, files);
  std::fflush(stdout);
  return CKoError();
}
