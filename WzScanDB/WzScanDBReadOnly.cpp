// WzScanDB::openReadOnly: the read-only counterpart of initialize(directory),
// for tools that look into a database without changing its files.
#include "WzScanDB/WzScanDB.h"

#include <memory>

#include "WzScanDB/WzScanDBErrorSite.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/LogWriter.h"

namespace {

const char kSigOpenReadOnly[] = "CKoError WzScanDB::openReadOnly(const string&)";

}  // namespace

CKoError WzScanDB::openReadOnly(const std::string& directory) {
  using WzScanDBInternal::At;
  if (directory.empty())
    return FXErrorUtil::ErrorErrNo(At(kSigOpenReadOnly, __LINE__), 22,
                                   "The Given Directory path to open WzScanDB is empty");
  if (!recordInitialized)
    return FXErrorUtil::ErrorErrNo(
        At(kSigOpenReadOnly, __LINE__), 22,
        "Cannot Open Database because the Record Structure is not initialized");

  const std::string tableName = directory + "/WzScanDB";
  // The engine-level initialize registers the schema under the table name
  // without touching any file; it sets `initialized` only when every step of
  // the registration succeeded.
  initialized = false;
  initialize(tableName.c_str());
  if (!initialized)
    return FXErrorUtil::ErrorErrNo(At(kSigOpenReadOnly, __LINE__), 22,
                                   "Cannot register the schema of WzScanDB at %s",
                                   tableName.c_str());
  initialized = false;

  const int status = open(WZIndexing::kAccessReadOnly);
  if (status != 0)
    return FXErrorUtil::ErrorInt(At(kSigOpenReadOnly, __LINE__), status,
                                 "Failed to Open WzScanDB Read-Only : %s", errToString(status));
  WZ_LOG(0, kSigOpenReadOnly, __LINE__, "Opened WzScanDB Read-Only at : %s", tableName.c_str());
  initialized = true;

  if (performanceCounter) performanceCounter->MarkOwnerGone();
  statisticsThread.reset(new WzThread());
  performanceCounter.reset(new WzScanDBPerformanceCounter());
  boost::shared_ptr<WzScanDBPerformanceCounter> counters = performanceCounter;
  statisticsThread->Start(&PrintScanDBStatistics, counters.get(),
                          std::shared_ptr<void>(counters.get(), [counters](void*) {}));
  return CKoError();
}
