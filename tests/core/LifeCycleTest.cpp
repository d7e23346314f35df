// Construction, initialize, close and re-open of the scan database, for each
// record type.
#include <cstring>

#include "CoreTestSupport.h"
#include "runtime/FXFile.h"

namespace coretest {
namespace {

class LifeCycleTest : public CoreTest {};

TEST_F(LifeCycleTest, RefusedInitializeTouchesNothing) {
  WzScanDBPtr db = NewDb(Generic("/p"));
  EXPECT_EQ(db->initialize(std::string()).GetCode(), 22);
  EXPECT_FALSE(db->initializeCheck());
  EXPECT_FALSE(FXFile::Exists("/WzScanDB.dat"));
  // Nothing was registered with the engine: a real directory still works.
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  db->close();

  // Without a prototype every form of initialize refuses and creates nothing.
  TempDir empty;
  WzScanDBPtr none = NewDb(nullptr);
  EXPECT_EQ(Open(*none, empty.path()).GetCode(), 22);
  EXPECT_EQ(none->initialize((empty / "WzScanDB").c_str()), -1);
  EXPECT_FALSE(none->initializeCheck());
  WzScanDB plain;
  EXPECT_TRUE(Open(plain, empty.path()).IsError());
  EXPECT_FALSE(FXFile::Exists(empty / "WzScanDB.dat"));
}

TEST_F(LifeCycleTest, CreateCloseReopenAndRefusalsWhenClosed) {
  WzScanDBPtr db = NewGenericDb();
  // A database that was never opened closes without complaint, twice.
  EXPECT_TRUE(db->close().IsSuccess());
  EXPECT_TRUE(db->close().IsSuccess());
  EXPECT_EQ(Count("The WzScanDB is not initialized for it to close"), 2u);

  // Lookups and writes before initialize and after close: error 22.
  auto expectRefused = [&](const char* when) {
    SCOPED_TRACE(when);
    bool found = true;
    for (const CKoError& error : {db->checkDBRecord(Generic("/a"), Generic("/a"), found),
                                  db->checkDBRecord(Generic("/a"), Generic("/a"), 1, false, found),
                                  db->addDBRecord(Generic("/a")), db->updateDBRecord(Generic("/a")),
                                  db->deleteDBRecord(Generic("/a"))}) {
      EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
      EXPECT_EQ(error.GetCode(), 22);
      EXPECT_EQ(error.GetOriginMessage(), "Initialize the Database to Proceed");
    }
    EXPECT_TRUE(found) << "a refused lookup leaves found as the caller set it";
  };
  expectRefused("before initialize");

  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  EXPECT_TRUE(db->initializeCheck());
  EXPECT_TRUE(FXFile::Exists(dir / "WzScanDB.dat") && FXFile::Exists(dir / "WzScanDB.idx"));
  EXPECT_EQ(Count("Created a New WzScan Database at : " + dir.path() + "/WzScanDB"), 1u);
  ASSERT_TRUE(db->addDBRecord(Generic("/a/b", false, 9)).IsSuccess());
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_FALSE(db->initializeCheck());
  expectRefused("after close");
  // addRecordWithoutCheck does not test initialisation: the engine refuses.
  CKoError error = db->addRecordWithoutCheck(Generic("/a/c"));
  EXPECT_EQ(error.GetKind(), EKoErrorKind::kInt);
  EXPECT_EQ(error.GetCode(), TBL_NOT_OPEN);

  // The same object opens the existing files again, with a new counter set.
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  EXPECT_EQ(Count("Opened an Existing WzScanDB Database at : " + dir.path() + "/WzScanDB"), 1u);
  WzScanDBRecordBasePtr out;
  ASSERT_TRUE(Find(*db, Generic("/a/b"), 0, true, &out));
  EXPECT_EQ(out->getRefTime(), 9u);
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_EQ(LastCounter("ADD_RECORD").find(" ADD_RECORD : samples=0 "), 0u);
  EXPECT_EQ(Count("Stopped WzScanDB Performance Logging Thread"), 2u);

  // A trailing separator gives a double slash, which names the same files.
  ASSERT_TRUE(Open(*db, dir.path() + "/").IsSuccess());
  EXPECT_EQ(Count("Opened an Existing WzScanDB Database at : " + dir.path() + "//WzScanDB"), 1u);
  db->close();
}

TEST_F(LifeCycleTest, SecondInitializeLeavesTheOpenDatabaseAlone) {
  WzScanDBPtr db = NewGenericDb();
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  ASSERT_TRUE(db->addDBRecord(Generic("/a")).IsSuccess());
  ASSERT_TRUE(WaitFor("Started WzScanDB Performance Logging Thread", 1, 5));
  capture->Clear();

  EXPECT_EQ(Open(*db, dir.path()).GetCode(), TBL_ALREADY_OPEN);
  EXPECT_TRUE(capture->FindContaining("The Logging Interval").empty()) << "no second counter set";
  EXPECT_EQ(Count("Started WzScanDB Performance Logging Thread"), 0u) << "nor thread";
  EXPECT_TRUE(db->initializeCheck());
  EXPECT_TRUE(Find(*db, Generic("/a")));
  ASSERT_TRUE(db->close().IsSuccess());
  // The last block is that of close (the thread's first one may come late).
  EXPECT_EQ(LastCounter("ADD_RECORD").find(" ADD_RECORD : samples=1 "), 0u)
      << "the add made before the second initialize is still counted";
  EXPECT_EQ(Count("Stopped WzScanDB Performance Logging Thread"), 1u);
}

TEST_F(LifeCycleTest, EachRecordTypeInItsOwnDatabase) {
  auto fid = [](unsigned oid) { return boost::make_shared<LustreAPI::CLustreFID>(0x200000400, oid, 0); };
  struct Case {
    const char* name;
    WzScanDBRecordBasePtr prototype, record;
  } cases[] = {
      {"generic", boost::make_shared<WzScanDBRecord>(), Generic("/x/y", true, 3)},
      {"lustre", boost::make_shared<WzScanDBLustreRecord>(),
       boost::make_shared<WzScanDBLustreRecord>(fid(0x1a), fid(1), "y", false, 0)},
      {"backup time", boost::make_shared<CBackupTimeRecord>(), BackupTime(77, 1234)},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir own;
    WzScanDBPtr db = NewDb(c.prototype);
    ASSERT_TRUE(Open(*db, own.path()).IsSuccess());
    ASSERT_TRUE(db->addDBRecord(c.record).IsSuccess());
    ASSERT_TRUE(db->close().IsSuccess());

    // A database of every other type refuses these files and leaves them intact.
    for (Case& other : cases) {
      if (&other == &c) continue;
      WzScanDBPtr wrong = NewDb(other.prototype->Clone());
      EXPECT_EQ(Open(*wrong, own.path()).GetCode(), TBL_SCHEMA_MISMATCH) << other.name;
      EXPECT_FALSE(wrong->initializeCheck());
      wrong->close();
    }
    ASSERT_TRUE(Open(*db, own.path()).IsSuccess());
    WzScanDBRecordBasePtr out = c.record->Clone();
    std::memset(out->getStructure(), 0, out->recordSize());
    bool found = false;
    ASSERT_TRUE(db->checkDBRecord(c.record, out, found).IsSuccess());
    EXPECT_TRUE(found);
    EXPECT_EQ(0, std::memcmp(out->getStructure(), c.record->getStructure(),
                             c.record->fixedRecordSize()));
    EXPECT_EQ(out->toString(), c.record->toString());
    db->close();
  }
}

TEST_F(LifeCycleTest, ProcessWideRootAndEngineLevelInitialize) {
  WzScanDBPtr db = NewGenericDb();
  // The constructor makes the prototype's root the process-wide root.
  ASSERT_TRUE(db->getRoot() && db->getRoot()->isRoot());
  EXPECT_EQ(db->getRoot()->toString(), Generic("/")->toString());
  EXPECT_EQ(db->getRoot(), WzScanDB::sptrDbRoot);
  WzScanDBPtr other = NewDb(BackupTime(5, 6));
  EXPECT_EQ(db->getRoot()->toString(), BackupTime(0, 0)->toString()) << "the last one wins";

  // The engine-level initialize registers the schema, opens nothing and
  // reports -1 all the same.
  EXPECT_EQ(db->initialize((dir / "WzScanDB").c_str()), -1);
  EXPECT_EQ(db->initialize(static_cast<const char*>(nullptr)), -1);
  EXPECT_FALSE(FXFile::Exists(dir / "WzScanDB.dat"));
  EXPECT_EQ(db->create(), TBL_OK) << "the schema it registered is complete";
  db->close();
}

}  // namespace
}  // namespace coretest
