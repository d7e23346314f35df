// getFirstItem / getNextItem: the item-by-item walk with relative paths.

#include <memory>
#include <string>
#include <vector>

#include "TreeReadFixture.h"
#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"

namespace {

constexpr const char* kFirstSignature =
    "CKoError WzScanDB::getFirstItem(WzScanDBRecordBasePtr, WzScanDBRecordBasePtr&, std::string&)";
constexpr const char* kNextSignature =
    "CKoError WzScanDB::getNextItem(WzScanDBRecordBasePtr&, std::string&)";

// Raises the log level for the life of the object and captures what is written.
class VerboseLog {
 public:
  explicit VerboseLog(int level)
      : saved_(g_ptrLogWriter->GetLevel()), capture_(CLogCapture::Install()) {
    g_ptrLogWriter->SetLevel(level);
  }
  ~VerboseLog() {
    g_ptrLogWriter->SetLevel(saved_);
    capture_->Remove();
  }
  CLogCapture& capture() { return *capture_; }

 private:
  int saved_;
  std::shared_ptr<CLogCapture> capture_;
};

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
    while (!err.IsError()) {
      ids.push_back(this->tree.nodeOf(item));
      paths.push_back(path);
      err = this->db->getNextItem(item, path);
    }
    ExpectEndOfIteration(err, kNextSignature, 1562);
    return ids;
  }

  // A start folder with `count` children ("c000000", ...); every 2000th child
  // is a folder with three files, and the first child folder also holds a
  // folder with one file. Returns the start folder.
  int BuildWideFolder(int count) {
    TreeModel& model = this->tree.model();
    const int start = model.addFolder(0, "wide");
    for (int child : model.addFlat(start, count, "c", 2000)) {
      model.addFlat(child, 3, "f", 0);
    }
    const int first = model.childrenInKeyOrder(start).front();
    const int nested = model.addFolder(first, "nested");
    model.addFile(nested, "deep");
    model.addFile(model.addFolder(0, "outside"), "x");
    this->Store();
    return start;
  }

  // Iterates below a wide folder after marking every record visited, and
  // checks the order, the paths, the size of the first batch and the flags:
  // the first batch's records keep their bit, every later item has it cleared,
  // records outside the walk (the start included) keep it.
  void CheckWideIteration(int count, size_t expectedFirstBatch) {
    const int start = BuildWideFolder(count);
    this->MarkAllVisited();
    TreeModel& model = this->tree.model();
    const std::vector<int> expected = model.breadthFirst(start);

    {
      VerboseLog log(6);
      WzScanDBRecordBasePtr item;
      std::string path;
      ASSERT_FALSE(this->db->getFirstItem(this->tree.record(start), item, path).IsError());
      auto lines = log.capture().Find("Calling Subtree function to Buffer " +
                                      std::to_string(expectedFirstBatch) + " items in Memory");
      ASSERT_EQ(1u, lines.size());
      EXPECT_EQ(kFirstSignature, lines[0].function);
      EXPECT_EQ(1540, lines[0].line);
      EXPECT_EQ(6, lines[0].level);
    }

    std::vector<std::string> paths;
    const std::vector<int> walked = WalkAll(start, paths);
    ASSERT_EQ(expected, walked);
    EXPECT_EQ(this->RelativePaths(start, expected), paths);

    std::vector<bool> firstBatch(model.size(), false);
    std::vector<bool> walkedLater(model.size(), false);
    for (size_t i = 0; i < walked.size(); ++i) {
      (i < expectedFirstBatch ? firstBatch : walkedLater)[walked[i]] = true;
    }
    size_t cleared = 0;
    for (const auto& [id, flags] : this->TableFlags()) {
      ASSERT_GE(id, 0);
      const int dir = model.node(id).isDir ? kRecordFlagDirectory : 0;
      if (walkedLater[id]) {
        ++cleared;
        ASSERT_EQ(dir, flags) << model.relativePath(0, id);
      } else {
        ASSERT_EQ(dir | kRecordFlagVisited, flags) << model.relativePath(0, id);
      }
    }
    EXPECT_EQ(walked.size() - expectedFirstBatch, cleared);
  }
};
TYPED_TEST_SUITE(IterationTest, TreeRecordTypes);

