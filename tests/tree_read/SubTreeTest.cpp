// getSubTree: breadth-first walks, batches, visited marks and error sites.

#include <functional>
#include <string>
#include <vector>

#include "TreeReadFixture.h"

namespace {

using Records = std::vector<WzScanDBRecordBasePtr>;
using Paths = std::vector<std::string>;

// The six overloads behind one call shape, with the end of each one's
// signature text and the lines of its lookup errors.
struct Overload {
  const char* parameters;
  bool batched, withPaths, marks;  // marks: takes a validate flag and writes the visited bit
  int lookupFailedLine, notPresentLine;
  CKoError (*call)(WzScanDB&, WzScanDBRecordBasePtr, Records&, Paths&, bool validate,
                   int maxItems, bool more);
};
#define OVERLOAD(args)                                                                    \
  [](WzScanDB& db, WzScanDBRecordBasePtr s, Records& r, [[maybe_unused]] Paths& p,        \
     [[maybe_unused]] bool v, [[maybe_unused]] int n, [[maybe_unused]] bool more) {       \
    return db.getSubTree args;                                                            \
  }
#define PATHS "std::vector<std::__cxx11::basic_string<char> >&, "
const Overload kOverloads[] = {
    {"bool)", false, false, true, 1098, 1102, OVERLOAD((s, r, v))},
    {PATHS "bool)", false, true, true, 1163, 1166, OVERLOAD((s, r, p, v))},
    {"bool, int, bool)", true, false, true, 1256, 1259, OVERLOAD((s, r, v, n, more))},
    {PATHS "bool, int, bool)", true, true, true, 1335, 1337, OVERLOAD((s, r, p, v, n, more))},
    {PATHS "int, bool)", true, true, false, 1433, 1436, OVERLOAD((s, r, p, n, more))},
    {"int, bool)", true, false, false, 1499, 1501, OVERLOAD((s, r, n, more))},
};
std::string Signature(const Overload& o) {
  return std::string("CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr, "
                     "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, ") +
         o.parameters;
}

template <class RecordType>
class SubTreeTest : public TreeReadTest<RecordType> {
 protected:
  struct Batch {
    Records records;
    Paths paths;
  };
  // A whole walk below `start`: one call, or batched calls (without a start
  // record) until the empty batch, calling `between` after each batch. The
  // lists start out stale.
  std::vector<Batch> Walk(const Overload& o, int start, bool validate, int maxItems,
                          const std::function<void()>& between = [] {}) {
    std::vector<Batch> batches;
    Batch batch{{this->tree.record(0)}, {"stale"}};
    for (bool more = false; batches.size() < 100000; more = true) {
      WzScanDBRecordBasePtr from = more ? WzScanDBRecordBasePtr() : this->tree.record(start);
      CKoError err = o.call(*this->db, from, batch.records, batch.paths, validate, maxItems, more);
      EXPECT_FALSE(err.IsError()) << o.parameters << ": " << err.AsString();
      if (err.IsError() || (o.batched && batch.records.empty())) break;
      if (o.withPaths) {
        EXPECT_EQ(batch.records.size(), batch.paths.size());
      }
      batches.push_back(batch);
      if (!o.batched) break;
      between();
    }
    return batches;
  }

