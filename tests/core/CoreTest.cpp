// The scan database core. Every log line and error, table-driven: each row
// runs one scenario on a fresh database directory and names the lines or the
// error it must produce, with their exact text, level or kind and code, and
// location. Then lookups on either index, the process-wide root, the counters
// and their statistics thread. (The create and open failures of damaged or
// planted files are in tests/hostile; adds, updates, deletes and lookups of
// many threads at once, checked byte for byte against a model, in
// tests/concurrency; the file commands in tests/tool.)
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <thread>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "runtime/CAutoTimeCounter.h"
#include "support/LogAt.h"
#include "support/TempDir.h"

namespace {

WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir = false, unsigned long long refTime = 0) {
  return boost::make_shared<WzScanDBRecord>(path, isDir, refTime);
}
WzScanDBPtr NewDb(WzScanDBRecordBasePtr prototype) { return WzScanDBPtr(new WzScanDB(prototype)); }
WzScanDBPtr NewGenericDb() { return NewDb(boost::make_shared<WzScanDBRecord>()); }

// Faults a record can be asked to have: field 0 registered with an unknown
// type; index 0 with an unknown key type; segment 0 taken from a field that
// does not exist; index 0 announcing 17 key bytes for a 16-byte segment; key
// requests naming a segment the index lacks, an index the table lacks, or
// announcing a segment they do not carry; checkEqualOnIndex true only on its
// first call, or never.
enum Fault { kField, kIndex, kSegment, kKeyLength, kKeySegment, kKeyIndex, kKeyShort, kEqualOnce, kNeverEqual };

// A generic record that breaks one thing on request. Clones keep the fault
// and share the call counter.
struct FaultyRecord : WzScanDBRecord {
  FaultyRecord(const std::string& path, Fault fault) : WzScanDBRecord(path, false, 0), fault(fault) {}
  SFields getFieldInformation(int i) override {
    SFields field = WzScanDBRecord::getFieldInformation(i);
    if (fault == kField && i == 0) field.type = 1;
    return field;
  }
  SIndices getIndexInformation(int i) override {
    SIndices index = WzScanDBRecord::getIndexInformation(i);
    if (fault == kIndex && i == 0) index.keyType = static_cast<TKeyType>(5);
    if (fault == kKeyLength && i == 0) index.keyLength = 17;
    return index;
  }
  SSegments getSegmentInformation(int i) override {
    SSegments segment = WzScanDBRecord::getSegmentInformation(i);
    if (fault == kSegment && i == 0) segment.fieldNumber = 40;
    return segment;
  }
  SPrepareIndexKeyStructure prepareIndexKey(int index) override {
    SPrepareIndexKeyStructure key = WzScanDBRecord::prepareIndexKey(index);
    if (fault == kKeySegment) key.segmentNumbers[0] = 9;
    if (fault == kKeyIndex) key.indexNumber = 7, key.numSegments = 0;
    if (fault == kKeyShort) ++key.numSegments;
    return key;
  }
  bool checkEqualOnIndex(WzScanDBRecordBasePtr other, int index) override {
    if (fault == kNeverEqual || (fault == kEqualOnce && ++*calls > 1)) return false;
    return WzScanDBRecord::checkEqualOnIndex(other, index);
  }
  WzScanDBRecordBasePtr Clone() override { return boost::make_shared<FaultyRecord>(*this); }
  Fault fault;
  std::shared_ptr<int> calls = std::make_shared<int>(0);
};

