// Construction, initialize, close and re-open of the scan database.
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
  ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
  db->close();

  // Without a prototype every form of initialize refuses and creates nothing.
  TempDir empty;
  WzScanDBPtr none = NewDb(nullptr);
  WzScanDB plain;
  EXPECT_EQ(none->initialize(empty.path()).GetCode(), 22);
  EXPECT_EQ(plain.initialize(empty.path()).GetCode(), 22);
  EXPECT_EQ(none->initialize((empty / "WzScanDB").c_str()), -1);
  EXPECT_FALSE(none->initializeCheck() || plain.initializeCheck());
  EXPECT_FALSE(FXFile::Exists(empty / "WzScanDB.dat"));
  capture->Clear();
  plain.close();
  EXPECT_EQ(Count("The WzScanDB is not initialized for it to close"), 1u);
}

TEST_F(LifeCycleTest, CreateCloseReopenAndRefusalsWhenClosed) {
  WzScanDBPtr db = NewGenericDb();
  EXPECT_TRUE(db->close().IsSuccess());  // never opened: nothing to do, twice
  EXPECT_TRUE(db->close().IsSuccess());
  ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
  EXPECT_TRUE(db->initializeCheck());
  EXPECT_EQ(db->getFieldOrderCount(), 6) << "every field in the engine's order";
  EXPECT_TRUE(FXFile::Exists(dir / "WzScanDB.dat") && FXFile::Exists(dir / "WzScanDB.idx"));
  ASSERT_TRUE(db->addDBRecord(Generic("/a/b", false, 9)).IsSuccess());
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_FALSE(db->initializeCheck());
  // After close as before initialize: lookups and writes refuse with 22.
  bool found = true;
  for (const CKoError& error :
       {db->checkDBRecord(Generic("/a/b"), Generic("/a/b"), found), db->addDBRecord(Generic("/a")),
        db->updateDBRecord(Generic("/a/b")), db->deleteDBRecord(Generic("/a/b"))})
    EXPECT_EQ(error.GetOriginMessage() + " " + std::to_string(error.GetCode()),
              "Initialize the Database to Proceed 22");
  EXPECT_TRUE(found) << "a refused lookup leaves found as the caller set it";

  // The same object opens the existing files again, with a new counter set.
  ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
  EXPECT_EQ(Count("Opened an Existing WzScanDB Database at : " + dir.path() + "/WzScanDB"), 1u);
  WzScanDBRecordBasePtr out;
  ASSERT_TRUE(Find(*db, Generic("/a/b"), 0, true, &out));
  EXPECT_EQ(out->getRefTime(), 9u);
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_EQ(LastCounter("ADD_RECORD").find(" ADD_RECORD : samples=0 "), 0u);
  EXPECT_EQ(Count("Stopped WzScanDB Performance Logging Thread"), 2u);

  // A trailing separator gives a double slash, which names the same files.
  ASSERT_TRUE(db->initialize(dir.path() + "/").IsSuccess());
  EXPECT_EQ(Count("Opened an Existing WzScanDB Database at : " + dir.path() + "//WzScanDB"), 1u);
  db->close();
}

TEST_F(LifeCycleTest, SecondInitializeLeavesTheOpenDatabaseAlone) {
  WzScanDBPtr db = NewGenericDb();
  ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
  ASSERT_TRUE(db->addDBRecord(Generic("/a")).IsSuccess());
  ASSERT_TRUE(WaitFor("Started WzScanDB Performance Logging Thread", 1, 5));
  capture->Clear();
  EXPECT_EQ(db->initialize(dir.path()).GetCode(), TBL_ALREADY_OPEN);
  EXPECT_TRUE(capture->FindContaining("The Logging Interval").empty()) << "no second counter set";
  EXPECT_EQ(Count("Started WzScanDB Performance Logging Thread"), 0u) << "nor thread";
  EXPECT_TRUE(db->initializeCheck() && Find(*db, Generic("/a")));
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_EQ(LastCounter("ADD_RECORD").find(" ADD_RECORD : samples=1 "), 0u) << "the first set is still counting";
  EXPECT_EQ(Count("Stopped WzScanDB Performance Logging Thread"), 1u);
}

TEST_F(LifeCycleTest, ProcessWideRootAndEngineLevelInitialize) {
  WzScanDBPtr db = NewGenericDb();
  // The constructor makes the prototype's root the process-wide root; the last one wins.
  ASSERT_TRUE(db->getRoot() && db->getRoot()->isRoot());
  EXPECT_EQ(db->getRoot()->toString(), Generic("/")->toString());
  EXPECT_EQ(db->getRoot(), WzScanDB::sptrDbRoot);
  WzScanDBPtr other = NewDb(boost::make_shared<CBackupTimeRecord>(5, 6));
  EXPECT_EQ(db->getRoot()->toString(), CBackupTimeRecord(0, 0).toString());

  // The engine-level initialize registers the schema, opens nothing and
  // reports -1 all the same.
  EXPECT_EQ(db->initialize((dir / "WzScanDB").c_str()), -1);
  EXPECT_EQ(db->getFieldOrderCount(), 6);
  EXPECT_EQ(db->initialize(static_cast<const char*>(nullptr)), -1);
  EXPECT_FALSE(FXFile::Exists(dir / "WzScanDB.dat"));
  EXPECT_EQ(db->create(), TBL_OK) << "the schema it registered is complete";
  db->close();
}

}  // namespace
}  // namespace coretest