  // The sizes of the batches of a path-less batched walk below `start`, on
  // until two empty batches in a row.
  std::vector<size_t> BatchSizes(int start, int maxItems) {
    std::vector<size_t> sizes;
    Records batch;
    CKoError err = this->db->getSubTree(this->tree.record(start), batch, maxItems, false);
    for (sizes.push_back(batch.size()); !err.IsError() && sizes.size() < 10000;) {
      err = this->db->getSubTree(WzScanDBRecordBasePtr(), batch, maxItems, true);
      sizes.push_back(batch.size());
      if (sizes[sizes.size() - 1] == 0 && sizes[sizes.size() - 2] == 0) break;
    }
    EXPECT_FALSE(err.IsError()) << err.AsString();
    return sizes;
  }
  int Parent(const WzScanDBRecordBasePtr& r) {
    return this->tree.model().node(this->tree.nodeOf(r)).parent;
  }
};
TYPED_TEST_SUITE(SubTreeTest, TreeRecordTypes);

// Every overload returns the model's breadth-first order and, with paths,
// the paths relative to the start record. A batch ends at a folder boundary
// right after it first holds more than maxItems records. Unbatched walks
// between two batches use their own queue: they neither end nor disturb the
// batched walk in progress.
TYPED_TEST(SubTreeTest, EveryOverloadWalksBreadthFirstInFolderBoundedBatches) {
  TreeModel& model = this->tree.model();
  const int start = model.addFolder(0, "start");
  model.addRandom(start, 2500, 15, 11);
  const int sibling = model.addFolder(0, "sibling");
  model.addRandom(sibling, 50, 5, 3);
  this->Store();
  const std::vector<int> expected = model.breadthFirst(start);
  const Paths expectedPaths = this->RelativePaths(start, expected);
  ASSERT_GT(expected.size(), 2000u);

  const int maxItems = 100;
  for (const Overload& o : kOverloads) {
    SCOPED_TRACE(o.parameters);
    const auto batches = this->Walk(o, start, false, maxItems, [&] {
      this->Walk(kOverloads[0], sibling, true, 0);
      this->Walk(kOverloads[1], sibling, false, 0);
    });
    EXPECT_TRUE(o.batched ? batches.size() > 5 : batches.size() == 1);
    Records joined;
    Paths joinedPaths;
    for (size_t b = 0; b < batches.size(); ++b) {
      const Records& batch = batches[b].records;
      joined.insert(joined.end(), batch.begin(), batch.end());
      joinedPaths.insert(joinedPaths.end(), batches[b].paths.begin(), batches[b].paths.end());
      if (b + 1 == batches.size()) break;
      // The trailing run of one parent's children is the folder that crossed the bound.
      const int lastParent = this->Parent(batch.back());
      size_t run = 0;
      while (run < batch.size() && this->Parent(batch[batch.size() - 1 - run]) == lastParent) ++run;
      EXPECT_GT(static_cast<int>(batch.size()), maxItems) << "batch " << b;
      EXPECT_LE(static_cast<int>(batch.size() - run), maxItems) << "batch " << b;
      EXPECT_NE(lastParent, this->Parent(batches[b + 1].records.front())) << "batch " << b;
    }
    EXPECT_EQ(expected, this->tree.nodesOf(joined));
    if (o.withPaths) {
      EXPECT_EQ(expectedPaths, joinedPaths);
    }
  }
}

// The batching rule at its edges: the bound is tested only after a whole
// folder, 2 < 5 children does not split a folder, 0 ends a batch after any
// folder with children, a negative bound after every folder (even an empty
// one, which yields an empty batch that callers take as the end). A deep
// chain gives batches of one record with bound 0, and paths that grow one
// level at a time.
TYPED_TEST(SubTreeTest, BatchBoundEdgesAndADeepChain) {
  TreeModel& model = this->tree.model();
  const int chain = model.addFolder(0, "chain");
  const int depth = 300;
  const int leaf = model.addFile(model.addChain(chain, depth, "level"), "leaf");
  const int five = model.addFolder(0, "five");
  model.addFlat(five, 5, "f", 0);
  const int start = model.addFolder(0, "start");
  model.addFolder(start, "a");  // empty
  const int b = model.addFolder(start, "b");
  model.addFile(start, "f");
  const int c = model.addFolder(start, "c");
  model.addFile(b, "b1");
  model.addFile(b, "b2");
  model.addFile(c, "c1");
  this->Store();

  EXPECT_EQ((std::vector<size_t>{5, 0, 0}), this->BatchSizes(five, 2));
  // start's 4 children | a: nothing, b: 2 | c: 1 | end
  EXPECT_EQ((std::vector<size_t>{4, 2, 1, 0, 0}), this->BatchSizes(start, 0));
  // start's 4 | a: empty batch | b: 2 | c: 1 | end
  EXPECT_EQ((std::vector<size_t>{4, 0, 2, 1, 0, 0}), this->BatchSizes(start, -1));
  EXPECT_EQ((std::vector<size_t>{7, 0, 0}), this->BatchSizes(start, 10000));

  // A batch with paths after an empty folder still pairs prefixes with folders.
  Records batch;
  Paths paths;
  const Paths expected[] = {{"a", "b", "c", "f"}, {}, {"b/b1", "b/b2"}, {"c/c1"}};
  for (size_t i = 0; i < 4; ++i) {
    ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), batch, paths, -1, i > 0).IsError());
    EXPECT_EQ(expected[i], paths);
  }
  ASSERT_EQ(1u, batch.size());
  EXPECT_EQ(c, this->Parent(batch[0]));

  const auto walk = this->Walk(kOverloads[1], chain, false, 0);
  ASSERT_EQ(1u, walk.size());
  EXPECT_EQ(model.breadthFirst(chain), this->tree.nodesOf(walk[0].records));
  EXPECT_EQ(static_cast<size_t>(depth + 1), walk[0].paths.size());
  EXPECT_EQ("level0", walk[0].paths.front());
  EXPECT_EQ(model.relativePath(chain, leaf), walk[0].paths.back());
  std::vector<size_t> sizes(depth + 1, 1u);
  sizes.insert(sizes.end(), {0, 0});
  EXPECT_EQ(sizes, this->BatchSizes(chain, 0));
}

