// getChildren: direct children of a folder from the parent-and-name index.

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "TreeReadFixture.h"
#include "WzScanDB/records/BackupTimeRecord.h"

namespace {

template <class RecordType>
class ChildrenTest : public TreeReadTest<RecordType> {};
TYPED_TEST_SUITE(ChildrenTest, TreeRecordTypes);

// Names that agree on the 56 bytes the index keys on get equal keys under
// one parent; every one of them is still listed, with its whole name, as its
// own object, and the walk does not run into the next folder's children. A
// file lists nothing, and the list is cleared first.
TYPED_TEST(ChildrenTest, NamesSharingTheirKeyPrefixAreAllListed) {
  TreeModel& model = this->tree.model();
  const std::string shared(56, 'n');
  const int folder = model.addFolder(0, "folder");
  for (const std::string& name : {shared, shared + "b", shared + "a", shared.substr(0, 55),
                                  std::string("m")})
    model.addFile(folder, name);
  model.addFolder(folder, shared + std::string(150, 'z'));
  model.addFile(model.addFolder(0, "next"), shared + "a");  // the folder stored after it
  this->Store();

  std::vector<WzScanDBRecordBasePtr> children;
  CKoError err = this->db->getChildren(this->tree.record(folder), children);
  ASSERT_FALSE(err.IsError()) << err.AsString();
  std::vector<std::string> names;
  std::set<const void*> objects;
  for (const auto& child : children) {
    names.push_back(child->getName());
    objects.insert(child.get());
    EXPECT_TRUE(child->checkParent(this->tree.record(folder)));
    EXPECT_EQ(names.back().size() == 206, child->isDir()) << names.back();
  }
  ASSERT_EQ(6u, names.size());
  EXPECT_EQ(6u, objects.size());
  // Shorter key first: "m", then the 55-byte prefix, then the four names whose
  // keys are equal, in an order the engine chooses.
  EXPECT_EQ("m", names[0]);
  EXPECT_EQ(shared.substr(0, 55), names[1]);
  EXPECT_EQ((std::set<std::string>{shared, shared + "a", shared + "b",
                                   shared + std::string(150, 'z')}),
            std::set<std::string>(names.begin() + 2, names.end()));

  ASSERT_FALSE(this->db->getChildren(children[0], children).IsError());  // "m", a file
  EXPECT_TRUE(children.empty());
}

// Every folder of a random tree (an empty one included) lists exactly its
// own children, in index order, into a list reused from the last folder. A
// database class derived from WzScanDB may override the engine reads, so its
// getChildren goes through getGTERecord and nextRecord themselves; the
// database's own class reads each run in one engine call. Both list the same
// children and time one READ_RECORD sample per record read, the record that
// ends the run included.
template <class RecordType>
struct CountingReads : WzScanDB {
  CountingReads() : WzScanDB(RecordType::Prototype()) {}
  int getGTERecord(int i, void* key, void* out) override {
    return ++gte, WzScanDB::getGTERecord(i, key, out);
  }
  int nextRecord(int i, void* out) override { return ++next, WzScanDB::nextRecord(i, out); }
  int gte = 0, next = 0;
};

TYPED_TEST(ChildrenTest, EveryFolderListsItsChildrenAlsoThroughOverriddenReads) {
  TreeModel& model = this->tree.model();
  model.addRandom(model.addFolder(0, "top"), 1500, 12, 7);
  model.addFolder(0, "empty");
  this->Store();
  TempDir otherDir;
  CountingReads<TypeParam> derived;
  ASSERT_FALSE(derived.initialize(otherDir.path()).IsError());
  for (int id = 0; id < model.size(); ++id)
    ASSERT_FALSE(derived.addRecordWithoutCheck(this->tree.record(id)).IsError());
  LogAt log(0);

  std::vector<WzScanDBRecordBasePtr> own, through;
  int reads = 0, folders = 0;
  for (int id = 0; id < model.size(); ++id) {
    if (!model.node(id).isDir) continue;
    ++folders;
    ASSERT_FALSE(this->db->getChildren(this->tree.record(id), own).IsError());
    const int nextBefore = derived.next;
    ASSERT_FALSE(derived.getChildren(this->tree.record(id), through).IsError());
    ASSERT_EQ(this->tree.nodesOf(own), this->tree.nodesOf(through)) << "folder " << id;
    ASSERT_EQ(this->tree.nodesOf(own), model.childrenInKeyOrder(id)) << "folder " << id;
    EXPECT_EQ(derived.next - nextBefore, static_cast<int>(through.size()));
    for (size_t i = 0; i < own.size(); ++i)
      EXPECT_EQ(0, memcmp(own[i]->getStructure(), through[i]->getStructure(), 436));
    reads += own.size() + 1;
  }
  EXPECT_EQ(derived.gte, folders);
  EXPECT_GT(folders, 100);

  // The counter blocks written by close: one sample per read on both.
  const std::string expected = " READ_RECORD : samples=" + std::to_string(reads) + " ";
  this->db->close();
  derived.close();
  auto lines = log->FindContaining(" READ_RECORD : ");
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(0u, lines[lines.size() - 2].message.find(expected)) << lines[lines.size() - 2].message;
  EXPECT_EQ(0u, lines.back().message.find(expected)) << lines.back().message;
}

// A table without a tree: the backup-time record has no parent index and
// describes no children key, so the engine refuses to build one. getChildren
// reports that, and every walk passes it on from its own source line.
TEST(ChildrenOfFlatTable, BackupTimeRecordsHaveNoChildrenKey) {
  TempDir dir;
  WzScanDB db(boost::make_shared<CBackupTimeRecord>());
  ASSERT_FALSE(db.initialize(dir.path()).IsError());
  for (unsigned long long inode = 0; inode < 5; ++inode) {
    ASSERT_FALSE(
        db.addDBRecord(boost::make_shared<CBackupTimeRecord>(inode, 100 + inode)).IsError());
  }
  const auto start = boost::make_shared<CBackupTimeRecord>(0, 0);
  std::vector<WzScanDBRecordBasePtr> records{boost::make_shared<CBackupTimeRecord>(9, 9)};
  CKoError err = db.getChildren(start, records);
  ASSERT_TRUE(err.IsError());
  EXPECT_TRUE(records.empty());
  ExpectFrame(Top(err), "Cannot create key to get children for the directory Inode : 0 , Ctime : 0",
              "CKoError WzScanDB::getChildren(WzScanDBRecordBasePtr, "
              "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&)",
              1590);

  // The walks name the stored start record (ctime 100) as the folder.
  std::vector<std::string> paths;
  const int walkLines[] = {1129, 1458, 1514};
  for (int line : walkLines) {
    err = line == 1129   ? db.getSubTree(start, records, false)
          : line == 1458 ? db.getSubTree(start, records, paths, 10, false)
                         : db.getSubTree(start, records, 10, false);
    ASSERT_TRUE(err.IsError()) << line;
    EXPECT_EQ("getChildren(Inode : 0 , Ctime : 100) Failed", Top(err).message);
    EXPECT_EQ(line, Top(err).location.line);
    EXPECT_EQ(1590, err.GetFrames()[err.GetFrames().size() - 2].location.line);
  }
  // The failing folder has left the pending list: the walk is over.
  ASSERT_FALSE(db.getSubTree(WzScanDBRecordBasePtr(), records, 10, true).IsError());
  EXPECT_TRUE(records.empty());
  db.close();
}

}  // namespace