const char kCtor[] = "WzScanDB::WzScanDB(WzScanDBRecordBasePtr)", kClose[] = "CKoError WzScanDB::close()",
           kInit[] = "CKoError WzScanDB::initialize(const string&)",
           kPrepare[] = "CKoError WzScanDB::prepareIndexKey(SPrepareIndexKeyStructure, char*, int)",
           kCheck[] =
               "CKoError WzScanDB::checkDBRecord(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr, int, bool, bool&)",
           kAdd[] = "CKoError WzScanDB::addDBRecord(WzScanDBRecordBasePtr)",
           kUpdate[] = "CKoError WzScanDB::updateDBRecord(WzScanDBRecordBasePtr)",
           kDelete[] = "CKoError WzScanDB::deleteDBRecord(WzScanDBRecordBasePtr)",
           kAddNoCheck[] = "CKoError WzScanDB::addRecordWithoutCheck(WzScanDBRecordBasePtr)",
           kRemove[] = "static CKoError WzScanDB::remove(const string&)",
           kMove[] = "static CKoError WzScanDB::move(const string&, const string&)",
           kCopy[] = "static CKoError WzScanDB::copy(const string&, const string&)",
           kSuspend[] = "CKoError WzScanDB::suspendIndex()", kRebuild[] = "CKoError WzScanDB::rebuildIndex()";

std::string Engine(int status) { return TCtreeTable::errToString(status); }
WzScanDBRecordBasePtr AB() { return Generic("/a/b"); }
WzScanDBRecordBasePtr Faulty(Fault fault) { return boost::make_shared<FaultyRecord>("/a/b", fault); }

// One scenario's world: a directory and a generic database in it.
struct Env {
  TempDir dir;
  WzScanDBPtr db = NewGenericDb();
  bool found = false;
  CKoError open() { return db->initialize(dir.path()); }
  WzScanDB& opened() { return open(), *db; }
  WzScanDB& closed() { return opened().close(), *db; }
  // Opened, /a/b stored, indexes suspended: every keyed lookup fails.
  WzScanDB& suspended() { return opened().addRecordWithoutCheck(AB()), db->suspendIndex(), *db; }
  CKoError reopenAs(WzScanDBRecordBasePtr prototype) { return db->close(), db = NewDb(prototype), open(); }
  CKoError faulty(Fault fault) { return reopenAs(boost::make_shared<FaultyRecord>("/proto", fault)); }
  CKoError twice(WzScanDBRecordBasePtr record) { return opened().addDBRecord(record), db->addDBRecord(record); }
  CKoError check(WzScanDBRecordBasePtr in) { return db->checkDBRecord(in, in ? in->Clone() : AB(), found); }
  CKoError probe(Fault fault) { return open(), check(Faulty(fault)); }
  // WzScanDB::move or copy from {dir} to {dir}/to.
  CKoError to(CKoError (*op)(const std::string&, const std::string&)) const {
    return mkdir((dir / "to").c_str(), 0700), op(dir.path(), dir / "to");
  }
  // A move whose index move fails: a folder that is not empty holds the index's name in {dir}/to.
  CKoError blockedMove() const {
    return mkdir((dir / "to").c_str(), 0700), mkdir((dir / "to/WzScanDB.idx").c_str(), 0700),
           std::ofstream(dir / "to/WzScanDB.idx/keep") << "x", to(WzScanDB::move);
  }
  // `text` with {dir} standing for this scenario's directory.
  std::string expand(std::string text) const {
    for (size_t at; (at = text.find("{dir}")) != std::string::npos;) text.replace(at, 5, dir.path());
    return text;
  }
};

// A scenario and what it must produce. Without a code: the lines ('|' between
// them, each "<level> <message>") written from `function`, in this order. With
// one: the error returned with that code, whose origin frame (or last frame
// when `top`) was made at `function` with `text`. Codes of 101 to 121 are
// engine statuses, 774 the win32 index failure, the others errno values.
struct Row {
  CKoError (*run)(Env&);
  const char* function;
  std::string text;
  int code = 0;
  bool top = false;
};
// Rows whose scenario runs `...` on a fresh Env e: its lines, its error, or
// the last frame pushed onto its error.
// clang-format off
#define SCENARIO(...) [](Env& e) -> CKoError { return (void)e, __VA_ARGS__; }
#define LINES(function, text, ...) Row{SCENARIO(__VA_ARGS__, CKoError()), function, text}
#define FAILS(code, function, text, ...) Row{SCENARIO(__VA_ARGS__), function, text, code}
#define PUSHED(code, function, text, ...) Row{SCENARIO(__VA_ARGS__), function, text, code, true}

