// getFirstItem / getNextItem: the item-by-item walk with relative paths.
#include "TreeReadFixture.h"

namespace {

constexpr const char* kFirst =
    "CKoError WzScanDB::getFirstItem(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr&, std::string&)";
constexpr const char* kNext = "CKoError WzScanDB::getNextItem(WzScanDBRecordBasePtr&, std::string&)";

void ExpectEnd(const CKoError& err, const char* function, int line) {
  ExpectTop(err, EKoErrorKind::kWin32, 18, "There are no more files.", function, line);
}

template <class RecordType>
class IterationTest : public TreeReadTest<RecordType> {};
TYPED_TEST_SUITE(IterationTest, TreeRecordTypes);

// Three children: each comes once, by name, with its bare name as path; then
// the end error, again on a further call, without touching the caller's
// item; a new getFirstItem starts over. A start without children (an empty
// folder, a file) ends at once, leaving the caller's item and path alone.
TYPED_TEST(IterationTest, ShortWalksAndTheirEnds) {
  const int start = this->t.addFolder(0, "start");
  this->t.addFile(start, "b");
  this->t.addFolder(start, "c");
  this->t.addFile(start, "a");
  const int empty = this->t.addFolder(0, "empty"), file = this->t.addFile(0, "file");
  this->Store();

  LogAt log(6);
  WzScanDBRecordBasePtr item;
  std::string path;
  ASSERT_FALSE(this->db->getFirstItem(this->Rec(start), item, path).IsError());
  log.ExpectOnce("Calling Subtree function to Buffer 3 items in Memory", 1540, 6, kFirst);
  for (const char* name : {"a", "b", "c"}) {
    EXPECT_EQ(name, item->getName());
    EXPECT_EQ(name, path);
    if (*name == 'b')
      log.ExpectOnce("The Next Item from WzScanDB is : " + item->toString(), 1567, 6, kNext);
    ASSERT_EQ(*name == 'c', this->db->getNextItem(item, path).IsError());
  }
  log.ExpectOnce("Calling Subtree function to Buffer 0 items in Memory", 1559);
  log.ExpectOnce("No more Items returned from the Subtree function", 1561);
  WzScanDBRecordBasePtr kept = item;
  path = "kept";
  ExpectEnd(this->db->getNextItem(item, path), kNext, 1562);
  EXPECT_EQ(kept.get(), item.get());
  EXPECT_EQ("kept", path);
  ASSERT_FALSE(this->db->getFirstItem(this->Rec(start), item, path).IsError());
  EXPECT_EQ("a", path);
  for (int childless : {empty, file}) {
    item.reset();
    path = "kept";
    ExpectEnd(this->db->getFirstItem(this->Rec(childless), item, path), kFirst, 1541);
    ExpectEnd(this->db->getNextItem(item, path), kNext, 1562);
    EXPECT_FALSE(item);
    EXPECT_EQ("kept", path);
  }
}

// A start folder of 10000 children, every 2000th a folder with 2000 files,
// the first of them also holding a folder with one file; every record
// marked visited. 10000 is not more than the bound of a batch, so the first
// batch goes on into the first child folder: 12001 items, which keep their
// bits; the next batch (8001 items, read into the records of the used-up
// one) has its bits cleared; the records outside the walk, the start
// included, keep theirs. Items kept by the caller and folder listings taken
// between two items stay as they were; a second iteration walks the same.
TYPED_TEST(IterationTest, BatchesOfAWideFolderKeepItemsListingsAndMarks) {
  TreeModel& t = this->t;
  const int start = t.addFolder(0, "wide"), outside = t.addFolder(0, "outside");
  t.addFile(outside, "x");
  for (int child : t.addFlat(start, 10000, "c", 2000))
    if (t.nodes[child].isDir) t.addFlat(child, 2000, "f", 0);
  t.addFile(t.addFolder(t.childrenInKeyOrder(start).front(), "nested"), "deep");
  this->Store();
  for (int id = 0; id < t.size(); ++id) {
    WzScanDBRecordBasePtr rec = this->Rec(id);
    rec->setFlags(rec->getFlags() | kRecordFlagVisited);
    ASSERT_FALSE(this->db->updateDBRecord(rec).IsError());
  }
  const std::vector<int> expected = t.breadthFirst(start);
  for (int round = 0; round < 2; ++round) {
    LogAt log(6);
    Records keptItems;
    std::vector<Records> listings;
    WzScanDBRecordBasePtr item;
    std::string path;
    CKoError err = this->db->getFirstItem(this->Rec(start), item, path);
    log.ExpectOnce("Calling Subtree function to Buffer 12001 items in Memory", 1540);
    for (size_t i = 0; !err.IsError(); err = this->db->getNextItem(item, path), ++i) {
      ASSERT_LT(i, expected.size());
      ASSERT_EQ(expected[i], this->NodeOf(item)) << i;
      ASSERT_EQ(t.relativePath(start, expected[i]), path);
      if (i % 997 != 0) continue;
      keptItems.push_back(item);
      listings.emplace_back();
      const int folder = listings.size() % 2 ? outside : expected[0];
      ASSERT_FALSE(this->db->getChildren(this->Rec(folder), listings.back()).IsError());
    }
    ExpectEnd(err, kNext, 1562);
    ASSERT_EQ(expected.size() / 997 + 1, keptItems.size());
    for (size_t k = 0; k < keptItems.size(); ++k) {
      EXPECT_EQ(expected[k * 997], this->NodeOf(keptItems[k]));
      EXPECT_EQ(t.childrenInKeyOrder(k % 2 ? expected[0] : outside), this->NodesOf(listings[k]));
    }
  }
  std::vector<bool> walkedLater(t.size(), false);
  for (size_t i = 12001; i < expected.size(); ++i) walkedLater[expected[i]] = true;
  for (const auto& [id, flags] : this->TableFlags(*this->db))
    ASSERT_EQ((t.nodes.at(id).isDir ? kRecordFlagDirectory : 0) |
                  (walkedLater[id] ? 0 : kRecordFlagVisited), flags) << t.fullPath(id);
}

}  // namespace
