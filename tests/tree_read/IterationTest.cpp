// getFirstItem / getNextItem: the item-by-item walk with relative paths.

#include <string>
#include <vector>

#include "TreeReadFixture.h"

namespace {

constexpr const char* kFirstSignature =
    "CKoError WzScanDB::getFirstItem(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr&, std::string&)";
constexpr const char* kNextSignature =
    "CKoError WzScanDB::getNextItem(WzScanDBRecordBasePtr&, std::string&)";

void ExpectEndOfIteration(const CKoError& err, const char* signature, int line) {
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(EKoErrorKind::kWin32, err.GetKind());
  EXPECT_EQ(18, err.GetCode());
  EXPECT_STREQ("WzScanDB/WzScanDB", Top(err).location.file);
  EXPECT_STREQ(signature, Top(err).location.function);
  EXPECT_EQ(line, Top(err).location.line);
}

template <class RecordType>
class IterationTest : public TreeReadTest<RecordType> {
 protected:
  // Walks every item below `start`; returns the node ids and fills `paths`.
  std::vector<int> WalkAll(int start, std::vector<std::string>& paths) {
    std::vector<int> ids;
    paths.clear();
    WzScanDBRecordBasePtr item;
    std::string path;
    CKoError err = this->db->getFirstItem(this->tree.record(start), item, path);
    for (; !err.IsError(); err = this->db->getNextItem(item, path)) {
      ids.push_back(this->tree.nodeOf(item));
      paths.push_back(path);
    }
    ExpectEndOfIteration(err, kNextSignature, 1562);
    return ids;
  }