std::vector<Row> Rows() {
  const std::string ab = AB()->toString(), root = Generic("/")->toString(), zero = CTimeCounter().AsString();
  const std::string bad = Engine(TBL_BAD_ARGUMENT), schema = Engine(TBL_BAD_SCHEMA), dup = Engine(TBL_DUPLICATE_KEY);
  const std::string off = Engine(TBL_INDEX_SUSPENDED), closed = Engine(TBL_NOT_OPEN);
  return {
      // construction, initialize and close
      LINES(kCtor, "-1 The Record Structure is NULL", NewDb(nullptr)),
      LINES(kCtor, "4 Initialized the Record Structure while creating the Object", NewDb(AB())),
      FAILS(22, kInit, "The Given Directory path to create/open WzScanDB is empty", e.db->initialize(std::string())),
      FAILS(22, kInit, "Cannot Initialize Database because the Record Structure is not initialized",
            e.reopenAs(nullptr)),
      // (a refused initialize registered nothing: the next one creates)
      LINES(kInit,
            "0 The Fields : 6 -- Indices : 2 -- Segments : 3 -- recordSize : 440 -- fixedRecordSize : 181\n|"
            "4 Internal Initalize Completed|"
            "4 Getting Field Information -- Name guid -- Offset : 0 -- Type : 128 -- Length : 16|"
            "4 Getting Field Information -- Name sname -- Offset : 181 -- Type : 146 -- Length : 255|"
            "4 Field Configuration Completed|4 Getting Index Information -- Name parent_guid_and_sname -- Key "
            "Information : Length : 72 - Type : 12 - Duplication : 1 - NullKey : 0 - Empchr : 0 - NumSeg : 2 - "
            "Segment Num : 1|4 Index Configuration Completed|"
            "4 Getting Segment Information : FieldNumber : 5  , Segment size : 56 , Case Sensitive : 1\n|"
            "4 Segment Configuration Completed|4 Initialize Complete Configuration Completed\n|"
            "0 The CTree Database WzScanDB is  created with Huge File Support |"
            "0 Created a New WzScan Database at : {dir}/WzScanDB|"
            "0 Opened an Existing WzScanDB Database at : {dir}/WzScanDB",
            e.db->initialize(std::string()), e.closed(), e.open()),
      FAILS(TBL_ALREADY_OPEN, kInit, "Failed to Initialize WzScanDB : " + Engine(TBL_ALREADY_OPEN), e.open(),
            e.open()),
      FAILS(TBL_BAD_SCHEMA, kInit, "Failed to Configure WzScanDB Fields : " + schema, e.faulty(kField)),
      FAILS(TBL_BAD_SCHEMA, kInit, "Failed to Configure WzScanDB Indices : " + schema, e.faulty(kIndex)),
      FAILS(TBL_BAD_SCHEMA, kInit, "Failed to Configure WzScanDB Segments : " + schema, e.faulty(kSegment)),
      FAILS(TBL_BAD_SCHEMA, kInit, "Failed to Complete Initialization of WzScanDB : " + schema, e.faulty(kKeyLength)),
      LINES(kClose, "0 The WzScanDB is not initialized for it to close|0 The WzScanDB is closed", e.db->close(),
            e.closed()),
      // lookup
      FAILS(22, kCheck, "Initialize the Database to Proceed", e.check(AB())),
      FAILS(TBL_BAD_ARGUMENT, kPrepare, "fillKeySegment Failed : " + bad, e.probe(kKeySegment)),
      PUSHED(TBL_BAD_ARGUMENT, kCheck, "Cannot prepare Key", e.probe(kKeySegment)),
      FAILS(TBL_BAD_ARGUMENT, kPrepare, "finishKey Failed : " + bad, e.probe(kKeyIndex)),
      FAILS(TBL_BAD_ARGUMENT, kPrepare, "fillKeySegment Failed : " + bad, e.probe(kKeyShort)),
      FAILS(22, kCheck, "Input Record pointer is NULL", e.open(), e.check(nullptr)),
      FAILS(TBL_INDEX_SUSPENDED, kCheck, "getRecord() for index 0 Failed: " + off, e.suspended(), e.check(AB())),
      // record store; before initialize and after close alike, nothing is done
      FAILS(22, kAdd, "Input Record pointer is NULL", e.opened().addDBRecord(nullptr)),
      FAILS(22, kUpdate, "Input Record pointer is NULL", e.opened().updateDBRecord(nullptr)),
      FAILS(22, kDelete, "Input Record pointer is NULL", e.opened().deleteDBRecord(nullptr)),
      FAILS(22, kAdd, "Initialize the Database to Proceed", e.db->addDBRecord(AB())),
      FAILS(22, kUpdate, "Initialize the Database to Proceed", e.closed().updateDBRecord(AB())),
      FAILS(22, kDelete, "Initialize the Database to Proceed", e.closed().deleteDBRecord(AB())),
      PUSHED(TBL_INDEX_SUSPENDED, kAdd, "checkDBRecord(" + ab + ") Failed", e.suspended().addDBRecord(AB())),
      PUSHED(TBL_INDEX_SUSPENDED, kUpdate, "checkDBRecord(" + ab + ") Failed", e.suspended().updateDBRecord(AB())),
      PUSHED(TBL_INDEX_SUSPENDED, kDelete, "CheckDBRecord(" + ab + ") Failed", e.suspended().deleteDBRecord(AB())),
      LINES(kAdd, "7 Inserted Record : " + ab + " Successfully|7 The Record : " + ab +
                      " is already present in the Database, so updating the record...|"
                      "7 Setting the root record as " + root,
            e.twice(AB()), e.db->addDBRecord(Generic("/"))),
      PUSHED(22, kAdd, "updateDBRecord(" + ab + ") Failed", e.twice(Faulty(kEqualOnce))),
      FAILS(TBL_DUPLICATE_KEY, kAdd, "addRecord(" + ab + ") Failed due to " + dup, e.twice(Faulty(kNeverEqual))),
      FAILS(22, kUpdate, "updateDBRecord(" + ab + ") Failed since the Record is not present in the database",
            e.opened().updateDBRecord(AB())),
      LINES(kDelete,
            "7 The record : " + ab + " is not present in the database to delete|7 Deleted Record : " + ab +
                " Successfully",
            e.opened().deleteDBRecord(AB()), e.db->addDBRecord(AB()), e.db->deleteDBRecord(AB())),
      FAILS(TBL_DUPLICATE_KEY, kAddNoCheck, "addRecord(" + ab + ") Failed due to " + dup,
            e.opened().addRecordWithoutCheck(AB()), e.db->addRecordWithoutCheck(AB())),
      FAILS(TBL_NOT_OPEN, kAddNoCheck, "addRecord(" + ab + ") Failed due to " + closed,
            e.db->addRecordWithoutCheck(AB())),
      LINES(kAddNoCheck, "6 Record Added : " + ab + "|7 Setting the root record as " + root,
            e.opened().addRecordWithoutCheck(AB()), e.db->addRecordWithoutCheck(Generic("/"))),
      LINES("void WzScanDB::setRefTime(long long unsigned int)",
            "0 The Reference Time for the Database is set to 18446744073709551615", e.db->setRefTime(~0ULL)),
      // database files
      LINES(kRemove, "0 Removing WzScanDB in {dir} : completed successfully", e.closed(),
            WzScanDB::remove(e.dir.path())),
      PUSHED(ENOENT, kRemove, "Couldn't remove WzScanDB.dat in {dir}", WzScanDB::remove(e.dir.path())),
      PUSHED(ENOENT, kRemove, "Couldn't remove WzScanDB.idx in {dir}",
             std::ofstream(e.dir / "WzScanDB.dat").close(), WzScanDB::remove(e.dir.path())),
      LINES(kMove, "0 Moving WzScanDB from {dir} to {dir}/to completed successfully", e.closed(), e.to(WzScanDB::move)),
      PUSHED(ENOENT, kMove, "Couldn't move WzScanDB from {dir} to {dir}/to", e.to(WzScanDB::move)),
      // (an index move that fails puts the data file back beside its index)
      LINES(kInit, "0 Opened an Existing WzScanDB Database at : {dir}/WzScanDB", e.closed(), e.blockedMove(), e.open()),
      LINES(kCopy, "0 Copying WzScanDB from {dir} to {dir}/to completed successfully", e.closed(),
            e.to(WzScanDB::copy)),
      PUSHED(ENOENT, kCopy, "Couldn't copy WzScanDB from {dir} to {dir}/to", e.to(WzScanDB::copy)),
      LINES(kSuspend, "0 The Indexing for this WzScanDB is suspended", e.opened().suspendIndex()),
      FAILS(774, kSuspend, "The Indexing Suspend operation failed.", e.db->suspendIndex()),
      LINES(kRebuild,
            "2 Entering CKoError WzScanDB::rebuildIndex()|0 Indexing is resumed and going to be rebuilt. This is an "
            "expensive operation. Will take considerable amount of time.|0 The Index has been rebuilt.",
            e.opened().suspendIndex(), e.db->rebuildIndex()),
      FAILS(774, kRebuild, "Rebuild Index Failed due to " + closed, e.db->rebuildIndex()),
      // counters and the statistics thread
      LINES("WzScanDBPerformanceCounter::WzScanDBPerformanceCounter()",
            "0 The Logging Interval of the WzScanDBPerformanceCounters : 600 seconds", e.closed()),
      LINES("void WzScanDBPerformanceCounter::LogAllPerformanceCounters()",
            "0 --------------------- WzScanDB Performance Counters -------------------------------|0 " +
                std::string(83, '-'), e.closed()),
      LINES("void WzScanDBPerformanceCounter::LogPerformanceCounter(int)",
            "0  ADD_RECORD : " + zero + " |0  CHECK_RECORD : " + zero + " |0  DELETE_RECORD : " + zero +
                " |0  UPDATE_RECORD : " + zero + " |0  READ_RECORD : " + zero + " ", e.closed()),
  };
}
// clang-format on

