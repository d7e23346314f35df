// WzScanDB life cycle: construction, initialize (schema registration, create
// or open of the table files, statistics thread), close, destruction and the
// table engine overrides.
#include "WzScanDB/WzScanDB.h"

#include <cstring>
#include <memory>
#include <utility>

#include "WzScanDB/RecordIdentity.h"
#include "WzScanDB/SpillingFifo.h"
#include "WzScanDB/WalkQueueSetting.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXFile.h"
#include "runtime/LogWriter.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kDefaultWalkQueueBytes;
using WzScanDBInternal::kSourcePath;
using WzScanDBInternal::SpillingFifo;
const char kSigConstructor[] = "WzScanDB::WzScanDB(WzScanDBRecordBasePtr)";
const char kSigInitialize[] = "CKoError WzScanDB::initialize(const string&)";
const char kSigClose[] = "CKoError WzScanDB::close()";

const char kTableName[] = "WzScanDB";

}  // namespace

WzScanDBRecordBasePtr WzScanDB::sptrDbRoot;

WzScanDB::WzScanDB() : WzScanDB(WzScanDBRecordBasePtr(), false) {}

WzScanDB::WzScanDB(WzScanDBRecordBasePtr prototype) : WzScanDB(std::move(prototype), true) {}

WzScanDB::WzScanDB(WzScanDBRecordBasePtr prototype, bool described)
    : initialized(false),
      recordInitialized(described),
      refTime(0),
      pendingRecords(new SpillingFifo(kDefaultWalkQueueBytes / 2, std::string())),
      pendingPaths(new SpillingFifo(kDefaultWalkQueueBytes / 2, std::string())),
      itemCursor(0),
      walkQueueMemory(kDefaultWalkQueueBytes) {
  if (!described) return;
  if (!prototype) {
    WZ_LOG(-1, kSigConstructor, __LINE__, "The Record Structure is NULL");
    recordInitialized = false;
    return;
  }
  recordPrototype = prototype;
  recordPrototype->initializeFieldInformation();
  recordPrototype->initializeIndexInformation();
  recordPrototype->initializeSegmentInformation();
  sptrDbRoot = recordPrototype->getRoot();
  WZ_LOG(4, kSigConstructor, __LINE__, "Initialized the Record Structure while creating the Object");
}

WzScanDB::~WzScanDB() {
  TCtreeTable::close();
  // A database destroyed without close() leaves its statistics thread running
  // detached. The thread owns the counter set jointly, so nothing it reads is
  // freed; the mark only tells it that its owner is gone, and it ends at its
  // next wake-up instead of running for the rest of the process.
  if (performanceCounter) performanceCounter->MarkOwnerGone();
}

CKoError WzScanDB::initialize(const std::string& directory) {
  if (directory.empty())
    return FXErrorUtil::ErrorErrNo(FXCodeLocation(kSourcePath, kSigInitialize, __LINE__), 22,
                                   "The Given Directory path to create/open WzScanDB is empty");
  if (!recordInitialized)
    return FXErrorUtil::ErrorErrNo(
        FXCodeLocation(kSourcePath, kSigInitialize, __LINE__), 22,
        "Cannot Initialize Database because the Record Structure is not initialized");

  const std::string tableName = directory + "/" + kTableName;
  const std::string dataFile = tableName + ".dat";
  WzScanDBRecordBase& proto = *recordPrototype;

  const int numFields = proto.numFields();
  const int numIndices = proto.numIndices();
  const int numSegments = proto.numSegments();
  const int recordSize = proto.recordSize();
  const int fixedRecordSize = proto.fixedRecordSize();

  int status = internalInitialize(tableName.c_str(), proto.isVariableLength(), numFields,
                                  numIndices, numSegments, recordSize, fixedRecordSize);
  WZ_LOG(0, kSigInitialize, __LINE__,
         "The Fields : %d -- Indices : %d -- Segments : %d -- recordSize : %d -- "
         "fixedRecordSize : %d\n",
         numFields, numIndices, numSegments, recordSize, fixedRecordSize);
  if (status != 0)
    return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigInitialize, __LINE__), status,
                                 "Failed to Initialize WzScanDB : %s", errToString(status));
  WZ_LOG(4, kSigInitialize, __LINE__, "Internal Initalize Completed");

  for (int i = 0; i < numFields; ++i) {
    SFields field = proto.getFieldInformation(i);
    WZ_LOG(4, kSigInitialize, __LINE__,
           "Getting Field Information -- Name %s -- Offset : %lu -- Type : %d -- Length : %d",
           field.name.c_str(), static_cast<unsigned long>(field.offset), field.type,
           field.length);
    status = setNextField(field.name.c_str(), field.offset, field.type, field.length);
    if (status != 0)
      return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigInitialize, __LINE__), status,
                                   "Failed to Configure WzScanDB Fields : %s",
                                   errToString(status));
  }
  WZ_LOG(4, kSigInitialize, __LINE__, "Field Configuration Completed");

  for (int i = 0; i < numIndices; ++i) {
    SIndices index = proto.getIndexInformation(i);
    WZ_LOG(4, kSigInitialize, __LINE__,
           "Getting Index Information -- Name %s -- Key Information : Length : %d - Type : %d - "
           "Duplication : %d - NullKey : %d - Empchr : %d - NumSeg : %d - Segment Num : %d",
           index.name.c_str(), index.keyLength, static_cast<int>(index.keyType),
           index.duplicates, index.nullKey, index.emptyChar, index.numSegments,
           index.segmentNumber);
    status = setNextIndex(index.name.c_str(), index.keyLength, index.keyType, index.duplicates,
                          index.nullKey, index.emptyChar, index.numSegments,
                          index.segmentNumber);
    if (status != 0)
      return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigInitialize, __LINE__), status,
                                   "Failed to Configure WzScanDB Indices : %s",
                                   errToString(status));
  }
  WZ_LOG(4, kSigInitialize, __LINE__, "Index Configuration Completed");

  for (int i = 0; i < numSegments; ++i) {
    SSegments segment = proto.getSegmentInformation(i);
    WZ_LOG(4, kSigInitialize, __LINE__,
           "Getting Segment Information : FieldNumber : %d  , Segment size : %d , Case "
           "Sensitive : %d\n",
           segment.fieldNumber, segment.segmentSize, segment.caseSensitive);
    status = setNextSegment(segment.fieldNumber, segment.segmentSize, segment.caseSensitive);
    if (status != 0)
      return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigInitialize, __LINE__), status,
                                   "Failed to Configure WzScanDB Segments : %s",
                                   errToString(status));
  }
  WZ_LOG(4, kSigInitialize, __LINE__, "Segment Configuration Completed");

  for (int i = 0; i < numFields; ++i) shellOrder(i);

  status = initializeComplete();
  if (status != 0)
    return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigInitialize, __LINE__), status,
                                 "Failed to Complete Initialization of WzScanDB : %s",
                                 errToString(status));
  WZ_LOG(4, kSigInitialize, __LINE__, "Initialize Complete Configuration Completed\n");

  WZ_LOG(0, kSigInitialize, __LINE__,
         "The CTree Database WzScanDB is %s created with Huge File Support ",
         createHugeFile() ? "" : "not");

  if (FXFile::Exists(dataFile)) {
    status = open(WZIndexing::kAccessReadWrite);
    if (status != 0)
      return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigInitialize, __LINE__), status,
                                   "Failed to Open an Existing WzScanDB : %s",
                                   errToString(status));
    WZ_LOG(0, kSigInitialize, __LINE__, "Opened an Existing WzScanDB Database at : %s",
           tableName.c_str());
  } else {
    status = create();
    if (status != 0)
      return FXErrorUtil::ErrorInt(FXCodeLocation(kSourcePath, kSigInitialize, __LINE__), status,
                                   "Failed to Create WzScanDB : %s", errToString(status));
    WZ_LOG(0, kSigInitialize, __LINE__, "Created a New WzScan Database at : %s",
           tableName.c_str());
  }

  initialized = true;
  configureWalks(directory);

  // A set replaced here belongs to a thread nobody will join any more.
  if (performanceCounter) performanceCounter->MarkOwnerGone();
  statisticsThread.reset(new WzThread());
  performanceCounter.reset(new WzScanDBPerformanceCounter());
  // The thread holds the counter set jointly with this object, so the set
  // outlives whichever of the two lets it go last.
  boost::shared_ptr<WzScanDBPerformanceCounter> counters = performanceCounter;
  statisticsThread->Start(&PrintScanDBStatistics, counters.get(),
                          std::shared_ptr<void>(counters.get(), [counters](void*) {}));
  return CKoError();
}