  // A start folder with `count` children, every 2000th a folder with three
  // files, the first of them also holding a folder with one file; every
  // record marked visited. The walk matches the model; the first batch holds
  // `firstBatch` items and keeps its bits, every later item has its bit
  // cleared, records outside the walk (the start included) keep theirs.
  void CheckWideIteration(int count, size_t firstBatch) {
    TreeModel& model = this->tree.model();
    const int start = model.addFolder(0, "wide");
    for (int child : model.addFlat(start, count, "c", 2000)) model.addFlat(child, 3, "f", 0);
    const int nested = model.addFolder(model.childrenInKeyOrder(start).front(), "nested");
    model.addFile(nested, "deep");
    model.addFile(model.addFolder(0, "outside"), "x");
    this->Store();
    this->MarkAllVisited();
    {
      LogAt log(6);
      WzScanDBRecordBasePtr item;
      std::string path;
      ASSERT_FALSE(this->db->getFirstItem(this->tree.record(start), item, path).IsError());
      log.ExpectOnce("Calling Subtree function to Buffer " + std::to_string(firstBatch) +
                         " items in Memory",
                     1540, 6, kFirstSignature);
    }

    const std::vector<int> expected = model.breadthFirst(start);
    std::vector<std::string> paths;
    ASSERT_EQ(expected, WalkAll(start, paths));
    EXPECT_EQ(this->RelativePaths(start, expected), paths);
    std::vector<bool> walkedLater(model.size(), false);
    for (size_t i = firstBatch; i < expected.size(); ++i) walkedLater[expected[i]] = true;
    size_t cleared = 0;
    for (const auto& [id, flags] : this->TableFlags()) {
      ASSERT_GE(id, 0);
      const int dir = model.node(id).isDir ? kRecordFlagDirectory : 0;
      cleared += walkedLater[id];
      ASSERT_EQ(dir | (walkedLater[id] ? 0 : kRecordFlagVisited), flags)
          << model.relativePath(0, id);
    }
    EXPECT_EQ(expected.size() - firstBatch, cleared);
  }
};
TYPED_TEST_SUITE(IterationTest, TreeRecordTypes);

// Three children: each comes once, by name, with its bare name as path; then
// the end error, again on a further call, without touching the caller's
// item; a new getFirstItem starts over. A start without children (an empty
// folder, a file) ends at once, leaving the caller's item and path alone; a
// start that is not stored fails with the sub-tree error wrapped.
TYPED_TEST(IterationTest, ShortWalksAndTheirEnds) {
  TreeModel& model = this->tree.model();
  const int start = model.addFolder(0, "start");
  model.addFile(start, "b");
  model.addFolder(start, "c");
  model.addFile(start, "a");
  const int empty = model.addFolder(0, "empty");
  const int file = model.addFile(0, "file");
  this->Store();

  LogAt log(6);
  WzScanDBRecordBasePtr item;
  std::string path;
  CKoError err = this->db->getFirstItem(this->tree.record(start), item, path);
  ASSERT_FALSE(err.IsError()) << err.AsString();
  EXPECT_EQ("a", item->getName());
  EXPECT_EQ("a", path);
  EXPECT_EQ(1u, log->Find("Calling Subtree function to Buffer 3 items in Memory").size());
  log.ExpectOnce("The First Item from WzScanDB is : " + item->toString(), 1543);
  for (const char* name : {"b", "c"}) {
    err = this->db->getNextItem(item, path);
    ASSERT_FALSE(err.IsError()) << err.AsString();
    EXPECT_EQ(name, item->getName());
    EXPECT_EQ(name, path);
    log.ExpectOnce("The Next Item from WzScanDB is : " + item->toString(), 1567,
                   LogAt::kAnyLevel, kNextSignature);
  }

  WzScanDBRecordBasePtr kept = item;
  path = "kept";
  log->Clear();
  ExpectEndOfIteration(this->db->getNextItem(item, path), kNextSignature, 1562);
  log.ExpectOnce("Calling Subtree function to Buffer 0 items in Memory", 1559);
  log.ExpectOnce("No more Items returned from the Subtree function", 1561);
  ExpectEndOfIteration(this->db->getNextItem(item, path), kNextSignature, 1562);
  EXPECT_EQ(kept.get(), item.get());
  EXPECT_EQ("kept", path);

  ASSERT_FALSE(this->db->getFirstItem(this->tree.record(start), item, path).IsError());
  EXPECT_EQ("a", path);

  for (int childless : {empty, file}) {
    item.reset();
    path = "kept";
    ExpectEndOfIteration(this->db->getFirstItem(this->tree.record(childless), item, path),
                         kFirstSignature, 1541);
    ExpectEndOfIteration(this->db->getNextItem(item, path), kNextSignature, 1562);
    EXPECT_FALSE(item);
    EXPECT_EQ("kept", path);
  }
  WzScanDBRecordBasePtr absent = this->tree.record(model.addFolder(0, "ghost"));
  err = this->db->getFirstItem(absent, item, path);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
  EXPECT_EQ(2, err.GetCode());
  EXPECT_EQ(1436, Origin(err).location.line);
  ExpectFrame(Top(err), "getSubtree(" + absent->toString() + ") Failed", kFirstSignature, 1538);
}

// 10001 children: the first batch is exactly those children.
TYPED_TEST(IterationTest, FirstBatchOfTenThousandAndOneChildren) {
  this->CheckWideIteration(10001, 10001);
}

// 10000 children are not more than the bound: the first batch goes on into
// the first child folder (three files and a folder).
TYPED_TEST(IterationTest, FirstBatchOfTenThousandChildrenTakesTheNextFolder) {
  this->CheckWideIteration(10000, 10004);
}

// Several batches over a random tree, with the records of each used-up batch
// read into again by the next: every item and path matches the model, items
// kept by the caller and folder listings taken between two items stay as
// they were, and a second iteration in a row walks the same.
TYPED_TEST(IterationTest, ManyBatchesKeepEveryItemAndListingIntact) {
  TreeModel& model = this->tree.model();
  const int start = model.addFolder(0, "start");
  model.addRandom(start, 26000, 40, 5);
  this->Store();
  const std::vector<int> expected = model.breadthFirst(start);
  const std::vector<std::string> expectedPaths = this->RelativePaths(start, expected);
  ASSERT_GT(expected.size(), 25000u);
  std::vector<int> folders;
  for (int id : expected)
    if (model.node(id).isDir) folders.push_back(id);
  ASSERT_GT(folders.size(), 30u);

  std::vector<WzScanDBRecordBasePtr> keptItems;
  std::vector<std::vector<WzScanDBRecordBasePtr>> listings;
  std::vector<int> listed, walked;
  std::vector<std::string> paths;
  WzScanDBRecordBasePtr item;
  std::string path;
  CKoError err = this->db->getFirstItem(this->tree.record(start), item, path);
  for (; !err.IsError(); err = this->db->getNextItem(item, path)) {
    walked.push_back(this->tree.nodeOf(item));
    paths.push_back(path);
    if (walked.size() % 997 != 0) continue;
    keptItems.push_back(item);
    listed.push_back(folders[listings.size() % folders.size()]);
    listings.emplace_back();
    CKoError listing = this->db->getChildren(this->tree.record(listed.back()), listings.back());
    ASSERT_FALSE(listing.IsError()) << listing.AsString();
  }
  ExpectEndOfIteration(err, kNextSignature, 1562);
  ASSERT_EQ(expected, walked);
  EXPECT_EQ(expectedPaths, paths);
  for (size_t k = 0; k < keptItems.size(); ++k) {
    EXPECT_EQ(expected[(k + 1) * 997 - 1], this->tree.nodeOf(keptItems[k]));
    EXPECT_EQ(model.childrenInKeyOrder(listed[k]), this->tree.nodesOf(listings[k])) << k;
  }
  std::vector<std::string> again;
  EXPECT_EQ(expected, this->WalkAll(start, again));
  EXPECT_EQ(expectedPaths, again);
}

}  // namespace
