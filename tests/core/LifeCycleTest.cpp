// Construction, initialize, close and re-open of the scan database, for each
// record type.
#include <cstring>

#include "CoreTestSupport.h"
#include "runtime/FXFile.h"

namespace coretest {
namespace {

class LifeCycleTest : public CoreTest {};

TEST_F(LifeCycleTest, EmptyDirectoryTouchesNoFile) {
  WzScanDBPtr db = NewDb(Generic("/p"));
  CKoError error = db->initialize(std::string());
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetCode(), 22);
  EXPECT_FALSE(db->initializeCheck());
  EXPECT_FALSE(FXFile::Exists("/WzScanDB.dat"));
  // Nothing was registered with the engine: a real directory still works.
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  db->close();
}

TEST_F(LifeCycleTest, NullPrototypeRefusesInitialize) {
  WzScanDBPtr db = NewDb(nullptr);
  EXPECT_EQ(Count("The Record Structure is NULL"), 1u);
  CKoError error = Open(*db, dir.path());
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetCode(), 22);
  EXPECT_FALSE(FXFile::Exists(dir / "WzScanDB.dat"));
  EXPECT_FALSE(db->initializeCheck());
  // The engine-level form refuses too, and the default constructor likewise.
  EXPECT_EQ(db->initialize((dir / "WzScanDB").c_str()), -1);
  EXPECT_FALSE(db->initializeCheck());
  WzScanDB plain;
  EXPECT_TRUE(Open(plain, dir.path()).IsError());
}

TEST_F(LifeCycleTest, CreateCloseReopenKeepsRecords) {
  WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
  CKoError opened = Open(*db, dir.path());
  ASSERT_TRUE(opened.IsSuccess()) << opened.AsString();
  EXPECT_TRUE(db->initializeCheck());
  EXPECT_TRUE(FXFile::Exists(dir / "WzScanDB.dat"));
  EXPECT_TRUE(FXFile::Exists(dir / "WzScanDB.idx"));
  EXPECT_EQ(Count("Created a New WzScan Database at : " + dir.path() + "/WzScanDB"), 1u);
  ASSERT_TRUE(db->addDBRecord(Generic("/a/b", false, 9)).IsSuccess());
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_FALSE(db->initializeCheck());

  // The same object opens the existing files again.
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  EXPECT_EQ(Count("Opened an Existing WzScanDB Database at : " + dir.path() + "/WzScanDB"), 1u);
  bool found = false;
  WzScanDBRecordBasePtr probe = Generic("/a/b");
  WzScanDBRecordBasePtr out = probe->Clone();
  ASSERT_TRUE(db->checkDBRecord(probe, out, found).IsSuccess());
  EXPECT_TRUE(found);
  EXPECT_EQ(out->getRefTime(), 9u);
  ASSERT_TRUE(db->close().IsSuccess());
  // The re-opened database counted with a new set: the add of before is gone.
  auto adds = capture->FindContaining(" ADD_RECORD : ");
  ASSERT_FALSE(adds.empty());
  EXPECT_EQ(adds.back().message.find(" ADD_RECORD : samples=0 "), 0u) << adds.back().message;
  EXPECT_EQ(Count("Stopped WzScanDB Performance Logging Thread"), 2u);

  // A trailing separator gives a double slash, which names the same files.
  WzScanDBPtr again = NewDb(boost::make_shared<WzScanDBRecord>());
  ASSERT_TRUE(Open(*again, dir.path() + "/").IsSuccess());
  EXPECT_EQ(Count("Opened an Existing WzScanDB Database at : " + dir.path() + "//WzScanDB"), 1u);
  again->close();
}

TEST_F(LifeCycleTest, CloseOfUnopenedDatabaseSucceeds) {
  WzScanDBPtr db = NewDb(Generic("/p"));
  EXPECT_TRUE(db->close().IsSuccess());
  EXPECT_TRUE(db->close().IsSuccess());
  EXPECT_EQ(Count("The WzScanDB is not initialized for it to close"), 2u);
}

TEST_F(LifeCycleTest, OperationsBeforeInitializeAndAfterCloseAreRefused) {
  WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
  auto expectRefused = [&](const char* when) {
    SCOPED_TRACE(when);
    WzScanDBRecordBasePtr record = Generic("/a/b");
    bool found = true;
    std::vector<CKoError> errors = {db->checkDBRecord(record, record->Clone(), found),
                                    db->checkDBRecord(record, record->Clone(), 1, false, found),
                                    db->addDBRecord(record), db->updateDBRecord(record),
                                    db->deleteDBRecord(record)};
    for (const CKoError& error : errors) {
      ASSERT_TRUE(error.IsError());
      EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
      EXPECT_EQ(error.GetCode(), 22);
      EXPECT_EQ(error.GetOriginMessage(), "Initialize the Database to Proceed");
    }
    EXPECT_TRUE(found) << "a refused lookup leaves found as the caller set it";
  };
  expectRefused("before initialize");
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  ASSERT_TRUE(db->close().IsSuccess());
  expectRefused("after close");
  // addRecordWithoutCheck does not test initialisation: the engine refuses.
  CKoError error = db->addRecordWithoutCheck(Generic("/a/b"));
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetKind(), EKoErrorKind::kInt);
  EXPECT_EQ(error.GetCode(), TBL_NOT_OPEN);
}

