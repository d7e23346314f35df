// WzScanDB: the scan database. One object binds one record type (given by a
// prototype record) to one table of the table engine in one directory:
// <directory>/WzScanDB.dat and <directory>/WzScanDB.idx.
//
// Life cycle: construct from a prototype, initialize(directory) (creates or
// opens the files and starts the statistics thread), record and tree
// operations, close() (stops the thread), then destroy. Every operation
// returns a CKoError and throws nothing of its own.
//
// Thread safety: lookups, updates, addRecordWithoutCheck, every tree read and
// validateTree hold dbLock (recursive) for their whole call; addDBRecord and
// deleteDBRecord hold it only inside their lookup; the file and folder
// operations and the renames take no lock of their own and are not atomic.
// The batched sub-tree walk and the item iteration keep their state in the
// object: two of them must not interleave on one object. initialize and close
// must not race other calls. sptrDbRoot is process-wide and unguarded.
//
// Memory: the whole-tree operations (the sub-tree walks, the item walk,
// validateTree, removeFolder, renameFolder) hold one batch of records (10000,
// or more when one folder has more children) and a queue of the folders still
// to be expanded, kept as identifiers and path prefixes. Past a bound (the
// setting nWzScanDBWalkQueueKB of section ~FileSystemAgent, default 1 MiB)
// the queue goes on in an anonymous temporary file in the database directory,
// or in $TMPDIR when that directory refuses; the file goes with the walk.
// A walk that comes back to its start through a cycle of parent links ends
// with errno 40 instead of going round for ever.
//
// Note: initialize("dir") with a string literal picks the engine-level
// initialize(const char*); pass a std::string to create or open a database.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "WzScanDB/WzScanDBExport.h"
#include "WzScanDB/WzScanDBPerformanceCounter.h"
#include "WzScanDB/records/WzScanDBRecordBase.h"
#include "runtime/CKoError.h"
#include "runtime/FXCriticalSection.h"
#include "runtime/SPEnabled.h"
#include "runtime/WzThread.h"
#include "table/TCtreeTable.h"

class WzScanDB;
typedef boost::shared_ptr<WzScanDB> WzScanDBPtr;

namespace WzScanDBInternal {
class RecordIdentity;
class SpillingFifo;
}  // namespace WzScanDBInternal

class WZSCANDB_API WzScanDB : public TCtreeTable, public SPEnabled {
 public:
  WzScanDB();
  explicit WzScanDB(WzScanDBRecordBasePtr prototype);
  virtual ~WzScanDB();

  // ---- life cycle --------------------------------------------------------
  CKoError initialize(const std::string& directory);
  int initialize(const char* name) override;
  // Opens the existing database in `directory` for reading only: registers
  // the schema as initialize does, opens the files with kAccessReadOnly and
  // starts the statistics thread. Lookups and reads work as after initialize;
  // every write answers the engine's TBL_READ_ONLY. Never creates, rebuilds
  // or changes a file. Engine refusals (missing files, TBL_IN_USE, another
  // schema) come back as ErrorInt with the engine status. Close with close().
  CKoError openReadOnly(const std::string& directory);
  CKoError close();
  bool initializeCheck();
  int registerTable() override;
  const char* getTableType() override;
  bool createHugeFile() override;

  // ---- keys and lookup ---------------------------------------------------
  CKoError prepareIndexKey(SPrepareIndexKeyStructure key, char* buffer, int bufferLength);
  CKoError checkDBRecord(WzScanDBRecordBasePtr in, WzScanDBRecordBasePtr out, int index,
                         bool exact, bool& found);
  CKoError checkDBRecord(WzScanDBRecordBasePtr in, WzScanDBRecordBasePtr out, bool& found);

  // ---- record store --------------------------------------------------------
  CKoError addDBRecord(WzScanDBRecordBasePtr record);
  CKoError updateDBRecord(WzScanDBRecordBasePtr record);
  CKoError deleteDBRecord(WzScanDBRecordBasePtr record);
  CKoError addRecordWithoutCheck(WzScanDBRecordBasePtr record);
  void setRefTime(unsigned long long time);
  unsigned long long getRefTime();
  WzScanDBRecordBasePtr getRoot();

  // ---- database files and index maintenance ----------------------------------
  static CKoError remove(const std::string& directory);
  static CKoError move(const std::string& from, const std::string& to);
  static CKoError copy(const std::string& from, const std::string& to);
  CKoError suspendIndex();
  CKoError rebuildIndex();

