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
    db = NewGenericDb();
    ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  }
  void TearDown() override {
    db->close();
    CoreTest::TearDown();
  }
  size_t CountRecords() {
    WzScanDBRecord buffer;
    size_t n = 0;
    for (int s = db->firstRecord(0, buffer.getStructure()); s == TBL_OK;
         s = db->nextRecord(0, buffer.getStructure()))
      ++n;
    return n;
  }
  unsigned long long RefTime(const std::string& path) {
    WzScanDBRecordBasePtr out;
    EXPECT_TRUE(Find(*db, Generic(path), 0, true, &out)) << path;
    return out->getRefTime();
  }

  WzScanDBPtr db;
};

TEST_F(LookupStoreTest, LookupOnEveryIndex) {
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
  ASSERT_TRUE(Find(*db, Generic("/a/b"), 0, true, &out));
  EXPECT_EQ(std::memcmp(out->getStructure(), stored->getStructure(), 436), 0);
  ASSERT_TRUE(Find(*db, Generic("/a/b"), 1, true, &out)) << "by parent and name";
  EXPECT_EQ(out->getRefTime(), 42u);
  EXPECT_TRUE(Find(*db, Generic("/a/b"), 1, false));

  // At-or-after on the parent index lands on /a/b for /a/a; only the record
  // type's equality test tells them apart.
  for (int index : {0, 1})
    for (bool exact : {true, false})
      EXPECT_FALSE(Find(*db, Generic("/a/a"), index, exact)) << index << exact;

  // Same parent and same first 56 name bytes: the same index-1 key, but not
  // the same entry. Both can be stored and each is found as itself.
  const std::string prefix(56, 'n');
  WzScanDBRecordBasePtr first = Generic("/d/" + prefix + "-first");
  WzScanDBRecordBasePtr second = Generic("/d/" + prefix + "-second");
  ASSERT_TRUE(db->addDBRecord(first).IsSuccess());
  EXPECT_FALSE(Find(*db, second, 1, true));
  EXPECT_FALSE(Find(*db, second, 1, false));
  EXPECT_TRUE(Find(*db, first, 1, true));
  ASSERT_TRUE(db->addDBRecord(second).IsSuccess());
  EXPECT_EQ(CountRecords(), 3u);
  using Named = std::pair<WzScanDBRecordBasePtr, std::string>;
  for (const auto& [record, name] :
       {Named{first, prefix + "-first"}, Named{second, prefix + "-second"}}) {
    ASSERT_TRUE(Find(*db, record, 0, true, &out)) << name;
    EXPECT_EQ(out->getName(), name);
  }
}

TEST_F(LookupStoreTest, AddUpdateDeleteAndRoot) {
  ASSERT_TRUE(db->addDBRecord(Generic("/a/b", false, 1)).IsSuccess());
  ASSERT_TRUE(db->addDBRecord(Generic("/a/c", false, 1)).IsSuccess());
  // Add twice updates in place; the line quotes the stored version.
  ASSERT_TRUE(db->addDBRecord(Generic("/a/b", true, 2)).IsSuccess());
  EXPECT_EQ(Count("The Record : " + Generic("/a/b", false, 1)->toString() +
                  " is already present in the Database, so updating the record..."), 1u);
  EXPECT_EQ(CountRecords(), 2u);
  WzScanDBRecordBasePtr out;
  ASSERT_TRUE(Find(*db, Generic("/a/b"), 0, true, &out));
  EXPECT_TRUE(out->isDir());
  EXPECT_EQ(out->getRefTime(), 2u);

  ASSERT_TRUE(db->updateDBRecord(Generic("/a/b", false, 5)).IsSuccess());
  EXPECT_EQ(RefTime("/a/b"), 5u);
  EXPECT_EQ(RefTime("/a/c"), 1u) << "the update touched only its own record";
  CKoError error = db->updateDBRecord(Generic("/gone"));
  EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
  EXPECT_EQ(error.GetCode(), 22);

  ASSERT_TRUE(db->deleteDBRecord(Generic("/a/b")).IsSuccess());
  EXPECT_FALSE(Find(*db, Generic("/a/b"), 0));
  EXPECT_FALSE(Find(*db, Generic("/a/b"), 1)) << "gone from every index";
  EXPECT_TRUE(db->deleteDBRecord(Generic("/a/b")).IsSuccess()) << "absent: nothing to do";
  EXPECT_EQ(CountRecords(), 1u);

  // A duplicate key refused by the engine changes nothing and says why.
  error = db->addRecordWithoutCheck(Generic("/a/c", false, 9));
  EXPECT_EQ(error.GetKind(), EKoErrorKind::kInt);
  EXPECT_EQ(error.GetCode(), TBL_DUPLICATE_KEY);
  EXPECT_NE(error.GetOriginMessage().find(TCtreeTable::errToString(TBL_DUPLICATE_KEY)),
            std::string::npos);
  EXPECT_EQ(RefTime("/a/c"), 1u);

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
        WzScanDBRecordBasePtr out = Generic(path);
        bool found = false;
        if (db->checkDBRecord(Generic(path), out, found).IsError() || !found ||
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
