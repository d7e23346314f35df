// getChildren: direct children of a folder from the parent-and-name index.

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "TreeReadFixture.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "runtime/LogCapture.h"

namespace {

template <class RecordType>
class ChildrenTest : public TreeReadTest<RecordType> {};
TYPED_TEST_SUITE(ChildrenTest, TreeRecordTypes);

// Every folder of a random tree lists exactly its own children, in index
// order, and nothing of the folders stored next to it; a file lists nothing.
TYPED_TEST(ChildrenTest, EveryFolderListsExactlyItsChildrenInKeyOrder) {
  TreeModel& model = this->tree.model();
  const int top = model.addFolder(0, "top");
  model.addRandom(top, 1500, 12, 7);
  const int emptyFolder = model.addFolder(0, "empty");
  const int file = model.addFile(0, "file");
  this->Store();

  std::vector<WzScanDBRecordBasePtr> children;
  int folders = 0;
  for (int id = 0; id < model.size(); ++id) {
    if (!model.node(id).isDir) continue;
    ++folders;
    CKoError err = this->db->getChildren(this->tree.record(id), children);
    ASSERT_FALSE(err.IsError()) << err.AsString();
    ASSERT_EQ(this->tree.nodesOf(children), model.childrenInKeyOrder(id)) << "folder " << id;
  }
  EXPECT_GT(folders, 100);

  // Each child is its own object, carrying the stored image.
  ASSERT_FALSE(this->db->getChildren(this->tree.record(0), children).IsError());
  ASSERT_EQ(3u, children.size());
  EXPECT_NE(children[0].get(), children[1].get());
  EXPECT_TRUE(children[0]->isDir());      // "empty"
  EXPECT_EQ("file", children[1]->getName());
  EXPECT_FALSE(children[1]->isDir());

  children.push_back(this->tree.record(top));  // the list is cleared first
  ASSERT_FALSE(this->db->getChildren(this->tree.record(emptyFolder), children).IsError());
  EXPECT_TRUE(children.empty());

  children.push_back(this->tree.record(top));
  CKoError err = this->db->getChildren(this->tree.record(file), children);
  EXPECT_FALSE(err.IsError()) << err.AsString();
  EXPECT_TRUE(children.empty());
}

// Names that agree on the 56 bytes the index keys on get equal keys under
// one parent; every one of them is still listed, with its whole name, and the
// walk does not run into the next folder's children.
TYPED_TEST(ChildrenTest, NamesSharingTheirKeyPrefixAreAllListed) {
  TreeModel& model = this->tree.model();
  const std::string shared(56, 'n');
  const int folder = model.addFolder(0, "folder");
  model.addFile(folder, shared);
  model.addFile(folder, shared + "b");
  model.addFile(folder, shared + "a");
  model.addFolder(folder, shared + std::string(150, 'z'));
  model.addFile(folder, shared.substr(0, 55));
  model.addFile(folder, "m");
  const int next = model.addFolder(0, "next");
  model.addFile(next, shared + "a");  // same name in the folder stored after it
  this->Store();

  std::vector<WzScanDBRecordBasePtr> children;
  CKoError err = this->db->getChildren(this->tree.record(folder), children);
  ASSERT_FALSE(err.IsError()) << err.AsString();

  std::vector<std::string> names;
  for (const auto& child : children) names.push_back(child->getName());
  ASSERT_EQ(6u, names.size());
  // Shorter key first: "m", then the 55-byte prefix, then the four names whose
  // keys are equal, in an order the engine chooses.
  EXPECT_EQ("m", names[0]);
  EXPECT_EQ(shared.substr(0, 55), names[1]);
  std::set<std::string> tied(names.begin() + 2, names.end());
  EXPECT_EQ((std::set<std::string>{shared, shared + "a", shared + "b",
                                   shared + std::string(150, 'z')}),
            tied);
  for (const auto& child : children) EXPECT_TRUE(child->checkParent(this->tree.record(folder)));
}

// A database class derived from WzScanDB may override the engine reads, so
// its getChildren goes through getGTERecord and nextRecord themselves; the
// database's own class reads each run in one engine call. Both list the same
// children and time one READ_RECORD sample per record read, the record that
// ends the run included.
template <class RecordType>
class CountingReads : public WzScanDB {
 public:
  CountingReads() : WzScanDB(RecordType::Prototype()) {}
  int getGTERecord(int index, void* key, void* buffer) override {
    ++gte;
    return WzScanDB::getGTERecord(index, key, buffer);
  }
  int nextRecord(int index, void* buffer) override {
    ++next;
    return WzScanDB::nextRecord(index, buffer);
  }
  int gte = 0, next = 0;
};

TYPED_TEST(ChildrenTest, DerivedClassesReadThroughTheirOverridesAndListTheSame) {
  TreeModel& model = this->tree.model();
  model.addRandom(model.addFolder(0, "top"), 300, 6, 3);
  model.addFolder(0, "empty");
  this->Store();
  TempDir otherDir;
  CountingReads<TypeParam> derived;
  ASSERT_FALSE(derived.initialize(otherDir.path()).IsError());
  for (int id = 0; id < model.size(); ++id)
    ASSERT_FALSE(derived.addRecordWithoutCheck(this->tree.record(id)).IsError());
  auto capture = CLogCapture::Install();

  std::vector<WzScanDBRecordBasePtr> own, through;
  size_t reads = 0, folders = 0;
  for (int id = 0; id < model.size(); ++id) {
    if (!model.node(id).isDir) continue;
    ++folders;
    ASSERT_FALSE(this->db->getChildren(this->tree.record(id), own).IsError());
    const int nextBefore = derived.next;
    ASSERT_FALSE(derived.getChildren(this->tree.record(id), through).IsError());
    ASSERT_EQ(this->tree.nodesOf(own), this->tree.nodesOf(through)) << "folder " << id;
    ASSERT_EQ(this->tree.nodesOf(own), model.childrenInKeyOrder(id)) << "folder " << id;
    EXPECT_EQ(size_t(derived.next - nextBefore), through.size());
    for (size_t i = 0; i < own.size(); ++i)
      EXPECT_EQ(0, memcmp(own[i]->getStructure(), through[i]->getStructure(), 436));
    reads += own.size() + 1;
  }
  EXPECT_EQ(size_t(derived.gte), folders);

  // The counter blocks written by close: one sample per read on both.
  const std::string expected = " READ_RECORD : samples=" + std::to_string(reads) + " ";
  this->db->close();
  derived.close();
  auto lines = capture->FindContaining(" READ_RECORD : ");
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(0u, lines[lines.size() - 2].message.find(expected)) << lines[lines.size() - 2].message;
  EXPECT_EQ(0u, lines.back().message.find(expected)) << lines.back().message;
  capture->Remove();
}

// A table without a tree: the backup-time record has no parent index and
// describes no children key, so the engine refuses to build one. getChildren
// reports that, and every walk passes it on from its own source line.
TEST(ChildrenOfFlatTable, BackupTimeRecordsHaveNoChildrenKey) {
  TempDir dir;
  WzScanDB db(boost::make_shared<CBackupTimeRecord>());
  ASSERT_FALSE(db.initialize(dir.path()).IsError());
  for (unsigned long long inode = 0; inode < 5; ++inode) {
    ASSERT_FALSE(db.addDBRecord(boost::make_shared<CBackupTimeRecord>(inode, 100 + inode)).IsError());
  }
  const std::string children_signature =
      "CKoError WzScanDB::getChildren(WzScanDBRecordBasePtr, "
      "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&)";
  std::vector<WzScanDBRecordBasePtr> children{boost::make_shared<CBackupTimeRecord>(9, 9)};
  CKoError err = db.getChildren(boost::make_shared<CBackupTimeRecord>(0, 0), children);
  ASSERT_TRUE(err.IsError());
  EXPECT_TRUE(children.empty());
  EXPECT_EQ("Cannot create key to get children for the directory Inode : 0 , Ctime : 0",
            Top(err).message);
  EXPECT_EQ(children_signature, Top(err).location.function);
  EXPECT_EQ(1590, Top(err).location.line);

  // The walks name the stored start record (ctime 100) as the folder.
  const std::string failed = "getChildren(Inode : 0 , Ctime : 100) Failed";
  std::vector<WzScanDBRecordBasePtr> records;
  std::vector<std::string> paths;
  err = db.getSubTree(boost::make_shared<CBackupTimeRecord>(0, 0), records, false);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(failed, Top(err).message);
  EXPECT_EQ(1129, Top(err).location.line);
  EXPECT_EQ(1590, err.GetFrames()[err.GetFrames().size() - 2].location.line);
  err = db.getSubTree(boost::make_shared<CBackupTimeRecord>(0, 0), records, paths, 10, false);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(failed, Top(err).message);
  EXPECT_EQ(1458, Top(err).location.line);
  err = db.getSubTree(boost::make_shared<CBackupTimeRecord>(0, 0), records, 10, false);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(1514, Top(err).location.line);
  // The failing folder has left the pending list: the walk is over.
  ASSERT_FALSE(db.getSubTree(WzScanDBRecordBasePtr(), records, 10, true).IsError());
  EXPECT_TRUE(records.empty());
  db.close();
}

}  // namespace
