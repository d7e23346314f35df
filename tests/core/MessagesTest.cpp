// Every log line and error of the database core, table-driven: each row runs
// one scenario on a fresh database directory and names the line or error it
// must produce, with its exact text, level or code, and location.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "CoreTestSupport.h"
#include "runtime/CTimeCounter.h"

namespace coretest {
namespace {

const char kCtor[] = "WzScanDB::WzScanDB(WzScanDBRecordBasePtr)";
const char kInit[] = "CKoError WzScanDB::initialize(const string&)";
const char kClose[] = "CKoError WzScanDB::close()";
const char kPrepare[] = "CKoError WzScanDB::prepareIndexKey(SPrepareIndexKeyStructure, char*, int)";
const char kCheck[] =
    "CKoError WzScanDB::checkDBRecord(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr, int, bool, "
    "bool&)";
const char kAdd[] = "CKoError WzScanDB::addDBRecord(WzScanDBRecordBasePtr)";
const char kUpdate[] = "CKoError WzScanDB::updateDBRecord(WzScanDBRecordBasePtr)";
const char kDelete[] = "CKoError WzScanDB::deleteDBRecord(WzScanDBRecordBasePtr)";
const char kAddNoCheck[] = "CKoError WzScanDB::addRecordWithoutCheck(WzScanDBRecordBasePtr)";
const char kSetRefTime[] = "void WzScanDB::setRefTime(long long unsigned int)";
const char kRemove[] = "static CKoError WzScanDB::remove(const string&)";
const char kMove[] = "static CKoError WzScanDB::move(const string&, const string&)";
const char kCopy[] = "static CKoError WzScanDB::copy(const string&, const string&)";
const char kSuspend[] = "CKoError WzScanDB::suspendIndex()";
const char kRebuild[] = "CKoError WzScanDB::rebuildIndex()";
const char kCounterCtor[] = "WzScanDBPerformanceCounter::WzScanDBPerformanceCounter()";
const char kCounterOne[] = "void WzScanDBPerformanceCounter::LogPerformanceCounter(int)";
const char kCounterAll[] = "void WzScanDBPerformanceCounter::LogAllPerformanceCounters()";
const char kThread[] = "void* PrintScanDBStatistics(void*)";

std::string Engine(int status) { return TCtreeTable::errToString(status); }
std::string Text(const WzScanDBRecordBasePtr& record) { return record->toString(); }

// One scenario's world: a directory and a generic database in it.
struct Env {
  TempDir dir;
  std::string sub(const std::string& name) const {
    std::string path = dir / name;
    mkdir(path.c_str(), 0700);
    return path;
  }
  WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
  CKoError open() { return Open(*db, dir.path()); }
  CKoError reopenAs(WzScanDBRecordBasePtr prototype) {
    db->close();
    db = NewDb(prototype);
    return open();
  }
  void touch(const std::string& name) const {
    int fd = ::open((dir / name).c_str(), O_CREAT | O_WRONLY, 0600);
    ::close(fd);
  }
};

enum class What { kLog, kError };
enum Frame { kOrigin = 0, kTop = -1 };

struct Row {
  const char* name;
  std::function<CKoError(Env&)> run;
  What what;
  int levelOrCode;
  EKoErrorKind kind;  // errors only
  const char* function;
  std::function<std::string(Env&)> message;
  Frame frame;
};

Row Log(const char* name, std::function<CKoError(Env&)> run, int level, const char* function,
        std::function<std::string(Env&)> message) {
  return Row{name, run, What::kLog, level, EKoErrorKind::kNone, function, message, kOrigin};
}
Row Err(const char* name, std::function<CKoError(Env&)> run, EKoErrorKind kind, int code,
        const char* function, std::function<std::string(Env&)> message, Frame frame = kOrigin) {
  return Row{name, run, What::kError, code, kind, function, message, frame};
}
std::function<std::string(Env&)> Is(const std::string& text) {
  return [text](Env&) { return text; };
}

const EKoErrorKind kErrNo = EKoErrorKind::kErrNo;
const EKoErrorKind kInt = EKoErrorKind::kInt;
const EKoErrorKind kWin32 = EKoErrorKind::kWin32;

CKoError OpenOnly(Env& e) { return e.open(); }
CKoError OpenClose(Env& e) {
  e.open();
  return e.db->close();
}
CKoError OpenWithFault(Env& e, FaultyRecord::Fault fault) {
  return e.reopenAs(boost::make_shared<FaultyRecord>("/proto", fault));
}
CKoError Suspended(Env& e, std::function<CKoError(WzScanDB&)> op) {
  e.open();
  e.db->addRecordWithoutCheck(Generic("/a/b"));
  e.db->suspendIndex();
  return op(*e.db);
}
CKoError Check(WzScanDB& db, WzScanDBRecordBasePtr record) {
  bool found = false;
  return db.checkDBRecord(record, record->Clone(), found);
}

std::vector<Row> Rows() {
  const std::string ab = Text(Generic("/a/b"));
  const std::string root = Text(Generic("/"));
  const std::string zeroCounter = CTimeCounter().AsString();
  std::vector<Row> rows = {
      // ---- construction -----------------------------------------------------
      Log("null prototype", [](Env&) { NewDb(nullptr); return CKoError(); }, -1, kCtor,
          Is("The Record Structure is NULL")),
      Log("prototype", [](Env&) { NewDb(Generic("/p")); return CKoError(); }, 4, kCtor,
          Is("Initialized the Record Structure while creating the Object")),
      // ---- initialize ---------------------------------------------------------
      Err("empty directory", [](Env& e) { return e.db->initialize(std::string()); }, kErrNo, 22,
          kInit, Is("The Given Directory path to create/open WzScanDB is empty")),
      Err("no record structure", [](Env& e) { return e.reopenAs(nullptr); }, kErrNo, 22, kInit,
          Is("Cannot Initialize Database because the Record Structure is not initialized")),
      Log("shape", OpenOnly, 0, kInit,
          Is("The Fields : 6 -- Indices : 2 -- Segments : 3 -- recordSize : 440 -- "
             "fixedRecordSize : 181\n")),
      Err("second initialize", [](Env& e) { e.open(); return e.open(); }, kInt,
          TBL_ALREADY_OPEN, kInit,
          Is("Failed to Initialize WzScanDB : " + Engine(TBL_ALREADY_OPEN))),
      Log("internal initialize", OpenOnly, 4, kInit, Is("Internal Initalize Completed")),
      Log("field", OpenOnly, 4, kInit,
          Is("Getting Field Information -- Name sname -- Offset : 181 -- Type : 146 -- "
             "Length : 255")),
      Err("bad field", [](Env& e) { return OpenWithFault(e, FaultyRecord::kBadField); }, kInt,
          TBL_BAD_SCHEMA, kInit,
          Is("Failed to Configure WzScanDB Fields : " + Engine(TBL_BAD_SCHEMA))),
      Log("fields done", OpenOnly, 4, kInit, Is("Field Configuration Completed")),
      Log("index", OpenOnly, 4, kInit,
          Is("Getting Index Information -- Name parent_guid_and_sname -- Key Information : "
             "Length : 72 - Type : 12 - Duplication : 1 - NullKey : 0 - Empchr : 0 - NumSeg : 2 "
             "- Segment Num : 1")),
      Err("bad index", [](Env& e) { return OpenWithFault(e, FaultyRecord::kBadIndex); }, kInt,
          TBL_BAD_SCHEMA, kInit,
          Is("Failed to Configure WzScanDB Indices : " + Engine(TBL_BAD_SCHEMA))),
      Log("indices done", OpenOnly, 4, kInit, Is("Index Configuration Completed")),
      Log("segment", OpenOnly, 4, kInit,
          Is("Getting Segment Information : FieldNumber : 5  , Segment size : 56 , Case "
             "Sensitive : 1\n")),
      Err("bad segment", [](Env& e) { return OpenWithFault(e, FaultyRecord::kBadSegment); },
          kInt, TBL_BAD_SCHEMA, kInit,
          Is("Failed to Configure WzScanDB Segments : " + Engine(TBL_BAD_SCHEMA))),
      Log("segments done", OpenOnly, 4, kInit, Is("Segment Configuration Completed")),
      Err("incomplete schema",
          [](Env& e) { return OpenWithFault(e, FaultyRecord::kBadKeyLength); }, kInt,
          TBL_BAD_SCHEMA, kInit,
          Is("Failed to Complete Initialization of WzScanDB : " + Engine(TBL_BAD_SCHEMA))),
      Log("complete", OpenOnly, 4, kInit, Is("Initialize Complete Configuration Completed\n")),
      Log("huge file", OpenOnly, 0, kInit,
          Is("The CTree Database WzScanDB is  created with Huge File Support ")),
      Err("other type's files", [](Env& e) { e.open(); return e.reopenAs(BackupTime(0, 0)); },
          kInt, TBL_SCHEMA_MISMATCH, kInit,
          Is("Failed to Open an Existing WzScanDB : " + Engine(TBL_SCHEMA_MISMATCH))),
      Err("index file without data file", [](Env& e) { e.touch("WzScanDB.idx"); return e.open(); },
          kInt, TBL_FILE_EXISTS, kInit,
          Is("Failed to Create WzScanDB : " + Engine(TBL_FILE_EXISTS))),
      Log("created", OpenOnly, 0, kInit,
          [](Env& e) { return "Created a New WzScan Database at : " + e.dir.path() + "/WzScanDB"; }),
      Log("opened", [](Env& e) { e.open(); return e.reopenAs(Generic("/p")); }, 0, kInit,
          [](Env& e) { return "Opened an Existing WzScanDB Database at : " + e.dir.path() +
                              "/WzScanDB"; }),
      // ---- close --------------------------------------------------------------
      Log("closed", OpenClose, 0, kClose, Is("The WzScanDB is closed")),
      Log("close unopened", [](Env& e) { return e.db->close(); }, 0, kClose,
          Is("The WzScanDB is not initialized for it to close")),
      // ---- lookup -------------------------------------------------------------
      Err("check before initialize", [](Env& e) { return Check(*e.db, Generic("/a/b")); },
          kErrNo, 22, kCheck, Is("Initialize the Database to Proceed")),
      Err("check null output",
          [](Env& e) {
            e.open();
            bool found = false;
            return e.db->checkDBRecord(Generic("/a/b"), nullptr, found);
          },
          kErrNo, 22, kCheck, Is("Output Record pointer is NULL")),
      Err("bad key segment",
          [](Env& e) {
            e.open();
            return Check(*e.db, boost::make_shared<FaultyRecord>("/a/b", FaultyRecord::kBadKeySegment));
          },
          kInt, TBL_BAD_ARGUMENT, kPrepare, Is("fillKeySegment Failed : " + Engine(TBL_BAD_ARGUMENT))),
      Err("bad key segment, pushed",
          [](Env& e) {
            e.open();
            return Check(*e.db, boost::make_shared<FaultyRecord>("/a/b", FaultyRecord::kBadKeySegment));
          },
          kInt, TBL_BAD_ARGUMENT, kCheck, Is("Cannot prepare Key"), kTop),
      Err("bad key finish",
          [](Env& e) {
            e.open();
            return Check(*e.db, boost::make_shared<FaultyRecord>("/a/b", FaultyRecord::kBadFinish));
          },
          kInt, TBL_BAD_ARGUMENT, kPrepare, Is("finishKey Failed : " + Engine(TBL_BAD_ARGUMENT))),
      Err("read failure",
          [](Env& e) { return Suspended(e, [](WzScanDB& db) { return Check(db, Generic("/a/b")); }); },
          kInt, TBL_INDEX_SUSPENDED, kCheck,
          Is("getRecord() for index 0 Failed: " + Engine(TBL_INDEX_SUSPENDED))),
      // ---- record store -----------------------------------------------------
      Err("add before initialize", [](Env& e) { return e.db->addDBRecord(Generic("/a/b")); },
          kErrNo, 22, kAdd, Is("Initialize the Database to Proceed")),
      Err("add, lookup fails",
          [](Env& e) { return Suspended(e, [](WzScanDB& db) { return db.addDBRecord(Generic("/a/b")); }); },
          kInt, TBL_INDEX_SUSPENDED, kAdd, Is("checkDBRecord(" + ab + ") Failed"), kTop),
      Log("add existing",
          [](Env& e) {
            e.open();
            e.db->addDBRecord(Generic("/a/b"));
            return e.db->addDBRecord(Generic("/a/b"));
          },
          7, kAdd,
          Is("The Record : " + ab +
             " is already present in the Database, so updating the record...")),
      Err("add existing, update fails",
          [](Env& e) {
            e.open();
            auto record = boost::make_shared<FaultyRecord>("/a/b", FaultyRecord::kEqualOnce);
            e.db->addDBRecord(record);
            return e.db->addDBRecord(record);
          },
          kErrNo, 22, kAdd, Is("updateDBRecord(" + ab + ") Failed"), kTop),
      Log("add root", [](Env& e) { e.open(); return e.db->addDBRecord(Generic("/")); }, 7, kAdd,
          Is("Setting the root record as " + root)),
      Err("add, engine refuses",
          [](Env& e) {
            e.open();
            auto record = boost::make_shared<FaultyRecord>("/a/b", FaultyRecord::kNeverEqual);
            e.db->addDBRecord(record);
            return e.db->addDBRecord(record);
          },
          kInt, TBL_DUPLICATE_KEY, kAdd,
          Is("addRecord(" + ab + ") Failed due to " + Engine(TBL_DUPLICATE_KEY))),
      Log("inserted", [](Env& e) { e.open(); return e.db->addDBRecord(Generic("/a/b")); }, 7,
          kAdd, Is("Inserted Record : " + ab + " Successfully")),
      Err("update before initialize", [](Env& e) { return e.db->updateDBRecord(Generic("/a/b")); },
          kErrNo, 22, kUpdate, Is("Initialize the Database to Proceed")),
      Err("update absent", [](Env& e) { e.open(); return e.db->updateDBRecord(Generic("/a/b")); },
          kErrNo, 22, kUpdate,
          Is("updateDBRecord(" + ab + ") Failed since the Record is not present in the database")),
      Err("update, lookup fails",
          [](Env& e) { return Suspended(e, [](WzScanDB& db) { return db.updateDBRecord(Generic("/a/b")); }); },
          kInt, TBL_INDEX_SUSPENDED, kUpdate, Is("checkDBRecord(" + ab + ") Failed"), kTop),
      Err("delete before initialize", [](Env& e) { return e.db->deleteDBRecord(Generic("/a/b")); },
          kErrNo, 22, kDelete, Is("Initialize the Database to Proceed")),
      Err("delete, lookup fails",
          [](Env& e) { return Suspended(e, [](WzScanDB& db) { return db.deleteDBRecord(Generic("/a/b")); }); },
          kInt, TBL_INDEX_SUSPENDED, kDelete, Is("CheckDBRecord(" + ab + ") Failed"), kTop),
      Log("delete absent", [](Env& e) { e.open(); return e.db->deleteDBRecord(Generic("/a/b")); },
          7, kDelete, Is("The record : " + ab + " is not present in the database to delete")),
      Log("deleted",
          [](Env& e) {
            e.open();
            e.db->addDBRecord(Generic("/a/b"));
            return e.db->deleteDBRecord(Generic("/a/b"));
          },
          7, kDelete, Is("Deleted Record : " + ab + " Successfully")),
      Err("add without check, null", [](Env& e) { return e.db->addRecordWithoutCheck(nullptr); },
          kErrNo, 22, kAddNoCheck, Is("The given record to add is NULL")),
      Err("add without check, duplicate",
          [](Env& e) {
            e.open();
            e.db->addRecordWithoutCheck(Generic("/a/b"));
            return e.db->addRecordWithoutCheck(Generic("/a/b"));
          },
          kInt, TBL_DUPLICATE_KEY, kAddNoCheck,
          Is("addRecord(" + ab + ") Failed due to " + Engine(TBL_DUPLICATE_KEY))),
      Log("added without check",
          [](Env& e) { e.open(); return e.db->addRecordWithoutCheck(Generic("/a/b")); }, 6,
          kAddNoCheck, Is("Record Added : " + ab)),
      Log("root added without check",
          [](Env& e) { e.open(); return e.db->addRecordWithoutCheck(Generic("/")); }, 7,
          kAddNoCheck, Is("Setting the root record as " + root)),
      Log("reference time", [](Env& e) { e.db->setRefTime(~0ULL); return CKoError(); }, 0,
          kSetRefTime, Is("The Reference Time for the Database is set to 18446744073709551615")),
      // ---- database files -------------------------------------------------------
      Log("removed", [](Env& e) { OpenClose(e); return WzScanDB::remove(e.dir.path()); }, 0,
          kRemove, [](Env& e) { return "Removing WzScanDB in " + e.dir.path() + " : completed successfully"; }),
      Err("remove, no data file", [](Env& e) { return WzScanDB::remove(e.dir.path()); }, kErrNo,
          ENOENT, kRemove, [](Env& e) { return "Couldn't remove WzScanDB.dat in " + e.dir.path(); },
          kTop),
      Err("remove, no index file",
          [](Env& e) { e.touch("WzScanDB.dat"); return WzScanDB::remove(e.dir.path()); }, kErrNo,
          ENOENT, kRemove, [](Env& e) { return "Couldn't remove WzScanDB.idx in " + e.dir.path(); },
          kTop),
      Log("moved", [](Env& e) { OpenClose(e); return WzScanDB::move(e.dir.path(), e.sub("to")); },
          0, kMove, [](Env& e) {
            return "Moving WzScanDB from " + e.dir.path() + " to " + e.dir / "to" + " completed successfully";
          }),
      Err("move fails", [](Env& e) { return WzScanDB::move(e.dir.path(), e.sub("to")); }, kErrNo,
          ENOENT, kMove,
          [](Env& e) { return "Couldn't move WzScanDB from " + e.dir.path() + " to " + e.dir / "to"; },
          kTop),
      Log("copied", [](Env& e) { OpenClose(e); return WzScanDB::copy(e.dir.path(), e.sub("to")); },
          0, kCopy, [](Env& e) {
            return "Copying WzScanDB from " + e.dir.path() + " to " + e.dir / "to" + " completed successfully";
          }),
      Err("copy fails", [](Env& e) { return WzScanDB::copy(e.dir.path(), e.sub("to")); }, kErrNo,
          ENOENT, kCopy,
          [](Env& e) { return "Couldn't copy WzScanDB from " + e.dir.path() + " to " + e.dir / "to"; },
          kTop),
      Log("suspended", [](Env& e) { e.open(); return e.db->suspendIndex(); }, 0, kSuspend,
          Is("The Indexing for this WzScanDB is suspended")),
      Err("suspend fails", [](Env& e) { return e.db->suspendIndex(); }, kWin32, 774, kSuspend,
          Is("The Indexing Suspend operation failed.")),
      Log("rebuilding", [](Env& e) { e.open(); e.db->suspendIndex(); return e.db->rebuildIndex(); },
          0, kRebuild,
          Is("Indexing is resumed and going to be rebuilt. This is an expensive operation. Will "
             "take considerable amount of time.")),
      Log("rebuilt", [](Env& e) { e.open(); e.db->suspendIndex(); return e.db->rebuildIndex(); },
          0, kRebuild, Is("The Index has been rebuilt.")),
      Err("rebuild fails", [](Env& e) { return e.db->rebuildIndex(); }, kWin32, 774, kRebuild,
          Is("Rebuild Index Failed due to " + Engine(TBL_NOT_OPEN))),
      // ---- counters and the statistics thread ----------------------------------
      Log("interval", OpenClose, 0, kCounterCtor,
          Is("The Logging Interval of the WzScanDBPerformanceCounters : 600 seconds")),
      Log("block head", OpenClose, 0, kCounterAll,
          Is("--------------------- WzScanDB Performance Counters -------------------------------")),
      Log("block foot", OpenClose, 0, kCounterAll,
          Is("-----------------------------------------------------------------------------------")),
      Log("add counter", OpenClose, 0, kCounterOne, Is(" ADD_RECORD : " + zeroCounter + " ")),
      Log("check counter", OpenClose, 0, kCounterOne, Is(" CHECK_RECORD : " + zeroCounter + " ")),
      Log("delete counter", OpenClose, 0, kCounterOne, Is(" DELETE_RECORD : " + zeroCounter + " ")),
      Log("update counter", OpenClose, 0, kCounterOne, Is(" UPDATE_RECORD : " + zeroCounter + " ")),
      Log("read counter", OpenClose, 0, kCounterOne, Is(" READ_RECORD : " + zeroCounter + " ")),
      Log("thread start", OpenClose, 0, kThread, Is("Started WzScanDB Performance Logging Thread")),
      Log("thread stop", OpenClose, 0, kThread, Is("Stopped WzScanDB Performance Logging Thread")),
  };
  return rows;
}

class MessagesTest : public CoreTest {};

TEST_F(MessagesTest, EveryLineAndErrorHasItsTextLevelCodeAndLocation) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.name);
    capture->Clear();
    CKoError result;
    std::string expected;
    {
      Env env;
      result = row.run(env);
      expected = row.message(env);
      env.db->close();
    }
    if (row.what == What::kLog) {
      bool seen = false;
      for (const CLogEntry& entry : capture->Find(expected)) {
        if (entry.level == row.levelOrCode && entry.function == row.function) {
          EXPECT_GT(entry.line, 0);
          seen = true;
        }
      }
      EXPECT_TRUE(seen) << "no level " << row.levelOrCode << " line \"" << expected << "\" at "
                        << row.function;
      continue;
    }
    ASSERT_TRUE(result.IsError()) << "expected \"" << expected << "\"";
    EXPECT_EQ(result.GetKind(), row.kind);
    EXPECT_EQ(result.GetCode(), row.levelOrCode) << result.AsString();
    const CKoErrorFrame& frame =
        row.frame == kTop ? result.GetFrames().back() : result.GetFrames().front();
    EXPECT_EQ(frame.message, expected) << result.AsString();
    EXPECT_STREQ(frame.location.function, row.function);
    EXPECT_STREQ(frame.location.file, kSource);
    EXPECT_GT(frame.location.line, 0);
  }
}

// Errors are returned, never logged: a failing call writes no error line.
TEST_F(MessagesTest, FailuresAreReturnedNotLogged) {
  Env env;
  EXPECT_TRUE(env.db->initialize(std::string()).IsError());
  EXPECT_TRUE(Check(*env.db, Generic("/a")).IsError());
  EXPECT_TRUE(WzScanDB::remove(env.dir.path()).IsError());
  for (const CLogEntry& entry : capture->Entries()) EXPECT_GE(entry.level, 0) << entry.message;
}

}  // namespace
}  // namespace coretest