// Captures every line (level 7); `db`, not yet opened, is closed at the end.
class CoreTest : public ::testing::Test {
 protected:
  void SetUp() override { capture = InstallQuietCapture(7); }
  void TearDown() override {
    db->close();
    capture->Remove();
    g_ptrLogWriter->SetLevel(0);
  }
  size_t Count(const std::string& message) const { return capture->Find(message).size(); }
  // The stored record with the key of `path` on `index`, or null.
  WzScanDBRecordBasePtr Find(const std::string& path, int index = 0, bool exact = true) {
    WzScanDBRecordBasePtr out = Generic("");
    bool found = false;
    EXPECT_TRUE(db->checkDBRecord(Generic(path), out, index, exact, found).IsSuccess());
    return found ? out : nullptr;
  }
  // Whether the last line of counter `name` starts " <name> : samples=<n> ".
  bool Samples(const std::string& name, int n) const {
    auto lines = capture->FindContaining(" " + name + " : ");
    return !lines.empty() && lines.back().message.rfind(" " + name + " : samples=" + std::to_string(n) + " ", 0) == 0;
  }
  // Waits up to `seconds` for `count` lines with `message`.
  bool WaitFor(const std::string& message, size_t count, int seconds) const {
    for (int i = 0; i < seconds * 50 && Count(message) < count; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return Count(message) >= count;
  }
  void UseInterval(const std::string& value) {
    std::ofstream(dir / "settings.ini") << "[~FileSystemAgent]\nnWzScanDBPerformanceLoggingInterval = " << value;
    setenv("WZ_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
  }

  std::shared_ptr<CLogCapture> capture;
  TempDir dir;
  WzScanDBPtr db = NewGenericDb();
};

TEST_F(CoreTest, EveryLineAndErrorHasItsTextLevelCodeAndLocation) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.text);
    capture->Clear();
    Env env;
    const CKoError result = row.run(env);
    const std::string text = env.expand(row.text) + (row.code ? "" : "|");
    env.db->close();
    if (!row.code) {  // each line in turn, skipping the other lines of the function
      size_t at = 0;
      for (const CLogEntry& entry : capture->Entries()) {
        const std::string line = std::to_string(entry.level) + " " + entry.message + "|";
        if (entry.function == row.function && text.compare(at, line.size(), line) == 0) at += line.size();
      }
      EXPECT_EQ(text.substr(at), "") << "from " << row.function;
      continue;
    }
    ASSERT_TRUE(result.IsError());
    using K = EKoErrorKind;
    EXPECT_EQ(result.GetKind(), row.code > 100 && row.code < 200 ? K::kInt : row.code == 774 ? K::kWin32 : K::kErrNo);
    EXPECT_EQ(result.GetCode(), row.code) << result.AsString();
    const CKoErrorFrame& frame = row.top ? result.GetFrames().back() : result.GetFrames().front();
    EXPECT_EQ(frame.message, text) << result.AsString();
    EXPECT_STREQ(frame.location.function, row.function);
    EXPECT_STREQ(frame.location.file, "WzScanDB/WzScanDB");
    for (const CLogEntry& entry : capture->Entries())  // errors are returned, never logged
      EXPECT_FALSE(entry.level < 0 && entry.function == row.function) << entry.message;
  }
}