TEST_F(LifeCycleTest, SecondInitializeLeavesTheOpenDatabaseAlone) {
  WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  ASSERT_TRUE(db->addDBRecord(Generic("/a")).IsSuccess());
  ASSERT_TRUE(WaitFor("Started WzScanDB Performance Logging Thread", 1, 5));
  capture->Clear();

  CKoError error = Open(*db, dir.path());
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetCode(), TBL_ALREADY_OPEN);
  // No second counter set nor thread was made.
  EXPECT_TRUE(capture->FindContaining("The Logging Interval").empty());
  EXPECT_TRUE(capture->Find("Started WzScanDB Performance Logging Thread").empty());

  // Still open and usable, with the counters of before.
  EXPECT_TRUE(db->initializeCheck());
  bool found = false;
  WzScanDBRecordBasePtr probe = Generic("/a");
  ASSERT_TRUE(db->checkDBRecord(probe, probe->Clone(), found).IsSuccess());
  EXPECT_TRUE(found);
  ASSERT_TRUE(db->close().IsSuccess());
  // The last block is that of close (the thread's first one may come late).
  auto adds = capture->FindContaining(" ADD_RECORD : ");
  ASSERT_FALSE(adds.empty());
  EXPECT_EQ(adds.back().message.find(" ADD_RECORD : samples=1 "), 0u) 
      << "the add made before the second initialize is still counted";
  EXPECT_EQ(Count("Stopped WzScanDB Performance Logging Thread"), 1u);
}

TEST_F(LifeCycleTest, EachRecordTypeInItsOwnDatabase) {
  struct Case {
    const char* name;
    WzScanDBRecordBasePtr prototype;
    WzScanDBRecordBasePtr record;
  };
  std::vector<Case> cases = {
      {"generic", boost::make_shared<WzScanDBRecord>(), Generic("/x/y", true, 3)},
      {"lustre", boost::make_shared<WzScanDBLustreRecord>(), Lustre(0x200000400, 0x1a, 0x200000400, 1, "y")},
      {"backup time", boost::make_shared<CBackupTimeRecord>(), BackupTime(77, 1234)},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir own;
    WzScanDBPtr db = NewDb(c.prototype);
    ASSERT_TRUE(Open(*db, own.path()).IsSuccess());
    ASSERT_TRUE(db->addDBRecord(c.record).IsSuccess());
    ASSERT_TRUE(db->close().IsSuccess());

    ASSERT_TRUE(Open(*db, own.path()).IsSuccess());
    bool found = false;
    WzScanDBRecordBasePtr out = c.record->Clone();
    std::memset(out->getStructure(), 0, out->recordSize());
    ASSERT_TRUE(db->checkDBRecord(c.record, out, found).IsSuccess());
    EXPECT_TRUE(found);
    EXPECT_EQ(std::memcmp(out->getStructure(), c.record->getStructure(), c.record->fixedRecordSize()), 0);
    EXPECT_EQ(out->toString(), c.record->toString());
    ASSERT_TRUE(db->close().IsSuccess());

    // A database of every other type refuses these files and leaves them intact.
    for (Case& other : cases) {
      if (&other == &c) continue;
      WzScanDBPtr wrong = NewDb(other.prototype->Clone());
      CKoError error = Open(*wrong, own.path());
      ASSERT_TRUE(error.IsError()) << other.name;
      EXPECT_EQ(error.GetCode(), TBL_SCHEMA_MISMATCH) << error.AsString();
      EXPECT_FALSE(wrong->initializeCheck());
      wrong->close();
    }
    ASSERT_TRUE(Open(*db, own.path()).IsSuccess());
    found = false;
    ASSERT_TRUE(db->checkDBRecord(c.record, c.record->Clone(), found).IsSuccess());
    EXPECT_TRUE(found);
    db->close();
  }
}

TEST_F(LifeCycleTest, EngineOverridesAndRoot) {
  WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
  EXPECT_STREQ(db->getTableType(), "WZScanDB");
  EXPECT_TRUE(db->createHugeFile());
  // The constructor makes the prototype's root the process-wide root.
  ASSERT_TRUE(db->getRoot());
  EXPECT_TRUE(db->getRoot()->isRoot());
  EXPECT_EQ(db->getRoot()->toString(), Generic("/")->toString());
  EXPECT_EQ(db->getRoot(), WzScanDB::sptrDbRoot);
  WzScanDBPtr other = NewDb(boost::make_shared<CBackupTimeRecord>(5, 6));
  EXPECT_EQ(db->getRoot()->toString(), BackupTime(0, 0)->toString()) << "the last one wins";

  // The engine-level initialize registers the schema, opens nothing and
  // reports -1 all the same.
  WzScanDBPtr engineLevel = NewDb(boost::make_shared<WzScanDBRecord>());
  EXPECT_EQ(engineLevel->initialize((dir / "WzScanDB").c_str()), -1);
  EXPECT_EQ(engineLevel->initialize(static_cast<const char*>(nullptr)), -1);
  EXPECT_FALSE(FXFile::Exists(dir / "WzScanDB.dat"));
  EXPECT_EQ(engineLevel->create(), TBL_OK) << "the schema it registered is complete";
  engineLevel->close();
}

}  // namespace
}  // namespace coretest