// Three children: each comes once, by name, with its bare name as path; then
// the end error, again on a further call, without touching the caller's item.
TYPED_TEST(IterationTest, ThreeChildrenThenTheEnd) {
  TreeModel& model = this->tree.model();
  const int start = model.addFolder(0, "start");
  model.addFile(start, "b");
  model.addFolder(start, "c");
  model.addFile(start, "a");
  this->Store();

  VerboseLog log(6);
  WzScanDBRecordBasePtr item;
  std::string path;
  CKoError err = this->db->getFirstItem(this->tree.record(start), item, path);
  ASSERT_FALSE(err.IsError()) << err.AsString();
  EXPECT_EQ("a", item->getName());
  EXPECT_EQ("a", path);
  EXPECT_EQ(1u, log.capture().Find("Calling Subtree function to Buffer 3 items in Memory").size());
  auto first = log.capture().Find("The First Item from WzScanDB is : " + item->toString());
  ASSERT_EQ(1u, first.size());
  EXPECT_EQ(1543, first[0].line);

  for (const char* name : {"b", "c"}) {
    err = this->db->getNextItem(item, path);
    ASSERT_FALSE(err.IsError()) << err.AsString();
    EXPECT_EQ(name, item->getName());
    EXPECT_EQ(name, path);
    auto next = log.capture().Find("The Next Item from WzScanDB is : " + item->toString());
    ASSERT_EQ(1u, next.size());
    EXPECT_EQ(1567, next[0].line);
    EXPECT_STREQ(kNextSignature, next[0].function.c_str());
  }

  WzScanDBRecordBasePtr kept = item;
  path = "kept";
  log.capture().Clear();
  ExpectEndOfIteration(this->db->getNextItem(item, path), kNextSignature, 1562);
  EXPECT_EQ(kept.get(), item.get());
  EXPECT_EQ("kept", path);
  auto refill = log.capture().Find("Calling Subtree function to Buffer 0 items in Memory");
  ASSERT_EQ(1u, refill.size());
  EXPECT_EQ(1559, refill[0].line);
  auto noMore = log.capture().Find("No more Items returned from the Subtree function");
  ASSERT_EQ(1u, noMore.size());
  EXPECT_EQ(1561, noMore[0].line);

  ExpectEndOfIteration(this->db->getNextItem(item, path), kNextSignature, 1562);
  EXPECT_EQ(kept.get(), item.get());

  // A new getFirstItem starts over.
  ASSERT_FALSE(this->db->getFirstItem(this->tree.record(start), item, path).IsError());
  EXPECT_EQ("a", path);
}

// A start without children (an empty folder, a file) ends at once; a start
// that is not stored fails with the sub-tree error wrapped.
TYPED_TEST(IterationTest, StartsWithoutItems) {
  TreeModel& model = this->tree.model();
  const int empty = model.addFolder(0, "empty");
  const int file = model.addFile(0, "file");
  this->Store();
  const int ghost = model.addFolder(0, "ghost");  // never stored

  for (int start : {empty, file}) {
    WzScanDBRecordBasePtr item;
    std::string path = "kept";
    ExpectEndOfIteration(this->db->getFirstItem(this->tree.record(start), item, path),
                         kFirstSignature, 1541);
    EXPECT_FALSE(item);
    EXPECT_EQ("kept", path);
    ExpectEndOfIteration(this->db->getNextItem(item, path), kNextSignature, 1562);
    EXPECT_FALSE(item);
  }

  WzScanDBRecordBasePtr absent = this->tree.record(ghost);
  WzScanDBRecordBasePtr item;
  std::string path;
  CKoError err = this->db->getFirstItem(absent, item, path);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
  EXPECT_EQ(2, err.GetCode());
  EXPECT_EQ(1436, Origin(err).location.line);
  EXPECT_EQ("getSubtree(" + absent->toString() + ") Failed", Top(err).message);
  EXPECT_STREQ(kFirstSignature, Top(err).location.function);
  EXPECT_EQ(1538, Top(err).location.line);
}

// 10001 children: the first batch is exactly those children.
TYPED_TEST(IterationTest, FirstBatchOfTenThousandAndOneChildren) {
  this->CheckWideIteration(10001, 10001);
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
  while (!err.IsError()) {
    walked.push_back(this->tree.nodeOf(item));
    paths.push_back(path);
    if (walked.size() % 997 == 0) {
      keptItems.push_back(item);
      const int folder = folders[listings.size() % folders.size()];
      listings.emplace_back();
      ASSERT_FALSE(this->db->getChildren(this->tree.record(folder), listings.back()).IsError());
      listed.push_back(folder);
    }
    err = this->db->getNextItem(item, path);
  }
  ExpectEndOfIteration(err, kNextSignature, 1562);
  ASSERT_EQ(expected, walked);
  EXPECT_EQ(expectedPaths, paths);

  for (size_t k = 0; k < keptItems.size(); ++k)
    EXPECT_EQ(expected[(k + 1) * 997 - 1], this->tree.nodeOf(keptItems[k]));
  for (size_t k = 0; k < listings.size(); ++k)
    EXPECT_EQ(model.childrenInKeyOrder(listed[k]), this->tree.nodesOf(listings[k])) << k;

  std::vector<std::string> again;
  EXPECT_EQ(expected, this->WalkAll(start, again));
  EXPECT_EQ(expectedPaths, again);
}

// 10000 children are not more than the bound: the first batch goes on into
// the first child folder (three files and a folder).
TYPED_TEST(IterationTest, FirstBatchOfTenThousandChildrenTakesTheNextFolder) {
  this->CheckWideIteration(10000, 10004);
}

}  // namespace