// The marking overloads set (validate true) or clear (false) the visited bit
// of the start record and every record below, in the table and in the
// returned records; records outside the sub-tree and the directory bits are
// untouched; the overloads without validate write nothing.
TYPED_TEST(SubTreeTest, VisitedBitIsWrittenOnlyByTheValidateWalks) {
  TreeModel& model = this->tree.model();
  const int start = model.addFolder(0, "start");
  model.addRandom(start, 300, 8, 5);
  const int file = model.addFile(model.addFolder(0, "outside"), "x");
  this->Store();

  std::vector<bool> inWalk(model.size(), false);
  inWalk[start] = true;
  for (int id : model.breadthFirst(start)) inWalk[id] = true;
  auto expectFlags = [&](int visitedInWalk) {
    std::map<int, int> flags = this->TableFlags();
    ASSERT_EQ(static_cast<size_t>(model.size()), flags.size());
    for (const auto& [id, value] : flags) {
      ASSERT_GE(id, 0);
      const int dir = model.node(id).isDir ? kRecordFlagDirectory : 0;
      ASSERT_EQ(dir | (inWalk[id] ? visitedInWalk : 0), value) << model.relativePath(0, id);
    }
  };

  for (const Overload& o : kOverloads) {
    SCOPED_TRACE(o.parameters);
    if (!o.marks) this->Walk(kOverloads[0], start, true, 0);
    for (bool validate : {true, false}) {
      const bool marked = o.marks ? validate : true;
      for (const auto& batch : this->Walk(o, start, validate, 10)) {
        for (const auto& rec : batch.records)
          ASSERT_EQ(marked, (rec->getFlags() & kRecordFlagVisited) != 0);
      }
      expectFlags(marked ? kRecordFlagVisited : 0);
    }
  }

  // A file as start: nothing below it, but its own bit is still written.
  this->Walk(kOverloads[0], start, false, 0);
  inWalk.assign(model.size(), false);
  inWalk[file] = true;
  Records records;
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(file), records, true).IsError());
  EXPECT_TRUE(records.empty());
  expectFlags(kRecordFlagVisited);
}

