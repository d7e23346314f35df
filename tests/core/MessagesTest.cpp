// Every log line and error of the database core, table-driven: each row runs
// one scenario on a fresh database directory and names the line or error it
// must produce, with its exact text, level or kind and code, and location.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CoreTestSupport.h"
#include "runtime/CTimeCounter.h"

namespace coretest {
namespace {

enum Fault {
  kBadField,       // field 0 registered with an unknown type
  kBadIndex,       // index 0 registered with an unknown key type
  kBadSegment,     // segment 0 taken from a field that does not exist
  kBadKeyLength,   // index 0 announces 17 key bytes for a 16-byte segment
  kBadKeySegment,  // the key request names a segment the index lacks
  kBadFinish,      // the key request names an index the table lacks
  kShortRequest,   // the key request announces a segment it does not carry
  kEqualOnce,      // checkEqualOnIndex is true only on its first call
  kNeverEqual,     // checkEqualOnIndex is always false
};

// A generic record that breaks one thing on request. Clones keep the fault
// and share the call counter.
class FaultyRecord : public WzScanDBRecord {
 public:
  FaultyRecord(const std::string& path, Fault fault)
      : WzScanDBRecord(path, false, 0), fault_(fault), calls_(std::make_shared<int>(0)) {}
  SFields getFieldInformation(int i) override {
    SFields field = WzScanDBRecord::getFieldInformation(i);
    if (fault_ == kBadField && i == 0) field.type = 1;
    return field;
  }
  SIndices getIndexInformation(int i) override {
    SIndices index = WzScanDBRecord::getIndexInformation(i);
    if (fault_ == kBadIndex && i == 0) index.keyType = static_cast<TKeyType>(5);
    if (fault_ == kBadKeyLength && i == 0) index.keyLength = 17;
    return index;
  }
  SSegments getSegmentInformation(int i) override {
    SSegments segment = WzScanDBRecord::getSegmentInformation(i);
    if (fault_ == kBadSegment && i == 0) segment.fieldNumber = 40;
    return segment;
  }
  SPrepareIndexKeyStructure prepareIndexKey(int index) override {
    SPrepareIndexKeyStructure key = WzScanDBRecord::prepareIndexKey(index);
    if (fault_ == kBadKeySegment) key.segmentNumbers[0] = 9;
    if (fault_ == kBadFinish) key.indexNumber = 7, key.numSegments = 0;
    if (fault_ == kShortRequest) ++key.numSegments;
    return key;
  }
  bool checkEqualOnIndex(WzScanDBRecordBasePtr other, int index) override {
    ++*calls_;
    if (fault_ == kNeverEqual || (fault_ == kEqualOnce && *calls_ > 1)) return false;
    return WzScanDBRecord::checkEqualOnIndex(other, index);
  }
  WzScanDBRecordBasePtr Clone() override { return boost::make_shared<FaultyRecord>(*this); }

