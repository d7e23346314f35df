// getPathFromRecord and getUpdatedRecords.

#include <climits>
#include <set>
#include <string>
#include <vector>

#include "TreeReadFixture.h"
#include "WzScanDB/records/BackupTimeRecord.h"

namespace {

constexpr const char* kPathSignature =
    "CKoError WzScanDB::getPathFromRecord(WzScanDBRecordBasePtr, std::string&)";

// A root record (no parent) carrying the name "mnt".
WzScanDBRecordBasePtr NamedRoot(GenericRecords) {
  WzScanDBRecordBasePtr root = WzScanDBRecord("/any/mnt").getRoot();  // keeps the name
  root->setFlags(kRecordFlagDirectory);
  return root;
}
WzScanDBRecordBasePtr NamedRoot(LustreRecords) {
  return boost::make_shared<WzScanDBLustreRecord>(LustreRecords::FidOf(0),
                                                  LustreAPI::CLustreFIDPtr(), "mnt", true, 0);
}

template <class RecordType>
class PathsTest : public TreeReadTest<RecordType> {};
TYPED_TEST_SUITE(PathsTest, TreeRecordTypes);

// Paths are rebuilt from the stored parents up to the root, whose own name
// leads the path; the root alone needs no lookup at all. A missing parent is
// an inconsistency (errno 2); a failing lookup is passed on with the parent
// probe named. Either way the path holds what was built.
TYPED_TEST(PathsTest, PathFromParentLinks) {
  TreeModel& model = this->tree.model();
  const int dir = model.addFolder(0, "dir");
  const int sub = model.addFolder(dir, "sub");
  const int file = model.addFile(sub, "file");
  const int deepest = model.addChain(dir, 40, "n");
  this->Store();

  std::string path = "stale";
  CKoError err = this->db->getPathFromRecord(this->tree.record(file), path);
  ASSERT_FALSE(err.IsError()) << err.AsString();
  EXPECT_EQ("/dir/sub/file", path);  // the root's name is empty
  ASSERT_FALSE(this->db->getPathFromRecord(this->tree.record(deepest), path).IsError());
  EXPECT_EQ(model.fullPath(deepest), path);
  ASSERT_FALSE(this->db->updateDBRecord(NamedRoot(TypeParam())).IsError());
  ASSERT_FALSE(this->db->getPathFromRecord(this->tree.record(file), path).IsError());
  EXPECT_EQ("mnt/dir/sub/file", path);
  ASSERT_FALSE(this->db->getPathFromRecord(this->tree.record(sub), path).IsError());
  EXPECT_EQ("mnt/dir/sub", path);
  // An object that was never initialised fails every lookup.
  WzScanDB uninitialized(TypeParam::Prototype());
  err = uninitialized.getPathFromRecord(NamedRoot(TypeParam()), path);
  EXPECT_FALSE(err.IsError()) << err.AsString();
  EXPECT_EQ("mnt", path);

  WzScanDBRecordBasePtr record = this->tree.record(file);
  err = uninitialized.getPathFromRecord(record, path);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(22, err.GetCode());
  ExpectFrame(Top(err),
              "Cannot check the parent record " + record->MakeParentObject()->toString() + " in DB",
              kPathSignature, 1631);
  EXPECT_EQ("file", path);

  ASSERT_FALSE(this->db->deleteDBRecord(this->tree.record(dir)).IsError());
  err = this->db->getPathFromRecord(record, path);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
  EXPECT_EQ(2, err.GetCode());
  ExpectFrame(Top(err), "The Database is inconsistent. Fix the Database", kPathSignature, 1638);
  EXPECT_EQ("sub/file", path);
}

// Records at or after a reference time: 0 gives every record, the largest
// 64-bit value gives none (tree records keep 32 bits), the list is appended
// to, and every appended record is its own object.
TYPED_TEST(PathsTest, UpdatedRecords) {
  TreeModel& model = this->tree.model();
  std::vector<std::set<int>> stamped;  // nodes per reference time below
  const unsigned long long times[] = {5, 10, 0xFFFFFFFFULL, 0x100000007ULL};
  for (size_t t = 0; t < 4; ++t) {
    const int folder = model.addFolder(0, "t" + std::to_string(t));
    stamped.emplace_back(std::set<int>{folder});
    for (int id : model.addFlat(folder, 20, "e", 4)) stamped.back().insert(id);
    ASSERT_FALSE(this->tree.store(*this->db, times[t]).IsError());
  }
  auto nodes = [&](const std::vector<WzScanDBRecordBasePtr>& records, size_t from) {
    std::set<int> ids;
    for (size_t i = from; i < records.size(); ++i) ids.insert(this->tree.nodeOf(records[i]));
    return ids;
  };
  auto union_of = [&](std::initializer_list<size_t> which) {
    std::set<int> ids;
    for (size_t t : which) ids.insert(stamped[t].begin(), stamped[t].end());
    return ids;
  };

  std::vector<WzScanDBRecordBasePtr> records;
  ASSERT_FALSE(this->db->getUpdatedRecords(&records, 0).IsError());
  EXPECT_EQ(static_cast<size_t>(model.size()), records.size());
  std::set<int> all = union_of({0, 1, 2, 3});
  all.insert(0);
  EXPECT_EQ(all, nodes(records, 0));

  // 6: the records stamped 10, 0xFFFFFFFF and 0x100000007 (kept as 7).
  const WzScanDBRecordBasePtr first = this->tree.record(0), second = this->tree.record(1);
  records = {first, second};
  ASSERT_FALSE(this->db->getUpdatedRecords(&records, 6).IsError());
  ASSERT_GE(records.size(), 2u);
  EXPECT_EQ(first.get(), records[0].get());
  EXPECT_EQ(second.get(), records[1].get());
  EXPECT_EQ(union_of({1, 2, 3}), nodes(records, 2));
  std::set<const void*> objects;
  for (const auto& each : records) objects.insert(each.get());
  EXPECT_EQ(records.size(), objects.size());
  for (size_t i = 2; i < records.size(); ++i) EXPECT_LE(6u, records[i]->getRefTime());

  records.clear();
  ASSERT_FALSE(this->db->getUpdatedRecords(&records, 0xFFFFFFFFULL).IsError());
  EXPECT_EQ(union_of({2}), nodes(records, 0));
  records = {first};
  ASSERT_FALSE(this->db->getUpdatedRecords(&records, ULLONG_MAX).IsError());
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(first.get(), records[0].get());
}

// The backup-time record's change time stands in for its reference time; a
// record without parent links has its own (empty) name as path.
TEST(FlatTableRecords, UpdatedOnChangeTimeAndPathWithoutParents) {
  TempDir dir;
  WzScanDB db(boost::make_shared<CBackupTimeRecord>());
  ASSERT_FALSE(db.initialize(dir.path()).IsError());
  for (unsigned long long inode = 1; inode <= 4; ++inode) {
    ASSERT_FALSE(
        db.addDBRecord(boost::make_shared<CBackupTimeRecord>(inode, inode * 100)).IsError());
  }
  std::vector<WzScanDBRecordBasePtr> records;
  ASSERT_FALSE(db.getUpdatedRecords(&records, 300).IsError());
  std::set<std::string> texts;
  for (const auto& each : records) texts.insert(each->toString());
  EXPECT_EQ((std::set<std::string>{CBackupTimeRecord(3, 300).toString(),
                                   CBackupTimeRecord(4, 400).toString()}),
            texts);

  std::string path = "stale";
  CKoError err = db.getPathFromRecord(boost::make_shared<CBackupTimeRecord>(3, 300), path);
  EXPECT_FALSE(err.IsError()) << err.AsString();
  EXPECT_EQ("", path);
  db.close();
}

}  // namespace
