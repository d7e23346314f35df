// Lookup and the single-record operations against a real table.
#include <cstring>
#include <thread>

#include "CoreTestSupport.h"

namespace coretest {
namespace {

class LookupStoreTest : public CoreTest {
 protected:
  void SetUp() override {
    CoreTest::SetUp();
    db = NewDb(boost::make_shared<WzScanDBRecord>());
    ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  }
  void TearDown() override {
    db->close();
    CoreTest::TearDown();
  }

  // Looks `probe` up; returns found and leaves the stored image in *stored.
  bool Find(WzScanDBRecordBasePtr probe, int index, bool exact,
            WzScanDBRecordBasePtr* stored = nullptr) {
    WzScanDBRecordBasePtr out = probe->Clone();
    bool found = false;
    CKoError error = db->checkDBRecord(probe, out, index, exact, found);
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    if (stored) *stored = out;
    return found;
  }
  size_t CountRecords() {
    WzScanDBRecord buffer;
    size_t n = 0;
    for (int s = db->firstRecord(0, buffer.getStructure()); s == TBL_OK;
         s = db->nextRecord(0, buffer.getStructure()))
      ++n;
    return n;
  }

  WzScanDBPtr db;
};

TEST_F(LookupStoreTest, AbsenceIsSuccessWithFoundFalse) {
  WzScanDBRecordBasePtr probe = Generic("/nowhere");
  WzScanDBRecordBasePtr out = probe->Clone();
  bool found = true;
  ASSERT_TRUE(db->checkDBRecord(probe, out, found).IsSuccess());
  EXPECT_FALSE(found);
  EXPECT_TRUE(out) << "only the callee's copy of the output pointer is cleared";
  found = true;
  ASSERT_TRUE(db->checkDBRecord(probe, out, 1, false, found).IsSuccess());
  EXPECT_FALSE(found);
}

TEST_F(LookupStoreTest, LookupLoadsTheStoredImage) {
  auto stored = boost::make_shared<WzScanDBRecord>("/a/b", true, 42);
  static_cast<SRecordStructure*>(stored->getStructure())->stat_data.st_size = 4096;
  ASSERT_TRUE(db->addDBRecord(stored).IsSuccess());

  WzScanDBRecordBasePtr out;
  ASSERT_TRUE(Find(Generic("/a/b"), 0, true, &out));
  EXPECT_EQ(std::memcmp(out->getStructure(), stored->getStructure(), 436), 0);
  EXPECT_TRUE(out->isDir());
  EXPECT_EQ(out->getRefTime(), 42u);
  // The same record by parent and name, exact and at-or-after.
  ASSERT_TRUE(Find(Generic("/a/b"), 1, true, &out));
  EXPECT_EQ(out->getRefTime(), 42u);
  EXPECT_TRUE(Find(Generic("/a/b"), 1, false));
}

TEST_F(LookupStoreTest, GreaterNeighbourIsNotReportedAsFound) {
  ASSERT_TRUE(db->addDBRecord(Generic("/a/m")).IsSuccess());
  // At-or-after on the parent index lands on /a/m for both probes; only the
  // record type's equality test can tell them apart.
  EXPECT_FALSE(Find(Generic("/a/c"), 1, false));
  EXPECT_FALSE(Find(Generic("/a/c"), 1, true));
  EXPECT_FALSE(Find(Generic("/a/c"), 0, false));
  EXPECT_TRUE(Find(Generic("/a/m"), 1, false));
}

TEST_F(LookupStoreTest, NamesSharingTheKeyPrefixAreToldApartByFullName) {
  const std::string prefix(56, 'n');
  WzScanDBRecordBasePtr first = Generic("/d/" + prefix + "-first");
  WzScanDBRecordBasePtr second = Generic("/d/" + prefix + "-second");
  ASSERT_TRUE(db->addDBRecord(first).IsSuccess());
  // Same parent and same first 56 name bytes: the same index-1 key, but not
  // the same entry.
  EXPECT_FALSE(Find(second, 1, true));
  EXPECT_FALSE(Find(second, 1, false));
  EXPECT_TRUE(Find(first, 1, true));

  // Both can be stored (the index allows duplicates) and both are found by
  // their own identifiers.
  ASSERT_TRUE(db->addDBRecord(second).IsSuccess());
  EXPECT_EQ(CountRecords(), 2u);
  WzScanDBRecordBasePtr out;
  ASSERT_TRUE(Find(second, 0, true, &out));
  EXPECT_EQ(out->getName(), prefix + "-second");
  ASSERT_TRUE(Find(first, 0, true, &out));
  EXPECT_EQ(out->getName(), prefix + "-first");
}

TEST_F(LookupStoreTest, AddTwiceUpdatesInPlace) {
  ASSERT_TRUE(db->addDBRecord(Generic("/a/b", false, 1)).IsSuccess());
  EXPECT_EQ(Count("Inserted Record : " + Generic("/a/b", false, 1)->toString() + " Successfully"), 1u);
  ASSERT_TRUE(db->addDBRecord(Generic("/a/b", true, 2)).IsSuccess());
  EXPECT_EQ(Count("The Record : " + Generic("/a/b", false, 1)->toString() +
                  " is already present in the Database, so updating the record..."),
            1u)
      << "the stored version is quoted";
  EXPECT_EQ(CountRecords(), 1u);
  WzScanDBRecordBasePtr out;
  ASSERT_TRUE(Find(Generic("/a/b"), 0, true, &out));
  EXPECT_EQ(out->getRefTime(), 2u);
  EXPECT_TRUE(out->isDir());
}

TEST_F(LookupStoreTest, AddingARootRecordSetsTheRoot) {
  WzScanDBRecordBasePtr before = db->getRoot();
  ASSERT_TRUE(db->addDBRecord(Generic("/a")).IsSuccess());
  EXPECT_EQ(db->getRoot(), before) << "a record with a parent is not a root";
  WzScanDBRecordBasePtr root = Generic("/", true, 7);
  ASSERT_TRUE(root->isRoot());
  ASSERT_TRUE(db->addDBRecord(root).IsSuccess());
  EXPECT_EQ(db->getRoot(), root);
  // addRecordWithoutCheck does the same in another database of the process.
  TempDir other;
  WzScanDBPtr second = NewDb(boost::make_shared<WzScanDBRecord>());
  ASSERT_TRUE(Open(*second, other.path()).IsSuccess());
  WzScanDBRecordBasePtr root2 = Generic("/", true, 8);
  ASSERT_TRUE(second->addRecordWithoutCheck(root2).IsSuccess());
  EXPECT_EQ(db->getRoot(), root2) << "the root is shared by the whole process";
  second->close();
}

TEST_F(LookupStoreTest, DeleteAndUpdateOfAbsentRecords) {
  ASSERT_TRUE(db->deleteDBRecord(Generic("/gone")).IsSuccess());
  CKoError error = db->updateDBRecord(Generic("/gone"));
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
  EXPECT_EQ(error.GetCode(), 22);

  ASSERT_TRUE(db->addDBRecord(Generic("/here", false, 1)).IsSuccess());
  ASSERT_TRUE(db->addDBRecord(Generic("/there", false, 1)).IsSuccess());
  ASSERT_TRUE(db->updateDBRecord(Generic("/here", false, 5)).IsSuccess());
  WzScanDBRecordBasePtr out;
  ASSERT_TRUE(Find(Generic("/here"), 0, true, &out));
  EXPECT_EQ(out->getRefTime(), 5u);
  ASSERT_TRUE(Find(Generic("/there"), 0, true, &out));
  EXPECT_EQ(out->getRefTime(), 1u) << "the update touched only its own record";

  ASSERT_TRUE(db->deleteDBRecord(Generic("/here")).IsSuccess());
  EXPECT_FALSE(Find(Generic("/here"), 0, true));
  EXPECT_FALSE(Find(Generic("/here"), 1, true)) << "gone from every index";
  EXPECT_TRUE(Find(Generic("/there"), 0, true));
  EXPECT_TRUE(db->deleteDBRecord(Generic("/here")).IsSuccess());
  EXPECT_EQ(CountRecords(), 1u);
}

TEST_F(LookupStoreTest, AddWithoutCheckReportsTheEngineStatus) {
  WzScanDBRecordBasePtr record = Generic("/dup", false, 1);
  ASSERT_TRUE(db->addRecordWithoutCheck(record).IsSuccess());
  CKoError error = db->addRecordWithoutCheck(Generic("/dup", false, 2));
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetKind(), EKoErrorKind::kInt);
  EXPECT_EQ(error.GetCode(), TBL_DUPLICATE_KEY);
  EXPECT_NE(error.GetOriginMessage().find(TCtreeTable::errToString(TBL_DUPLICATE_KEY)),
            std::string::npos);
  WzScanDBRecordBasePtr out;
  ASSERT_TRUE(Find(record, 0, true, &out));
  EXPECT_EQ(out->getRefTime(), 1u) << "the refused record changed nothing";
  EXPECT_EQ(CountRecords(), 1u);
}

TEST_F(LookupStoreTest, ReferenceTimeIsKeptInMemoryOnly) {
  EXPECT_EQ(db->getRefTime(), 0u);
  db->setRefTime(123456789012345ULL);
  EXPECT_EQ(db->getRefTime(), 123456789012345ULL);
  db->setRefTime(0);
  EXPECT_EQ(db->getRefTime(), 0u);
  db->setRefTime(5);
  db->close();
  WzScanDBPtr reopened = NewDb(boost::make_shared<WzScanDBRecord>());
  ASSERT_TRUE(Open(*reopened, dir.path()).IsSuccess());
  EXPECT_EQ(reopened->getRefTime(), 0u);
  reopened->close();
}

// Lookups, updates and adds without check hold dbLock across the engine's
// current-record position; threads sharing one database must not see each
// other's records through it.
TEST_F(LookupStoreTest, LockedOperationsFromSeveralThreads) {
  const int kThreads = 4, kPerThread = 150;
  std::vector<std::thread> threads;
  std::vector<int> failures(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        std::string path = "/t" + std::to_string(t) + "/f" + std::to_string(i);
        if (db->addRecordWithoutCheck(Generic(path, false, 1)).IsError()) ++failures[t];
        if (db->updateDBRecord(Generic(path, false, 1000 + i)).IsError()) ++failures[t];
        WzScanDBRecordBasePtr probe = Generic(path);
        WzScanDBRecordBasePtr out = probe->Clone();
        bool found = false;
        if (db->checkDBRecord(probe, out, found).IsError() || !found ||
            out->getRefTime() != 1000u + i || out->getName() != "f" + std::to_string(i))
          ++failures[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
  EXPECT_EQ(CountRecords(), static_cast<size_t>(kThreads * kPerThread));
}

}  // namespace
}  // namespace coretest