  // ---- children and sub-trees ------------------------------------------------
  CKoError getChildren(WzScanDBRecordBasePtr folder,
                       std::vector<WzScanDBRecordBasePtr>& children);
  CKoError getSubTree(WzScanDBRecordBasePtr start, std::vector<WzScanDBRecordBasePtr>& records,
                      bool validate);
  CKoError getSubTree(WzScanDBRecordBasePtr start, std::vector<WzScanDBRecordBasePtr>& records,
                      std::vector<std::string>& paths, bool validate);
  CKoError getSubTree(WzScanDBRecordBasePtr start, std::vector<WzScanDBRecordBasePtr>& records,
                      bool validate, int maxItems, bool continueRetrieval);
  CKoError getSubTree(WzScanDBRecordBasePtr start, std::vector<WzScanDBRecordBasePtr>& records,
                      std::vector<std::string>& paths, bool validate, int maxItems,
                      bool continueRetrieval);
  CKoError getSubTree(WzScanDBRecordBasePtr start, std::vector<WzScanDBRecordBasePtr>& records,
                      std::vector<std::string>& paths, int maxItems, bool continueRetrieval);
  CKoError getSubTree(WzScanDBRecordBasePtr start, std::vector<WzScanDBRecordBasePtr>& records,
                      int maxItems, bool continueRetrieval);

  // ---- buffered iteration -------------------------------------------------
  CKoError getFirstItem(WzScanDBRecordBasePtr start, WzScanDBRecordBasePtr& item,
                        std::string& path);
  CKoError getNextItem(WzScanDBRecordBasePtr& item, std::string& path);

  // ---- paths and updated records -------------------------------------------
  CKoError getPathFromRecord(WzScanDBRecordBasePtr record, std::string& path);
  CKoError getUpdatedRecords(std::vector<WzScanDBRecordBasePtr>* records,
                             unsigned long long refTime);
  CKoError outputDBAsDirChange(std::string destination);

  // ---- files and folders -----------------------------------------------------
  CKoError addFile(WzScanDBRecordBasePtr record);
  CKoError addFolder(WzScanDBRecordBasePtr record);
  CKoError removeFile(WzScanDBRecordBasePtr record);
  CKoError removeFolder(WzScanDBRecordBasePtr record);

  // ---- renames -----------------------------------------------------------
  CKoError renameByKey(WzScanDBRecordBasePtr oldRecord, WzScanDBRecordBasePtr newRecord);
  CKoError renameFile(WzScanDBRecordBasePtr oldRecord, WzScanDBRecordBasePtr newRecord);
  CKoError renameFolder(WzScanDBRecordBasePtr oldRecord, WzScanDBRecordBasePtr newRecord,
                        std::string oldPath, std::string newPath);

  // ---- validation and statistics ---------------------------------------------
  CKoError validateTree(bool& consistent);
  CKoError printStats();

  // The root record shared by every database object of the process.
  static WzScanDBRecordBasePtr sptrDbRoot;

 private:
  // What both public constructors do; `described`: a prototype was passed.
  WzScanDB(WzScanDBRecordBasePtr prototype, bool described);

  bool initialized;
  bool recordInitialized;
  WzScanDBRecordBasePtr recordPrototype;
  unsigned long long refTime;
  std::vector<WzScanDBRecordBasePtr> itemRecords;
  std::vector<std::string> itemPaths;
  // Work queues of the batched sub-tree walk, first in first out: the
  // identifiers of the folders still to be expanded, and the path prefixes
  // of their children. They hold a bounded amount of memory and keep the
  // rest in a temporary file beside the table (WzScanDBSubTree.cpp).
  std::unique_ptr<WzScanDBInternal::SpillingFifo> pendingRecords;
  std::unique_ptr<WzScanDBInternal::SpillingFifo> pendingPaths;
  uint32_t itemCursor;
  // Records of a used-up item batch that nothing else holds: getChildren
  // reads the next batch into them instead of allocating new records.
  std::vector<WzScanDBRecordBasePtr> spareRecords;
  FXCriticalSection dbLock;
  boost::shared_ptr<WzScanDBPerformanceCounter> performanceCounter;
  boost::shared_ptr<WzThread> statisticsThread;

  // Key bytes shared by the children of one folder on `index`
  // (WzScanDBChildren.cpp), worked out once per index from the prototype.
  int childKeyPrefix(int index);
  int prefixIndex = -1;
  int prefixLength = 0;

  // ---- sub-tree walk internals (WzScanDBSubTree.cpp) ------------------------
  // The batched walk's start record as stored: the first folder it expands
  // and the record whose return would close a cycle of parent links.
  WzScanDBRecordBasePtr pendingStart;
  // Memory of one walk's pending queues together, and where they spill.
  size_t walkQueueMemory;
  std::string walkDirectory;
  // Reads the walks' memory setting and takes the table's directory.
  void configureWalks(const std::string& directory);
  // Where the record type keeps its own identifier (made on first use).
  const WzScanDBInternal::RecordIdentity& recordIdentity();
  std::unique_ptr<WzScanDBInternal::RecordIdentity> identityLayout;

  // SubTreeWalk describes one getSubTree overload: its signature text, its
  // message texts and source lines, and whether it batches and marks records.
  // walkSubTree is the breadth-first walk that all six overloads share.
  struct SubTreeWalk;
  CKoError walkSubTree(const SubTreeWalk& walk, WzScanDBRecordBasePtr start,
                       std::vector<WzScanDBRecordBasePtr>& records,
                       std::vector<std::string>* paths, bool validate, int maxItems,
                       bool continueRetrieval);
};