const char kHead[] = "--------------------- WzScanDB Performance Counters -------------------------------";

TEST_F(CoreTest, LookupOnEveryIndexAndTheRoot) {
  ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
  auto stored = boost::make_shared<WzScanDBRecord>("/a/b", true, 42);
  ASSERT_TRUE(db->addDBRecord(stored).IsSuccess());
  for (int index : {0, 1}) {
    WzScanDBRecordBasePtr out = Find("/a/b", index);
    ASSERT_TRUE(out) << index;
    EXPECT_EQ(std::memcmp(out->getStructure(), stored->getStructure(), 436), 0) << index;
  }
  // At-or-after on the parent index lands on /a/b for /a/a; only the record
  // type's equality test tells them apart. Absence is success, found false.
  for (int index : {0, 1})
    for (bool exact : {true, false}) EXPECT_FALSE(Find("/a/a", index, exact)) << index << exact;

  // The last database constructed sets the process-wide root from its
  // prototype; a root record added through either add sets it.
  NewDb(boost::make_shared<CBackupTimeRecord>(5, 6));
  const WzScanDBRecordBasePtr before = db->getRoot(), root = Generic("/", true, 7), again = Generic("/", true, 8);
  EXPECT_EQ(before->toString(), CBackupTimeRecord(0, 0).toString());
  ASSERT_TRUE(db->addDBRecord(Generic("/a")).IsSuccess());
  EXPECT_EQ(db->getRoot(), before) << "a record with a parent is not a root";
  ASSERT_TRUE(db->addDBRecord(root).IsSuccess() && db->getRoot() == root);
  ASSERT_TRUE(db->deleteDBRecord(root).IsSuccess() && db->addRecordWithoutCheck(again).IsSuccess());
  EXPECT_EQ(db->addRecordWithoutCheck(Generic("/", true, 9)).GetCode(), TBL_DUPLICATE_KEY);
  EXPECT_EQ(db->getRoot(), again) << "a refused root is not taken";
  EXPECT_EQ(db->getFieldOrderCount(), 6) << "every field in the engine's order";
}

