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
    ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
  }
  void TearDown() override {
    db->close();
    CoreTest::TearDown();
  }
  // Name and reference time of every stored record, in physical order.
  std::string Stored() {
    WzScanDBRecord buffer;
    std::string text;
    for (int s = db->firstRecord(-1, buffer.getStructure()); s == TBL_OK; s = db->nextRecord(-1, buffer.getStructure()))
      text += buffer.getName() + "@" + std::to_string(buffer.getRefTime()) + (buffer.isDir() ? "/ " : " ");
    return text;
  }
  WzScanDBPtr db = NewGenericDb();
};

TEST_F(LookupStoreTest, LookupOnEveryIndexTellsAbsenceFromFailure) {
  // Absence is success with found false; only the callee's copy of the
  // output pointer is cleared.
  WzScanDBRecordBasePtr out = Generic("/x");
  bool found = true;
  ASSERT_TRUE(db->checkDBRecord(Generic("/nowhere"), out, found).IsSuccess());
  EXPECT_FALSE(found);
  EXPECT_TRUE(out);

  auto stored = boost::make_shared<WzScanDBRecord>("/a/b", true, 42);
  static_cast<SRecordStructure*>(stored->getStructure())->stat_data.st_size = 4096;
  ASSERT_TRUE(db->addDBRecord(stored).IsSuccess());
  for (int index : {0, 1}) {
    ASSERT_TRUE(Find(*db, Generic("/a/b"), index, true, &out)) << index;
    EXPECT_EQ(std::memcmp(out->getStructure(), stored->getStructure(), 436), 0) << index;
  }
  EXPECT_TRUE(Find(*db, Generic("/a/b"), 1, false));
  // At-or-after on the parent index lands on /a/b for /a/a; only the record
  // type's equality test tells them apart.
  for (int index : {0, 1})
    for (bool exact : {true, false}) EXPECT_FALSE(Find(*db, Generic("/a/a"), index, exact)) << index << exact;

  // Same parent and same first 56 name bytes: the same index-1 key, but not
  // the same entry. Both can be stored and each is found as itself.
  const std::string prefix(56, 'n');
  WzScanDBRecordBasePtr first = Generic("/d/" + prefix + "-1"), second = Generic("/d/" + prefix + "-2");
  ASSERT_TRUE(db->addDBRecord(first).IsSuccess());
  EXPECT_FALSE(Find(*db, second, 1, true) || Find(*db, second, 1, false));
  ASSERT_TRUE(db->addDBRecord(second).IsSuccess());
  for (const auto& record : {first, second}) {
    ASSERT_TRUE(Find(*db, record, 0, true, &out));
    EXPECT_EQ(out->getName(), record->getName());
  }
  EXPECT_EQ(Stored(), "b@42/ " + prefix + "-1@0 " + prefix + "-2@0 ");
}

TEST_F(LookupStoreTest, AddUpdateDeleteAndRoot) {
  ASSERT_TRUE(db->addDBRecord(Generic("/a/b", false, 1)).IsSuccess());
  ASSERT_TRUE(db->addDBRecord(Generic("/a/c", false, 1)).IsSuccess());
  ASSERT_TRUE(db->addDBRecord(Generic("/a/b", true, 2)).IsSuccess());  // present: updated in place
  EXPECT_EQ(Stored(), "b@2/ c@1 ");
  EXPECT_EQ(Count("The Record : " + Generic("/a/b", false, 1)->toString() +  // the stored version
                  " is already present in the Database, so updating the record..."), 1u);
  ASSERT_TRUE(db->updateDBRecord(Generic("/a/b", false, 5)).IsSuccess());
  EXPECT_EQ(Stored(), "b@5 c@1 ");
  EXPECT_EQ(db->updateDBRecord(Generic("/gone")).GetCode(), 22);
  // A duplicate key refused by the engine changes nothing.
  EXPECT_EQ(db->addRecordWithoutCheck(Generic("/a/c", false, 9)).GetCode(), TBL_DUPLICATE_KEY);
  EXPECT_EQ(Stored(), "b@5 c@1 ");

  ASSERT_TRUE(db->deleteDBRecord(Generic("/a/b")).IsSuccess());
  EXPECT_FALSE(Find(*db, Generic("/a/b"), 0) || Find(*db, Generic("/a/b"), 1)) << "gone from every index";
  EXPECT_TRUE(db->deleteDBRecord(Generic("/a/b")).IsSuccess()) << "absent: nothing to do";
  EXPECT_EQ(Stored(), "c@1 ");

  // Adding a root record sets the root, through either add.
  WzScanDBRecordBasePtr before = db->getRoot();
  ASSERT_TRUE(db->addDBRecord(Generic("/a")).IsSuccess());
  EXPECT_EQ(db->getRoot(), before) << "a record with a parent is not a root";
  WzScanDBRecordBasePtr root = Generic("/", true, 7), again = Generic("/", true, 8);
  ASSERT_TRUE(db->addDBRecord(root).IsSuccess());
  EXPECT_EQ(db->getRoot(), root);
  ASSERT_TRUE(db->deleteDBRecord(root).IsSuccess());
  ASSERT_TRUE(db->addRecordWithoutCheck(again).IsSuccess());
  EXPECT_EQ(db->getRoot(), again);
  EXPECT_EQ(db->addRecordWithoutCheck(Generic("/", true, 9)).GetCode(), TBL_DUPLICATE_KEY);
  EXPECT_EQ(db->getRoot(), again) << "a refused root is not taken";
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
        WzScanDBRecordBasePtr out = Generic(path);
        bool found = false;
        failures[t] += db->addRecordWithoutCheck(Generic(path, false, 1)).IsError() +
                       db->updateDBRecord(Generic(path, false, 1000 + i)).IsError() +
                       (db->checkDBRecord(Generic(path), out, found).IsError() || !found ||
                        out->getRefTime() != 1000u + i || out->getName() != "f" + std::to_string(i));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
  WzScanDBRecord buffer;
  int n = 0;
  for (int s = db->firstRecord(0, buffer.getStructure()); s == TBL_OK; s = db->nextRecord(0, buffer.getStructure()))
    ++n;
  EXPECT_EQ(n, kThreads * kPerThread);
  // The counters, fed from every thread at once, lost no sample.
  ASSERT_TRUE(db->close().IsSuccess());
  EXPECT_EQ(LastCounter("UPDATE_RECORD").find(" UPDATE_RECORD : samples=600 "), 0u);
  EXPECT_EQ(LastCounter("CHECK_RECORD").find(" CHECK_RECORD : samples=1200 "), 0u);
}

}  // namespace
}  // namespace coretest
