// getChildren and getPathFromRecord, and a table of records without a tree.
#include <algorithm>
#include <cstring>
#include <set>

#include "TreeReadFixture.h"
#include "WzScanDB/records/BackupTimeRecord.h"

namespace {

template <class RecordType>
class ChildrenTest : public TreeReadTest<RecordType> {};
TYPED_TEST_SUITE(ChildrenTest, TreeRecordTypes);

// A database class that counts the engine reads it overrides.
template <class RecordType>
struct CountingReads : WzScanDB {
  CountingReads() : WzScanDB(RecordType::Prototype()) {}
  int getGTERecord(int i, void* key, void* out) override {
    return ++gte, WzScanDB::getGTERecord(i, key, out);
  }
  int nextRecord(int i, void* out) override { return ++next, WzScanDB::nextRecord(i, out); }
  int gte = 0, next = 0;
};

// Every entry of a random tree (an empty folder included, and a folder whose
// children's names agree on the 56 bytes the index keys on) lists exactly its
// own children, in index order, with their whole names, into a list reused
// from the last entry; a file lists nothing. Names with equal keys come after
// shorter ones in an order the engine chooses, and the walk does not run into
// the next folder's children. A class derived from WzScanDB may override the
// engine reads, so its getChildren goes through getGTERecord and nextRecord
// themselves; the database's own class reads each run in one engine call.
// Both list the same and time one READ_RECORD sample per record read, the
// record that ends the run included.
TYPED_TEST(ChildrenTest, EveryEntryListsItsChildrenAlsoThroughOverriddenReads) {
  TreeModel& t = this->t;
  t.addRandom(t.addFolder(0, "top"), 600, 12, 7);
  t.addFolder(0, "empty");
  const std::string shared(56, 'n');
  const int equalKeys = t.addFolder(0, "shared");
  for (const std::string& name : {shared, shared + "b", shared + "a", shared.substr(0, 55),
                                  std::string("m"), shared + std::string(150, 'z')})
    t.add(equalKeys, name, name.size() > 200);
  t.addFile(t.addFolder(0, "next"), shared + "a");  // the folder stored after it
  this->Store();
  TempDir otherDir;
  CountingReads<TypeParam> derived;
  ASSERT_FALSE(derived.initialize(otherDir.path()).IsError());
  this->StoreInto(derived, 0);
  LogAt log(0);

  Records own, through;
  int reads = 0;
  for (int id = 0; id < t.size(); ++id) {
    ASSERT_FALSE(this->db->getChildren(this->Rec(id), own).IsError());
    const int nextBefore = derived.next;
    ASSERT_FALSE(derived.getChildren(this->Rec(id), through).IsError());
    std::vector<int> expected = t.childrenInKeyOrder(id), listed = this->NodesOf(own);
    if (id == equalKeys && listed.size() == 6) {
      std::sort(expected.begin() + 2, expected.end());
      std::sort(listed.begin() + 2, listed.end());
    }
    ASSERT_EQ(expected, listed) << t.fullPath(id);
    ASSERT_EQ(this->NodesOf(own), this->NodesOf(through)) << t.fullPath(id);
    EXPECT_EQ(derived.next - nextBefore, static_cast<int>(through.size()));
    for (size_t i = 0; i < own.size(); ++i) {
      EXPECT_EQ(t.nodes[this->NodeOf(own[i])].name, own[i]->getName());
      EXPECT_EQ(t.nodes[this->NodeOf(own[i])].isDir, own[i]->isDir());
      EXPECT_EQ(0, memcmp(own[i]->getStructure(), through[i]->getStructure(), 436));
    }
    reads += own.size() + 1;
  }
  EXPECT_EQ(derived.gte, t.size());

  // The counter blocks written by close: one sample per read on both.
  const std::string expected = " READ_RECORD : samples=" + std::to_string(reads) + " ";
  this->db->close();
  derived.close();
  auto lines = log->FindContaining(" READ_RECORD : ");
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(0u, lines.end()[-2].message.find(expected)) << lines.end()[-2].message;
  EXPECT_EQ(0u, lines.back().message.find(expected)) << lines.back().message;
}

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
constexpr const char* kPath =
    "CKoError WzScanDB::getPathFromRecord(WzScanDBRecordBasePtr, std::string&)";

// Paths are rebuilt from the stored parents up to the root, whose own name
// leads the path; the root alone needs no lookup at all. A missing parent is
// an inconsistency (errno 2); a failing lookup is passed on with the parent
// probe named. Either way the path holds what was built.
TYPED_TEST(ChildrenTest, PathFromParentLinks) {
  const int dir = this->t.addFolder(0, "dir");
  const int sub = this->t.addFolder(dir, "sub");
  const int file = this->t.addFile(sub, "file");
  int deepest = dir;  // deeper than any real path
  for (int i = 0; i < 4200; ++i) deepest = this->t.addFolder(deepest, "n" + std::to_string(i));
  this->Store();

  std::string path = "stale";
  ASSERT_FALSE(this->db->getPathFromRecord(this->Rec(file), path).IsError());
  EXPECT_EQ("/dir/sub/file", path);  // the root's name is empty
  ASSERT_FALSE(this->db->getPathFromRecord(this->Rec(deepest), path).IsError());
  EXPECT_EQ(this->t.fullPath(deepest), path);
  ASSERT_FALSE(this->db->updateDBRecord(NamedRoot(TypeParam())).IsError());
  ASSERT_FALSE(this->db->getPathFromRecord(this->Rec(file), path).IsError());
  EXPECT_EQ("mnt/dir/sub/file", path);
  ASSERT_FALSE(this->db->getPathFromRecord(this->Rec(sub), path).IsError());
  EXPECT_EQ("mnt/dir/sub", path);
  // An object that was never initialised fails every lookup.
  WzScanDB uninitialized(TypeParam::Prototype());
  EXPECT_FALSE(uninitialized.getPathFromRecord(NamedRoot(TypeParam()), path).IsError());
  EXPECT_EQ("mnt", path);
  WzScanDBRecordBasePtr record = this->Rec(file);
  ExpectTop(uninitialized.getPathFromRecord(record, path), EKoErrorKind::kErrNo, 22,
            "Cannot check the parent record " + record->MakeParentObject()->toString() + " in DB",
            kPath, 1631);
  EXPECT_EQ("file", path);
  ASSERT_FALSE(this->db->deleteDBRecord(this->Rec(dir)).IsError());
  ExpectTop(this->db->getPathFromRecord(record, path), EKoErrorKind::kErrNo, 2,
            "The Database is inconsistent. Fix the Database", kPath, 1638);
  EXPECT_EQ("sub/file", path);
}

// The backup-time record has no parent index: its change time stands in for
// the reference time of getUpdatedRecords, which appends each record at or
// after it as its own object; its path is its own (empty) name; it describes
// no children key, so getChildren reports that the engine refused to build
// one and every walk passes it on from its own line, naming the stored start
// record (ctime 100) as the folder. The failing folder has left the pending
// list: the walk is over.
TEST(FlatTable, UpdatedOnChangeTimeNoPathNoChildren) {
  TempDir dir;
  WzScanDB db(boost::make_shared<CBackupTimeRecord>());
  ASSERT_FALSE(db.initialize(dir.path()).IsError());
  for (unsigned long long inode = 0; inode < 5; ++inode)
    ASSERT_FALSE(db.addDBRecord(boost::make_shared<CBackupTimeRecord>(inode, 100 * (inode + 1)))
                     .IsError());
  const auto start = boost::make_shared<CBackupTimeRecord>(0, 0);
  Records records{start};
  ASSERT_FALSE(db.getUpdatedRecords(&records, 400).IsError());
  std::set<std::string> texts;
  for (const auto& each : records) texts.insert(each->toString());
  EXPECT_EQ((std::set<std::string>{start->toString(), CBackupTimeRecord(3, 400).toString(),
                                   CBackupTimeRecord(4, 500).toString()}),
            texts);
  std::string path = "stale";
  EXPECT_FALSE(db.getPathFromRecord(records[1], path).IsError());
  EXPECT_EQ("", path);

  ExpectTop(db.getChildren(start, records), EKoErrorKind::kInt, -1,
            "Cannot create key to get children for the directory Inode : 0 , Ctime : 0",
            "CKoError WzScanDB::getChildren(WzScanDBRecordBasePtr, "
            "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&)",
            1590);
  EXPECT_TRUE(records.empty());
  Paths paths;
  for (int line : {1129, 1458, 1514}) {
    CKoError err = line == 1129   ? db.getSubTree(start, records, false)
                   : line == 1458 ? db.getSubTree(start, records, paths, 10, false)
                                  : db.getSubTree(start, records, 10, false);
    ASSERT_TRUE(err.IsError()) << line;
    EXPECT_EQ("getChildren(Inode : 0 , Ctime : 100) Failed", err.GetTopMessage());
    EXPECT_EQ(line, err.GetFrames().back().location.line);
    EXPECT_EQ(1590, err.GetFrames().end()[-2].location.line);
  }
  ASSERT_FALSE(db.getSubTree(nullptr, records, 10, true).IsError());
  EXPECT_TRUE(records.empty());
  db.close();
}

}  // namespace