TEST_F(CoreTest, CountersCountEachOperationAndCloseStopsTheThreadPromptly) {
  ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
  ASSERT_TRUE(WaitFor(kHead, 1, 5)) << "the thread dumps as soon as it starts";
  for (const char* path : {"/c/0", "/c/1", "/c/2"}) ASSERT_TRUE(db->addDBRecord(Generic(path)).IsSuccess());
  ASSERT_TRUE(db->updateDBRecord(Generic("/c/0", false, 4)).IsSuccess());
  ASSERT_TRUE(db->deleteDBRecord(Generic("/c/1")).IsSuccess());
  ASSERT_TRUE(db->addRecordWithoutCheck(Generic("/c/9")).IsSuccess());
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the thread is asleep now
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << "close is prompt";
  EXPECT_EQ(Count(kHead), 2u) << "one at the start, one at close";
  // 4 adds, 5 lookups (3 adds, 1 update, 1 delete), 1 delete, 1 update, no
  // reads; the path-to-FID line only once it was used.
  EXPECT_TRUE(Samples("ADD_RECORD", 4) && Samples("CHECK_RECORD", 5) && Samples("DELETE_RECORD", 1) &&
              Samples("UPDATE_RECORD", 1) && Samples("READ_RECORD", 0));
  EXPECT_TRUE(capture->FindContaining("LLAPI_PATH2FID").empty());
  WzScanDBPerformanceCounter counters;
  { CAutoTimeCounter timer(counters.GetCounter(LLAPI_PATH2FID)); }
  for (int i : {-1, 6}) EXPECT_EQ(counters.GetCounter(static_cast<ScanDBCounter>(i)), nullptr) << i;
  capture->Clear();
  counters.LogPerformanceCounter(6);
  counters.LogPerformanceCounter(-1);
  counters.LogAllPerformanceCounters();
  EXPECT_TRUE(Samples("LLAPI_PATH2FID", 1));
  EXPECT_EQ(capture->Entries().size(), 8u) << "nothing beyond the list";

  // The interval comes from the settings file; zero: the thread never dumps,
  // close does. The same object opens its files again, with a new set.
  UseInterval("0");
  capture->Clear();
  ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
  ASSERT_TRUE(WaitFor("Started WzScanDB Performance Logging Thread", 1, 5));
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_TRUE(Count(kHead) == 1 && Samples("ADD_RECORD", 0));
}

// Slow (about ten seconds): the thread wakes every ten seconds. A database
// dumps again after its ten-second interval, the fixture's (600 seconds) not
// yet; one destroyed without close() leaves its thread running on a counter
// set the thread owns, and that thread ends at its next wake-up (under
// AddressSanitizer: no use after free).
TEST_F(CoreTest, PeriodicDumpsAndAThreadOutlivingItsDatabase) {
  ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
  UseInterval("10");
  TempDir second, third;
  WzScanDBPtr kept = NewGenericDb(), dropped = NewGenericDb();
  ASSERT_TRUE(kept->initialize(second.path()).IsSuccess() && dropped->initialize(third.path()).IsSuccess());
  ASSERT_TRUE(WaitFor(kHead, 3, 5));
  dropped.reset();
  EXPECT_TRUE(WaitFor("Stopped WzScanDB Performance Logging Thread", 1, 15)) << "the dropped database's thread ends";
  EXPECT_TRUE(WaitFor(kHead, 4, 5)) << "the ten-second database dumps again";
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(Count(kHead), 4u) << "the 600-second one does not, nor the ending thread";
  kept->close();
}

}  // namespace
