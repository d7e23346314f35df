// getSubTree: breadth-first walks, batches, visited marks, walks of bounded
// memory and error sites.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "TreeReadFixture.h"

namespace {

// The six overloads behind one call shape, with the end of each one's
// signature text and the lines of its lookup errors.
struct Overload {
  const char* parameters;
  bool batched, withPaths, marks;  // marks: takes a validate flag and writes the visited bit
  int lookupFailedLine, notPresentLine;
  CKoError (*call)(WzScanDB&, WzScanDBRecordBasePtr, Records&, Paths&, bool validate,
                   int maxItems, bool more);
  std::string Signature() const {
    return std::string("CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr, "
                       "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, ") + parameters;
  }
};
#define OVERLOAD(args)                                                              \
  [](WzScanDB& db, WzScanDBRecordBasePtr s, Records& r, [[maybe_unused]] Paths& p,  \
     [[maybe_unused]] bool v, [[maybe_unused]] int n, [[maybe_unused]] bool more) { \
    return db.getSubTree args;                                                      \
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

// Files this process holds open in `directory` that have no name any more.
int SpillFilesIn(const std::string& directory) {
  int count = 0;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    const std::string target = std::filesystem::read_symlink(fd.path(), ignored).string();
    count += target.rfind(directory + "/", 0) == 0 && target.find("(deleted)") != std::string::npos;
  }
  return count;
}

struct Walked {
  Records records;
  Paths paths;
  size_t batches = 0;
};

template <class RecordType>
class SubTreeTest : public TreeReadTest<RecordType> {
 protected:
  // A whole walk below `start`: one call, or batched calls (without a start
  // record) until the empty batch, calling `between` after each batch; the
  // lists start out stale. With maxItems >= 0 a batch holds no more than
  // maxItems records but for the last folder's children, which take it past
  // maxItems (unless the walk ends), and the next batch starts with another
  // folder's children.
  Walked Walk(WzScanDB& db, const Overload& o, int start, bool validate, int maxItems,
              const std::function<void()>& between = [] {}) {
    Walked all;
    Records batch{this->Rec(0)};
    Paths paths{"stale"};
    int lastParent = -2;
    for (size_t previous = 0; all.batches < 100000; ++all.batches, previous = batch.size()) {
      CKoError err = o.call(db, all.batches ? nullptr : this->Rec(start), batch, paths, validate,
                            maxItems, all.batches > 0);
      EXPECT_FALSE(err.IsError()) << o.parameters << ": " << err.AsString();
      if (err.IsError() || (o.batched && batch.empty())) break;
      if (o.withPaths) { EXPECT_EQ(batch.size(), paths.size()); }
      all.records.insert(all.records.end(), batch.begin(), batch.end());
      all.paths.insert(all.paths.end(), paths.begin(), paths.end());
      if (!o.batched) return {all.records, all.paths, 1};
      if (maxItems >= 0) {
        EXPECT_NE(lastParent, Parent(batch.front()));
        EXPECT_GT(all.batches ? previous : maxItems + 1u, size_t(maxItems));
        size_t run = 0;
        for (lastParent = Parent(batch.back()); run < batch.size(); ++run)
          if (Parent(batch.end()[-1 - run]) != lastParent) break;
        EXPECT_LE(static_cast<int>(batch.size() - run), maxItems);
      }
      between();
    }
    return all;
  }
  int Parent(const WzScanDBRecordBasePtr& r) { return this->t.nodes.at(this->NodeOf(r)).parent; }
};
TYPED_TEST_SUITE(SubTreeTest, TreeRecordTypes);

// Every overload returns the model's breadth-first order and, with paths,
// the paths relative to the start record, in batches as Walk checks them.
// Unbatched walks between two batches use their own queue: they neither end
// nor disturb the batched walk in progress. The marking overloads set
// (validate true) or clear the visited bit of the start record and every
// record below, in the table and in the returned records, and nothing else;
// the others write nothing. A database whose walks may keep 1 KiB of pending
// folders in memory (setting nWzScanDBWalkQueueKB) spills the rest to a file
// in its directory, or in $TMPDIR when that refuses, and walks the same.
TYPED_TEST(SubTreeTest, WalksAreBreadthFirstInBatchesMarkWhenAskedAndSpill) {
  TreeModel& t = this->t;
  const int start = t.addFolder(0, "start");
  t.addRandom(start, 1200, 15, 11);
  const int sibling = t.addFolder(0, "sibling");
  t.addRandom(sibling, 50, 5, 3);
  this->Store();
  TempDir boundedDir;
  std::ofstream(boundedDir / "settings.ini") << "[~FileSystemAgent]\nnWzScanDBWalkQueueKB = 1\n";
  setenv("WZ_SETTINGS_FILE", (boundedDir / "settings.ini").c_str(), 1);
  WzScanDB bounded(TypeParam::Prototype());
  ASSERT_FALSE(bounded.initialize(boundedDir.path()).IsError());
  unsetenv("WZ_SETTINGS_FILE");
  this->StoreInto(bounded, 0);

  const std::vector<int> expected = t.breadthFirst(start);
  std::vector<bool> inWalk(t.size(), false);
  Paths expectedPaths;
  for (int id : expected) inWalk[id] = true, expectedPaths.push_back(t.relativePath(start, id));
  inWalk[start] = true;
  int spills[2] = {0, 0};
  for (int d = 0; d < 2; ++d) {
    WzScanDB& db = d ? bounded : *this->db;
    for (const Overload& o : kOverloads) {
      if (!o.marks) this->Walk(db, kOverloads[0], start, true, 0);  // marks they must leave
      for (bool validate : {true, false}) {
        SCOPED_TRACE(std::string(d ? "bounded " : "") + o.parameters + (validate ? " validate" : ""));
        const int visited = !o.marks || validate ? kRecordFlagVisited : 0;
        const Walked walked = this->Walk(db, o, start, validate, 100, [&] {
          spills[d] = std::max(spills[d], SpillFilesIn(d ? boundedDir.path() : this->dir.path()));
          this->Walk(db, kOverloads[0], sibling, true, 0);
          this->Walk(db, kOverloads[1], sibling, false, 0);
        });
        EXPECT_TRUE(o.batched ? walked.batches > 5 : walked.batches == 1);
        EXPECT_EQ(expected, this->NodesOf(walked.records));
        if (o.withPaths) { EXPECT_EQ(expectedPaths, walked.paths); }
        for (const auto& r : walked.records) ASSERT_EQ(visited, r->getFlags() & kRecordFlagVisited);
        const std::map<int, int> flags = this->TableFlags(db);
        ASSERT_EQ(static_cast<size_t>(t.size()), flags.size());
        for (const auto& [id, value] : flags)
          ASSERT_EQ((t.nodes.at(id).isDir ? kRecordFlagDirectory : 0) | (inWalk[id] ? visited : 0),
                    value) << t.fullPath(id);
      }
    }
  }
  EXPECT_EQ(0, spills[0]);
  EXPECT_GT(spills[1], 0);

  TempDir tmp;
  const char* oldTmp = std::getenv("TMPDIR");
  const std::string savedTmp = oldTmp ? oldTmp : "";
  std::filesystem::rename(boundedDir.path(), boundedDir.path() + ".gone");
  setenv("TMPDIR", tmp.path().c_str(), 1);
  const Walked walked = this->Walk(bounded, kOverloads[5], start, false, 100, [&] {
    spills[0] = std::max(spills[0], SpillFilesIn(tmp.path()));
  });
  oldTmp ? setenv("TMPDIR", savedTmp.c_str(), 1) : unsetenv("TMPDIR");
  std::filesystem::rename(boundedDir.path() + ".gone", boundedDir.path());
  EXPECT_GT(spills[0], 0);
  EXPECT_EQ(expected, this->NodesOf(walked.records));
  bounded.close();
}

// The batching rule at its edges: 2 < 5 children does not split a folder; 0
// ends a batch after any folder with children; a negative bound after every
// folder, even an empty one, which yields an empty batch that callers take
// as the end, and the batches a caller takes after it still pair path
// prefixes with folders. A file as start has nothing below it but gets its
// mark.
TYPED_TEST(SubTreeTest, BatchBoundEdgesAndAFile) {
  TreeModel& t = this->t;
  const int five = t.addFolder(0, "five"), start = t.addFolder(0, "start");
  t.addFlat(five, 5, "f", 0);
  t.addFolder(start, "a");  // empty
  const int b = t.addFolder(start, "b");
  t.addFile(start, "f");
  t.addFile(t.addFolder(start, "c"), "c1");
  t.addFile(b, "b1");
  t.addFile(b, "b2");
  const int file = t.addFile(0, "file");
  this->Store();

  EXPECT_EQ(1u, this->Walk(*this->db, kOverloads[4], five, false, 2).batches);
  const Walked zero = this->Walk(*this->db, kOverloads[4], start, false, 0);
  EXPECT_EQ(3u, zero.batches);  // start's 4 children | a: nothing, b: 2 | c: 1
  EXPECT_EQ((Paths{"a", "b", "c", "f", "b/b1", "b/b2", "c/c1"}), zero.paths);
  EXPECT_EQ((Paths{"a", "b", "c", "f"}), this->Walk(*this->db, kOverloads[4], start, false, -1).paths);
  Records records;
  Paths paths;
  for (const Paths& expected : {Paths{"b/b1", "b/b2"}, Paths{"c/c1"}, Paths{}}) {
    ASSERT_FALSE(this->db->getSubTree(nullptr, records, paths, -1, true).IsError());
    EXPECT_EQ(expected, paths);
  }
  ASSERT_FALSE(this->db->getSubTree(this->Rec(file), records, true).IsError());
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(kRecordFlagVisited, this->TableFlags(*this->db)[file]);
}

// Every overload reports a start record that is not stored (errno 2) and a
// failed lookup (an object never initialised: errno 22) at its own line with
// its own signature; a continuing call on such an object returns an empty
// batch. The marking overloads, on a table reopened read-only, report the
// start record's write and a child's write, in each direction, at their own
// lines and in their own words; the failing child is already in the result,
// with its flag changed in memory.
TYPED_TEST(SubTreeTest, ErrorSitesOfEveryOverload) {
  const int start = this->t.addFolder(0, "start");
  this->t.addFile(start, "a");
  this->t.addFile(start, "b");
  this->Store();
  WzScanDBRecordBasePtr absent = this->Rec(this->t.addFolder(0, "missing"));  // not stored
  WzScanDB uninitialized(TypeParam::Prototype());
  Records records;
  Paths paths;
  auto expectCleared = [&](const Overload& o) {
    EXPECT_TRUE(records.empty());
    EXPECT_EQ(o.withPaths ? 0u : 1u, paths.size());
    records.assign(1, this->Rec(0));
    paths.assign(1, "stale");
  };
  for (const Overload& o : kOverloads) {
    SCOPED_TRACE(o.parameters);
    records.assign(1, this->Rec(0));
    paths.assign(1, "stale");
    CKoError err = o.call(*this->db, absent, records, paths, true, 5, false);
    EXPECT_EQ(1u, err.GetFrames().size());
    ExpectTop(err, EKoErrorKind::kErrNo, 2, "The record " + absent->toString() +
              " is not present in the database to retrieve a subtree", o.Signature(),
              o.notPresentLine);
    expectCleared(o);
    if (o.batched) {
      EXPECT_FALSE(o.call(uninitialized, nullptr, records, paths, true, 5, true).IsError());
      expectCleared(o);
    }
    err = o.call(uninitialized, this->Rec(0), records, paths, true, 5, false);
    EXPECT_EQ(2u, err.GetFrames().size());
    ExpectTop(err, EKoErrorKind::kErrNo, 22, "checkDBRecord(" + this->Rec(0)->toString() +
              ") Failed", o.Signature(), o.lookupFailedLine);
  }

  const int lines[4][3] = {  // start set, start cleared, child
      {1113, 1118, 1145}, {1181, 1186, 1236}, {1272, 1277, 1304}, {1351, 1356, 1404}};
  // Stored flags: the start's visited bit as given, the children's the
  // opposite, so that exactly one of the two kinds of write is needed.
  auto prepare = [&](bool startVisited) {
    this->db->TCtreeTable::close();
    ASSERT_EQ(0, this->db->open(WZIndexing::kAccessReadWrite));
    for (int id : {start, start + 1, start + 2}) {
      WzScanDBRecordBasePtr rec = this->Rec(id);
      rec->setFlags(rec->getFlags() | ((id == start) == startVisited ? kRecordFlagVisited : 0));
      ASSERT_FALSE(this->db->updateDBRecord(rec).IsError());
    }
    this->db->TCtreeTable::close();
    ASSERT_EQ(0, this->db->open(WZIndexing::kAccessReadOnly));
  };
  const std::string startText = "updateDBRecord(" + this->Rec(start)->toString() + ")";
  for (int row = 0; row < 4; ++row) {
    const Overload& o = kOverloads[row];
    for (bool validate : {true, false}) {
      SCOPED_TRACE(std::string(o.parameters) + (validate ? " validate" : ""));
      const std::string flag = validate ? "true" : "false";
      prepare(!validate);
      CKoError err = o.call(*this->db, this->Rec(start), records, paths, validate, 10, false);
      ExpectTop(err, EKoErrorKind::kInt, -1, startText + (row ? " with visited = " + flag : "") +
                " Failed", o.Signature(), lines[row][validate ? 0 : 1]);
      EXPECT_TRUE(records.empty());

      prepare(validate);
      err = o.call(*this->db, this->Rec(start), records, paths, validate, 10, false);
      ASSERT_EQ(1u, records.size());
      EXPECT_EQ("a", records[0]->getName());
      EXPECT_EQ(validate ? kRecordFlagVisited : 0, records[0]->getFlags() & kRecordFlagVisited);
      ExpectTop(err, EKoErrorKind::kInt, -1, "updateDBRecord(" + records[0]->toString() +
                ") with visited " + (row ? "= " + flag : std::string("flag ") +
                (validate ? "set" : "removed")) + " Failed", o.Signature(), lines[row][2]);
      if (o.withPaths) { EXPECT_EQ(Paths{"a"}, paths); }
    }
  }
  prepare(false);
}

}  // namespace