// Write failures of the marking walks, provoked by reopening the table read
// only: each marking overload and direction reports the start record's write
// and a child's write at its own line and in its own words. The failing
// child is already in the result list, with its flag changed in memory.
TYPED_TEST(SubTreeTest, WriteFailureSitesOfTheMarkingOverloads) {
  TreeModel& model = this->tree.model();
  const int start = model.addFolder(0, "start");
  model.addFile(start, "a");
  model.addFile(start, "b");
  this->Store();

  const int lines[4][3] = {  // start set, start cleared, child
      {1113, 1118, 1145}, {1181, 1186, 1236}, {1272, 1277, 1304}, {1351, 1356, 1404}};
  auto reopen = [&](WZIndexing::TAccessEnum mode) {
    this->db->TCtreeTable::close();
    ASSERT_EQ(0, this->db->open(mode));
  };
  // Stored flags: the start's visited bit as given, the children's the
  // opposite, so that exactly one of the two kinds of write is needed.
  auto prepare = [&](bool startVisited) {
    reopen(WZIndexing::kAccessReadWrite);
    for (int id : {start, start + 1, start + 2}) {
      WzScanDBRecordBasePtr rec = this->tree.record(id);
      rec->setFlags(rec->getFlags() | ((id == start) == startVisited ? kRecordFlagVisited : 0));
      ASSERT_FALSE(this->db->updateDBRecord(rec).IsError());
    }
    reopen(WZIndexing::kAccessReadOnly);
  };

  Records records;
  Paths paths;
  for (int row = 0; row < 4; ++row) {
    const Overload& o = kOverloads[row];
    SCOPED_TRACE(o.parameters);
    for (bool validate : {true, false}) {
      const std::string flag = validate ? "true" : "false";
      prepare(!validate);
      CKoError err =
          o.call(*this->db, this->tree.record(start), records, paths, validate, 10, false);
      ASSERT_TRUE(err.IsError());
      EXPECT_EQ(EKoErrorKind::kInt, err.GetKind());
      const std::string rec = this->tree.record(start)->toString();
      ExpectFrame(Top(err),
                  row == 0 ? "updateDBRecord(" + rec + ") Failed"
                           : "updateDBRecord(" + rec + ") with visited = " + flag + " Failed",
                  Signature(o), lines[row][validate ? 0 : 1]);
      EXPECT_TRUE(records.empty());

      prepare(validate);
      err = o.call(*this->db, this->tree.record(start), records, paths, validate, 10, false);
      ASSERT_TRUE(err.IsError());
      ASSERT_EQ(1u, records.size());
      EXPECT_EQ("a", records[0]->getName());
      EXPECT_EQ(validate ? kRecordFlagVisited : 0, records[0]->getFlags() & kRecordFlagVisited);
      const std::string child = "updateDBRecord(" + records[0]->toString() + ") with visited ";
      ExpectFrame(Top(err),
                  row == 0 ? child + "flag " + (validate ? "set" : "removed") + " Failed"
                           : child + "= " + flag + " Failed",
                  Signature(o), lines[row][2]);
      if (o.withPaths) {
        EXPECT_EQ(Paths{"a"}, paths);
      }
    }
  }
  reopen(WZIndexing::kAccessReadWrite);
}

// Every overload reports a start record that is not stored, and a failed
// lookup, at its own source line with its own signature text. A continuing
// call on an object that never started a walk returns an empty batch.
TYPED_TEST(SubTreeTest, ErrorSitesOfEveryOverload) {
  const int missing = this->tree.model().addFolder(0, "missing");  // never stored
  WzScanDBRecordBasePtr absent = this->tree.record(missing);
  WzScanDB uninitialized(TypeParam::Prototype());
  Records records;
  Paths paths;
  for (const Overload& o : kOverloads) {
    SCOPED_TRACE(o.parameters);
    records.assign(1, this->tree.record(0));
    paths.assign(1, "stale");
    CKoError err = o.call(*this->db, absent, records, paths, true, 5, false);
    ASSERT_TRUE(err.IsError());
    EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
    EXPECT_EQ(2, err.GetCode());
    ASSERT_EQ(1u, err.GetFrames().size());
    ExpectFrame(Origin(err),
                "The record " + absent->toString() +
                    " is not present in the database to retrieve a subtree",
                Signature(o), o.notPresentLine);
    EXPECT_TRUE(records.empty());
    EXPECT_EQ(o.withPaths ? 0u : 1u, paths.size());

    records.assign(1, this->tree.record(0));
    paths.assign(1, "stale");
    if (o.batched) {
      ASSERT_FALSE(o.call(uninitialized, nullptr, records, paths, true, 5, true).IsError());
      EXPECT_TRUE(records.empty());
      EXPECT_EQ(o.withPaths ? 0u : 1u, paths.size());
    }
    err = o.call(uninitialized, this->tree.record(0), records, paths, true, 5, false);
    ASSERT_TRUE(err.IsError());
    EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
    EXPECT_EQ(22, err.GetCode());
    ASSERT_EQ(2u, err.GetFrames().size());
    ExpectFrame(Top(err), "checkDBRecord(" + this->tree.record(0)->toString() + ") Failed",
                Signature(o), o.lookupFailedLine);
  }
}

}  // namespace