int WzScanDB::initialize(const char* name) {
  if (name == nullptr || !recordInitialized) return -1;
  WzScanDBRecordBase& proto = *recordPrototype;
  const int numFields = proto.numFields();
  const int numIndices = proto.numIndices();
  const int numSegments = proto.numSegments();

  if (internalInitialize(name, proto.isVariableLength(), numFields, numIndices, numSegments,
                         proto.recordSize(), proto.fixedRecordSize()) != 0)
    return -1;
  for (int i = 0; i < numFields; ++i) {
    SFields field = proto.getFieldInformation(i);
    if (setNextField(field.name.c_str(), field.offset, field.type, field.length) != 0) return -1;
  }
  for (int i = 0; i < numIndices; ++i) {
    SIndices index = proto.getIndexInformation(i);
    if (setNextIndex(index.name.c_str(), index.keyLength, index.keyType, index.duplicates,
                     index.nullKey, index.emptyChar, index.numSegments,
                     index.segmentNumber) != 0)
      return -1;
  }
  for (int i = 0; i < numSegments; ++i) {
    SSegments segment = proto.getSegmentInformation(i);
    if (setNextSegment(segment.fieldNumber, segment.segmentSize, segment.caseSensitive) != 0)
      return -1;
  }
  for (int i = 0; i < numFields; ++i) shellOrder(i);
  if (initializeComplete() != 0) return -1;

  // The engine-level form reports -1 whatever happened; callers must not
  // read anything into it.
  initialized = true;
  const char* slash = std::strrchr(name, '/');
  configureWalks(slash ? std::string(name, slash == name ? 1 : slash - name) : std::string("."));
  return -1;
}

CKoError WzScanDB::close() {
  // A batched walk cannot go on over a closed table: its pending folders
  // (and any temporary file holding them) go now.
  pendingRecords->clear();
  pendingPaths->clear();
  pendingStart.reset();
  if (initialized) {
    TCtreeTable::close();
    initialized = false;
    WZ_LOG(0, kSigClose, __LINE__, "The %s is closed", kTableName);
    if (performanceCounter) {
      performanceCounter->LogAllPerformanceCounters();
      performanceCounter->SetStopLogging(true);
    }
    if (statisticsThread) statisticsThread->Join();
  } else {
    WZ_LOG(0, kSigClose, __LINE__, "The %s is not initialized for it to close", kTableName);
  }
  return CKoError();
}

bool WzScanDB::initializeCheck() { return initialized && recordInitialized; }

int WzScanDB::registerTable() { return internalRegisterTable(18, 12, 18); }

const char* WzScanDB::getTableType() { return "WZScanDB"; }

bool WzScanDB::createHugeFile() { return true; }