 private:
  Fault fault_;
  std::shared_ptr<int> calls_;
};

const char kCtor[] = "WzScanDB::WzScanDB(WzScanDBRecordBasePtr)";
const char kInit[] = "CKoError WzScanDB::initialize(const string&)";
const char kClose[] = "CKoError WzScanDB::close()";
const char kPrepare[] = "CKoError WzScanDB::prepareIndexKey(SPrepareIndexKeyStructure, char*, int)";
const char kCheck[] =
    "CKoError WzScanDB::checkDBRecord(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr, int, bool, bool&)";
const char kAdd[] = "CKoError WzScanDB::addDBRecord(WzScanDBRecordBasePtr)";
const char kUpdate[] = "CKoError WzScanDB::updateDBRecord(WzScanDBRecordBasePtr)";
const char kDelete[] = "CKoError WzScanDB::deleteDBRecord(WzScanDBRecordBasePtr)";
const char kAddNoCheck[] = "CKoError WzScanDB::addRecordWithoutCheck(WzScanDBRecordBasePtr)";
const char kRemove[] = "static CKoError WzScanDB::remove(const string&)";
const char kMove[] = "static CKoError WzScanDB::move(const string&, const string&)";
const char kCopy[] = "static CKoError WzScanDB::copy(const string&, const string&)";
const char kSuspend[] = "CKoError WzScanDB::suspendIndex()";
const char kRebuild[] = "CKoError WzScanDB::rebuildIndex()";
const char kCounterOne[] = "void WzScanDBPerformanceCounter::LogPerformanceCounter(int)";
const char kCounterAll[] = "void WzScanDBPerformanceCounter::LogAllPerformanceCounters()";
const char kThread[] = "void* PrintScanDBStatistics(void*)";
const EKoErrorKind kErrNo = EKoErrorKind::kErrNo, kInt = EKoErrorKind::kInt, kWin32 = EKoErrorKind::kWin32;

std::string Engine(int status) { return TCtreeTable::errToString(status); }
WzScanDBRecordBasePtr AB() { return Generic("/a/b"); }
WzScanDBRecordBasePtr Faulty(Fault fault) { return boost::make_shared<FaultyRecord>("/a/b", fault); }

// One scenario's world: a directory and a generic database in it.
struct Env {
  TempDir dir;
  WzScanDBPtr db = NewGenericDb();
  CKoError open() { return db->initialize(dir.path()); }
  WzScanDB& opened() { return open(), *db; }
  CKoError closed() { return open(), db->close(); }
  // Opened, /a/b stored, indexes suspended: every keyed lookup fails.
  WzScanDB& suspended() {
    opened().addRecordWithoutCheck(AB());
    db->suspendIndex();
    return *db;
  }
  CKoError reopenAs(WzScanDBRecordBasePtr prototype) {
    db->close();
    db = NewDb(prototype);
    return open();
  }
  CKoError openFaulty(Fault fault) { return reopenAs(boost::make_shared<FaultyRecord>("/proto", fault)); }
  CKoError twice(WzScanDBRecordBasePtr record) {
    opened().addDBRecord(record);
    return db->addDBRecord(record);
  }
  CKoError check(WzScanDBRecordBasePtr record) {
    bool found = false;
    return db->checkDBRecord(record, record ? record->Clone() : AB(), found);
  }
  std::string to() const {
    mkdir((dir / "to").c_str(), 0700);
    return dir / "to";
  }
  void touch(const std::string& name) const { ::close(::open((dir / name).c_str(), O_CREAT | O_WRONLY, 0600)); }
  // `text` with {dir} and {to} standing for this scenario's directories.
  std::string expand(std::string text) const {
    for (auto [key, value] : {std::pair<std::string, std::string>{"{dir}", dir.path()}, {"{to}", dir / "to"}})
      for (size_t at; (at = text.find(key)) != std::string::npos;) text.replace(at, key.size(), value);
    return text;
  }
};

struct Row {
  CKoError (*run)(Env&);
  bool isError;
  int levelOrCode;
  EKoErrorKind kind;
  const char* function;
  std::string text;
  bool topFrame;  // the error's last frame, pushed over the origin, carries the text
};
Row Log(CKoError (*run)(Env&), int level, const char* function, const std::string& text) {
  return Row{run, false, level, EKoErrorKind::kNone, function, text, false};
}
Row Err(CKoError (*run)(Env&), EKoErrorKind kind, int code, const char* function, const std::string& text,
        bool topFrame = false) {
  return Row{run, true, code, kind, function, text, topFrame};
}
// A scenario: runs `expression` on a fresh Env e and returns its error.
#define DO(...) [](Env & e) -> CKoError { return (void)e, __VA_ARGS__; }
// A line of creating and closing a database.
Row Line(int level, const char* function, const std::string& text) {
  return Log(DO(e.closed()), level, function, text);
}
CKoError Rebuild(Env& e) {
  e.opened().suspendIndex();
  return e.db->rebuildIndex();
}

std::vector<Row> Rows() {
  const std::string ab = AB()->toString(), root = Generic("/")->toString(), zero = CTimeCounter().AsString();
  return {
      // construction and initialize
      Log(DO(NewDb(nullptr), CKoError()), -1, kCtor, "The Record Structure is NULL"),
      Log(DO(NewDb(AB()), CKoError()), 4, kCtor, "Initialized the Record Structure while creating the Object"),
      Err(DO(e.db->initialize(std::string())), kErrNo, 22, kInit,
          "The Given Directory path to create/open WzScanDB is empty"),
      Err(DO(e.reopenAs(nullptr)), kErrNo, 22, kInit,
          "Cannot Initialize Database because the Record Structure is not initialized"),
      Line(0, kInit,
           "The Fields : 6 -- Indices : 2 -- Segments : 3 -- recordSize : 440 -- fixedRecordSize : 181\n|"
           "The CTree Database WzScanDB is  created with Huge File Support |"
           "Created a New WzScan Database at : {dir}/WzScanDB"),
      Line(4, kInit,
           "Internal Initalize Completed|"
           "Getting Field Information -- Name guid -- Offset : 0 -- Type : 128 -- Length : 16|"
           "Getting Field Information -- Name sname -- Offset : 181 -- Type : 146 -- Length : 255|"
           "Field Configuration Completed|"
           "Getting Index Information -- Name parent_guid_and_sname -- Key Information : Length : 72 - Type : 12 - "
           "Duplication : 1 - NullKey : 0 - Empchr : 0 - NumSeg : 2 - Segment Num : 1|"
           "Index Configuration Completed|"
           "Getting Segment Information : FieldNumber : 5  , Segment size : 56 , Case Sensitive : 1\n|"
           "Segment Configuration Completed|"
           "Initialize Complete Configuration Completed\n"),
      Err(DO(e.open(), e.open()), kInt, TBL_ALREADY_OPEN, kInit,
          "Failed to Initialize WzScanDB : " + Engine(TBL_ALREADY_OPEN)),
      Err(DO(e.openFaulty(kBadField)), kInt, TBL_BAD_SCHEMA, kInit,
          "Failed to Configure WzScanDB Fields : " + Engine(TBL_BAD_SCHEMA)),
      Err(DO(e.openFaulty(kBadIndex)), kInt, TBL_BAD_SCHEMA, kInit,
          "Failed to Configure WzScanDB Indices : " + Engine(TBL_BAD_SCHEMA)),
      Err(DO(e.openFaulty(kBadSegment)), kInt, TBL_BAD_SCHEMA, kInit,
          "Failed to Configure WzScanDB Segments : " + Engine(TBL_BAD_SCHEMA)),
      Err(DO(e.openFaulty(kBadKeyLength)), kInt, TBL_BAD_SCHEMA, kInit,
          "Failed to Complete Initialization of WzScanDB : " + Engine(TBL_BAD_SCHEMA)),
      Err(DO(e.open(), e.reopenAs(boost::make_shared<CBackupTimeRecord>(0, 0))), kInt, TBL_SCHEMA_MISMATCH, kInit,
          "Failed to Open an Existing WzScanDB : " + Engine(TBL_SCHEMA_MISMATCH)),
      Err(DO(e.touch("WzScanDB.idx"), e.open()), kInt, TBL_FILE_EXISTS, kInit,
          "Failed to Create WzScanDB : " + Engine(TBL_FILE_EXISTS)),
      Log(DO(e.open(), e.reopenAs(AB())), 0, kInit, "Opened an Existing WzScanDB Database at : {dir}/WzScanDB"),
      // close
      Line(0, kClose, "The WzScanDB is closed"),
      Log(DO(e.db->close()), 0, kClose, "The WzScanDB is not initialized for it to close"),
      // lookup
      Err(DO(e.check(AB())), kErrNo, 22, kCheck, "Initialize the Database to Proceed"),
      Err(DO(e.open(), e.check(Faulty(kBadKeySegment))), kInt, TBL_BAD_ARGUMENT, kPrepare,
          "fillKeySegment Failed : " + Engine(TBL_BAD_ARGUMENT)),
      Err(DO(e.open(), e.check(Faulty(kBadKeySegment))), kInt, TBL_BAD_ARGUMENT, kCheck, "Cannot prepare Key", true),
      Err(DO(e.open(), e.check(Faulty(kBadFinish))), kInt, TBL_BAD_ARGUMENT, kPrepare,
          "finishKey Failed : " + Engine(TBL_BAD_ARGUMENT)),
      Err(DO(e.open(), e.check(Faulty(kShortRequest))), kInt, TBL_BAD_ARGUMENT, kPrepare,
          "fillKeySegment Failed : " + Engine(TBL_BAD_ARGUMENT)),
      Err(DO(e.open(), e.check(nullptr)), kErrNo, 22, kCheck, "Input Record pointer is NULL"),
      Err(DO(e.opened().addDBRecord(nullptr)), kErrNo, 22, kAdd, "Input Record pointer is NULL"),
      Err(DO(e.opened().updateDBRecord(nullptr)), kErrNo, 22, kUpdate, "Input Record pointer is NULL"),
      Err(DO(e.opened().deleteDBRecord(nullptr)), kErrNo, 22, kDelete, "Input Record pointer is NULL"),
      Err(DO(e.suspended(), e.check(AB())), kInt, TBL_INDEX_SUSPENDED, kCheck,
          "getRecord() for index 0 Failed: " + Engine(TBL_INDEX_SUSPENDED)),
      // record store
      Err(DO(e.db->addDBRecord(AB())), kErrNo, 22, kAdd, "Initialize the Database to Proceed"),
      Err(DO(e.suspended().addDBRecord(AB())), kInt, TBL_INDEX_SUSPENDED, kAdd, "checkDBRecord(" + ab + ") Failed",
          true),
      Log(DO(e.twice(AB())), 7, kAdd,
          "The Record : " + ab + " is already present in the Database, so updating the record..."),
      Err(DO(e.twice(Faulty(kEqualOnce))), kErrNo, 22, kAdd, "updateDBRecord(" + ab + ") Failed", true),
      Log(DO(e.opened().addDBRecord(Generic("/"))), 7, kAdd, "Setting the root record as " + root),
      Err(DO(e.twice(Faulty(kNeverEqual))), kInt, TBL_DUPLICATE_KEY, kAdd,
          "addRecord(" + ab + ") Failed due to " + Engine(TBL_DUPLICATE_KEY)),
      Log(DO(e.opened().addDBRecord(AB())), 7, kAdd, "Inserted Record : " + ab + " Successfully"),
      Err(DO(e.db->updateDBRecord(AB())), kErrNo, 22, kUpdate, "Initialize the Database to Proceed"),
      Err(DO(e.opened().updateDBRecord(AB())), kErrNo, 22, kUpdate,
          "updateDBRecord(" + ab + ") Failed since the Record is not present in the database"),
      Err(DO(e.suspended().updateDBRecord(AB())), kInt, TBL_INDEX_SUSPENDED, kUpdate,
          "checkDBRecord(" + ab + ") Failed", true),
      Err(DO(e.db->deleteDBRecord(AB())), kErrNo, 22, kDelete, "Initialize the Database to Proceed"),
      Err(DO(e.suspended().deleteDBRecord(AB())), kInt, TBL_INDEX_SUSPENDED, kDelete,
          "CheckDBRecord(" + ab + ") Failed", true),
      Log(DO(e.opened().deleteDBRecord(AB())), 7, kDelete,
          "The record : " + ab + " is not present in the database to delete"),
      Log(DO(e.opened().addDBRecord(AB()), e.db->deleteDBRecord(AB())), 7, kDelete,
          "Deleted Record : " + ab + " Successfully"),
      Err(DO(e.opened().addRecordWithoutCheck(AB()), e.db->addRecordWithoutCheck(AB())), kInt, TBL_DUPLICATE_KEY,
          kAddNoCheck, "addRecord(" + ab + ") Failed due to " + Engine(TBL_DUPLICATE_KEY)),
      Err(DO(e.db->addRecordWithoutCheck(AB())), kInt, TBL_NOT_OPEN, kAddNoCheck,
          "addRecord(" + ab + ") Failed due to " + Engine(TBL_NOT_OPEN)),
      Log(DO(e.opened().addRecordWithoutCheck(AB())), 6, kAddNoCheck, "Record Added : " + ab),
      Log(DO(e.opened().addRecordWithoutCheck(Generic("/"))), 7, kAddNoCheck, "Setting the root record as " + root),
      Log(DO(e.db->setRefTime(~0ULL), CKoError()), 0, "void WzScanDB::setRefTime(long long unsigned int)",
          "The Reference Time for the Database is set to 18446744073709551615"),
      // database files
      Log(DO(e.closed(), WzScanDB::remove(e.dir.path())), 0, kRemove,
          "Removing WzScanDB in {dir} : completed successfully"),
      Err(DO(WzScanDB::remove(e.dir.path())), kErrNo, ENOENT, kRemove, "Couldn't remove WzScanDB.dat in {dir}", true),
      Err(DO(e.touch("WzScanDB.dat"), WzScanDB::remove(e.dir.path())), kErrNo, ENOENT, kRemove,
          "Couldn't remove WzScanDB.idx in {dir}", true),
      Log(DO(e.closed(), WzScanDB::move(e.dir.path(), e.to())), 0, kMove,
          "Moving WzScanDB from {dir} to {to} completed successfully"),
      Err(DO(WzScanDB::move(e.dir.path(), e.to())), kErrNo, ENOENT, kMove, "Couldn't move WzScanDB from {dir} to {to}",
          true),
      Log(DO(e.closed(), WzScanDB::copy(e.dir.path(), e.to())), 0, kCopy,
          "Copying WzScanDB from {dir} to {to} completed successfully"),
      Err(DO(WzScanDB::copy(e.dir.path(), e.to())), kErrNo, ENOENT, kCopy, "Couldn't copy WzScanDB from {dir} to {to}",
          true),
      Log(DO(e.opened().suspendIndex()), 0, kSuspend, "The Indexing for this WzScanDB is suspended"),
      Err(DO(e.db->suspendIndex()), kWin32, 774, kSuspend, "The Indexing Suspend operation failed."),
      Log(Rebuild, 0, kRebuild,
          "Indexing is resumed and going to be rebuilt. This is an expensive operation. Will take considerable "
          "amount of time."),
      Log(Rebuild, 2, kRebuild, "Entering CKoError WzScanDB::rebuildIndex()"),
      Log(Rebuild, 0, kRebuild, "The Index has been rebuilt."),
      Err(DO(e.db->rebuildIndex()), kWin32, 774, kRebuild, "Rebuild Index Failed due to " + Engine(TBL_NOT_OPEN)),
      // counters and the statistics thread
      Line(0, "WzScanDBPerformanceCounter::WzScanDBPerformanceCounter()",
           "The Logging Interval of the WzScanDBPerformanceCounters : 600 seconds"),
      Line(0, kCounterAll,
           "--------------------- WzScanDB Performance Counters -------------------------------|" + std::string(83, '-')),
      Line(0, kCounterOne, " ADD_RECORD : " + zero + " | CHECK_RECORD : " + zero + " | DELETE_RECORD : " + zero +
                               " | UPDATE_RECORD : " + zero + " | READ_RECORD : " + zero + " "),
      Line(0, kThread, "Started WzScanDB Performance Logging Thread|Stopped WzScanDB Performance Logging Thread"),
  };
}

class MessagesTest : public CoreTest {};

TEST_F(MessagesTest, EveryLineAndErrorHasItsTextLevelCodeAndLocation) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.text);
    capture->Clear();
    CKoError result;
    std::string text;
    {
      Env env;
      result = row.run(env);
      text = env.expand(row.text) + (row.isError ? "" : "|");
      env.db->close();
    }
    if (!row.isError) {  // the lines ('|' between them), in this order, at this level from this function
      size_t at = 0;
      for (const CLogEntry& entry : capture->Entries())
        if (at < text.size() && entry.level == row.levelOrCode && entry.function == row.function &&
            text.compare(at, entry.message.size() + 1, entry.message + "|") == 0)
          at += entry.message.size() + 1;
      EXPECT_EQ(text.substr(std::min(at, text.size())), "") << "level " << row.levelOrCode << " at " << row.function;
      continue;
    }
    ASSERT_TRUE(result.IsError()) << "expected \"" << text << "\"";
    EXPECT_EQ(result.GetKind(), row.kind);
    EXPECT_EQ(result.GetCode(), row.levelOrCode) << result.AsString();
    const CKoErrorFrame& frame = row.topFrame ? result.GetFrames().back() : result.GetFrames().front();
    EXPECT_EQ(frame.message, text) << result.AsString();
    EXPECT_STREQ(frame.location.function, row.function);
    EXPECT_STREQ(frame.location.file, "WzScanDB/WzScanDB");
    EXPECT_GT(frame.location.line, 0);
    for (const CLogEntry& entry : capture->Entries())  // errors are returned, never logged
      EXPECT_FALSE(entry.level < 0 && entry.function == row.function) << entry.message;
  }
}

}  // namespace
}  // namespace coretest
