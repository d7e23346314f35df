// getPathFromRecord and getUpdatedRecords.

#include <climits>
#include <map>
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
  const int deepest = model.addChain(dir, 4200, "n");  // deeper than any real path
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
  std::map<int, unsigned long long> kept{{0, 0}};  // node -> the reference time it keeps
  for (unsigned long long time : {5ULL, 10ULL, 0xFFFFFFFFULL, 0x100000007ULL}) {
    const int folder = model.addFolder(0, "t" + std::to_string(time));
    kept[folder] = time & 0xFFFFFFFFULL;
    for (int id : model.addFlat(folder, 20, "e", 4)) kept[id] = time & 0xFFFFFFFFULL;
    ASSERT_FALSE(this->tree.store(*this->db, time).IsError());
  }

  const WzScanDBRecordBasePtr first = this->tree.record(0);
  for (unsigned long long at : {0ULL, 6ULL, 0xFFFFFFFFULL, ULLONG_MAX}) {
    SCOPED_TRACE(at);
    std::set<int> expected, found;
    for (const auto& [id, time] : kept)
      if (time >= at) expected.insert(id);
    std::vector<WzScanDBRecordBasePtr> records{first};
    ASSERT_FALSE(this->db->getUpdatedRecords(&records, at).IsError());
    ASSERT_EQ(expected.size() + 1, records.size());
    EXPECT_EQ(first.get(), records[0].get());
    std::set<const void*> objects;
    for (const auto& each : records) {
      objects.insert(each.get());
      if (each != first) found.insert(this->tree.nodeOf(each));
    }
    EXPECT_EQ(expected, found);
    EXPECT_EQ(records.size(), objects.size());
  }
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
