// getSubTree: breadth-first walks, batches, visited marks and error sites.

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "TreeReadFixture.h"

namespace {

constexpr const char* kSignaturePrefix =
    "CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr, "
    "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, ";

template <class RecordType>
class SubTreeTest : public TreeReadTest<RecordType> {
 protected:
  // Runs a batched walk to its end (the empty batch) and returns every batch.
  std::vector<std::vector<WzScanDBRecordBasePtr>> AllBatches(
      const std::function<CKoError(bool, std::vector<WzScanDBRecordBasePtr>&)>& call) {
    std::vector<std::vector<WzScanDBRecordBasePtr>> batches;
    std::vector<WzScanDBRecordBasePtr> batch;
    for (bool continuing = false;; continuing = true) {
      CKoError err = call(continuing, batch);
      EXPECT_FALSE(err.IsError()) << err.AsString();
      if (err.IsError() || batch.empty() || batches.size() > 100000) break;
      batches.push_back(batch);
    }
    return batches;
  }

  // The sizes of the batches of a path-less batched walk below `start`.
  std::vector<size_t> BatchSizes(int start, int maxItems) {
    std::vector<size_t> sizes;
    std::vector<WzScanDBRecordBasePtr> batch;
    CKoError err = this->db->getSubTree(this->tree.record(start), batch, maxItems, false);
    EXPECT_FALSE(err.IsError()) << err.AsString();
    sizes.push_back(batch.size());
    for (int call = 0; call < 10000 && !err.IsError(); ++call) {
      err = this->db->getSubTree(WzScanDBRecordBasePtr(), batch, maxItems, true);
      EXPECT_FALSE(err.IsError()) << err.AsString();
      sizes.push_back(batch.size());
      if (sizes.size() >= 2 && sizes[sizes.size() - 1] == 0 && sizes[sizes.size() - 2] == 0) break;
    }
    return sizes;
  }
};
TYPED_TEST_SUITE(SubTreeTest, TreeRecordTypes);

// All six overloads return the model's breadth-first order; the path forms
// return the paths relative to the start record; the batched forms, joined,
// give the same sequence, and each batch ends at a folder boundary right after
// it first holds more than maxItems records.
TYPED_TEST(SubTreeTest, WalksMatchTheModelInBreadthFirstOrder) {
  TreeModel& model = this->tree.model();
  const int start = model.addFolder(0, "start");
  model.addRandom(start, 2500, 15, 11);
  const int sibling = model.addFolder(0, "sibling");
  model.addRandom(sibling, 50, 5, 3);
  this->Store();

  const std::vector<int> expected = model.breadthFirst(start);
  const std::vector<std::string> expectedPaths = this->RelativePaths(start, expected);
  ASSERT_GT(expected.size(), 2000u);

  std::vector<WzScanDBRecordBasePtr> records{this->tree.record(0)};
  std::vector<std::string> paths{"stale"};
  auto check = [&](const CKoError& err, const char* what) {
    ASSERT_FALSE(err.IsError()) << what << ": " << err.AsString();
    EXPECT_EQ(expected, this->tree.nodesOf(records)) << what;
  };
  check(this->db->getSubTree(this->tree.record(start), records, false), "validate");
  check(this->db->getSubTree(this->tree.record(start), records, paths, false), "paths, validate");
  EXPECT_EQ(expectedPaths, paths);

  const int maxItems = 100;
  auto joinAndCheck = [&](const std::vector<std::vector<WzScanDBRecordBasePtr>>& batches,
                          const char* what) {
    std::vector<WzScanDBRecordBasePtr> joined;
    for (size_t b = 0; b < batches.size(); ++b) {
      const auto& batch = batches[b];
      joined.insert(joined.end(), batch.begin(), batch.end());
      if (b + 1 == batches.size()) break;
      // The batch's last folder contributed the trailing run of one parent.
      const int lastParent = model.node(this->tree.nodeOf(batch.back())).parent;
      size_t run = 0;
      while (run < batch.size() &&
             model.node(this->tree.nodeOf(batch[batch.size() - 1 - run])).parent == lastParent) {
        ++run;
      }
      EXPECT_GT(static_cast<int>(batch.size()), maxItems) << what << " batch " << b;
      EXPECT_LE(static_cast<int>(batch.size() - run), maxItems) << what << " batch " << b;
      EXPECT_NE(lastParent, model.node(this->tree.nodeOf(batches[b + 1].front())).parent)
          << what << " batch " << b;
    }
    EXPECT_EQ(expected, this->tree.nodesOf(joined)) << what;
  };

  WzScanDBPtr db = this->db;
  WzScanDBRecordBasePtr startRecord = this->tree.record(start);
  joinAndCheck(this->AllBatches([&](bool more, std::vector<WzScanDBRecordBasePtr>& batch) {
    return db->getSubTree(startRecord, batch, false, maxItems, more);
  }), "validate, maxItems");
  joinAndCheck(this->AllBatches([&](bool more, std::vector<WzScanDBRecordBasePtr>& batch) {
    return db->getSubTree(startRecord, batch, maxItems, more);
  }), "maxItems");

  std::vector<std::string> joinedPaths;
  joinAndCheck(this->AllBatches([&](bool more, std::vector<WzScanDBRecordBasePtr>& batch) {
    CKoError err = db->getSubTree(startRecord, batch, paths, maxItems, more);
    EXPECT_EQ(batch.size(), paths.size());
    joinedPaths.insert(joinedPaths.end(), paths.begin(), paths.end());
    return err;
  }), "paths, maxItems");
  EXPECT_EQ(expectedPaths, joinedPaths);

  joinedPaths.clear();
  joinAndCheck(this->AllBatches([&](bool more, std::vector<WzScanDBRecordBasePtr>& batch) {
    CKoError err = db->getSubTree(startRecord, batch, paths, true, maxItems, more);
    joinedPaths.insert(joinedPaths.end(), paths.begin(), paths.end());
    return err;
  }), "paths, validate, maxItems");
  EXPECT_EQ(expectedPaths, joinedPaths);
}

// The batching rule at its edges: the bound is tested only after a whole
// folder, 2 < 5 children does not split a folder, 0 ends a batch after any
// folder with children, a negative bound after every folder (even an empty
// one, which yields an empty batch that callers take as the end).
TYPED_TEST(SubTreeTest, BatchBoundEdges) {
  TreeModel& model = this->tree.model();
  const int five = model.addFolder(0, "five");
  model.addFlat(five, 5, "f", 0);
  const int start = model.addFolder(0, "start");
  const int a = model.addFolder(start, "a");  // empty
  const int b = model.addFolder(start, "b");
  model.addFile(start, "f");
  const int c = model.addFolder(start, "c");
  model.addFile(b, "b1");
  model.addFile(b, "b2");
  model.addFile(c, "c1");
  (void)a;
  this->Store();

  EXPECT_EQ((std::vector<size_t>{5, 0, 0}), this->BatchSizes(five, 2));
  // start's 4 children | a: nothing, b: 2 | c: 1 | end
  EXPECT_EQ((std::vector<size_t>{4, 2, 1, 0, 0}), this->BatchSizes(start, 0));
  // start's 4 | a: empty batch | b: 2 | c: 1 | end
  EXPECT_EQ((std::vector<size_t>{4, 0, 2, 1, 0, 0}), this->BatchSizes(start, -1));
  EXPECT_EQ((std::vector<size_t>{7, 0, 0}), this->BatchSizes(start, 10000));

  // A batch with paths after an empty folder still pairs prefixes with folders.
  std::vector<WzScanDBRecordBasePtr> batch;
  std::vector<std::string> paths;
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), batch, paths, -1, false).IsError());
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), batch, paths, -1, true).IsError());
  EXPECT_TRUE(paths.empty());
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), batch, paths, -1, true).IsError());
  EXPECT_EQ((std::vector<std::string>{"b/b1", "b/b2"}), paths);
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), batch, paths, -1, true).IsError());
  EXPECT_EQ((std::vector<std::string>{"c/c1"}), paths);
  ASSERT_EQ(1u, batch.size());
  EXPECT_EQ(c, model.node(this->tree.nodeOf(batch[0])).parent);
}

// A deep chain: one record per level, batches of one record with bound 0,
// paths that grow one level at a time.
TYPED_TEST(SubTreeTest, DeepChain) {
  TreeModel& model = this->tree.model();
  const int top = model.addFolder(0, "chain");
  const int depth = 300;
  const int deepest = model.addChain(top, depth, "level");
  model.addFile(deepest, "leaf");
  this->Store();

  std::vector<WzScanDBRecordBasePtr> records;
  std::vector<std::string> paths;
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(top), records, paths, false).IsError());
  ASSERT_EQ(static_cast<size_t>(depth + 1), records.size());
  EXPECT_EQ(model.breadthFirst(top), this->tree.nodesOf(records));
  EXPECT_EQ("level0", paths.front());
  EXPECT_EQ(model.relativePath(top, deepest) + "/leaf", paths.back());

  std::vector<size_t> sizes = this->BatchSizes(top, 0);
  ASSERT_EQ(static_cast<size_t>(depth + 3), sizes.size());
  for (int level = 0; level <= depth; ++level) EXPECT_EQ(1u, sizes[level]) << level;
}

// The visited bit: the validate walks set it (true) or clear it (false) on
// the start record and every record below, writing each to the table; the
// records outside the sub-tree and the directory bits are untouched; the two
// batched forms without validate write nothing.
TYPED_TEST(SubTreeTest, VisitedBitIsWrittenOnlyByTheValidateWalks) {
  TreeModel& model = this->tree.model();
  const int start = model.addFolder(0, "start");
  model.addRandom(start, 300, 8, 5);
  const int outside = model.addFolder(0, "outside");
  model.addFile(outside, "x");
  this->Store();

  std::vector<int> below = model.breadthFirst(start);
  std::vector<bool> inWalk(model.size(), false);
  inWalk[start] = true;
  for (int id : below) inWalk[id] = true;
  auto expectFlags = [&](int visitedInWalk, int visitedOutside, const char* what) {
    std::map<int, int> flags = this->TableFlags();
    ASSERT_EQ(static_cast<size_t>(model.size()), flags.size()) << what;
    for (const auto& [id, value] : flags) {
      ASSERT_GE(id, 0) << what;
      const int dir = model.node(id).isDir ? kRecordFlagDirectory : 0;
      const int visited = inWalk[id] ? visitedInWalk : visitedOutside;
      ASSERT_EQ(dir | visited, value) << what << " node " << model.relativePath(0, id);
    }
  };

  std::vector<WzScanDBRecordBasePtr> records;
  std::vector<std::string> paths;
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), records, true).IsError());
  expectFlags(kRecordFlagVisited, 0, "validate true");
  for (const auto& rec : records) EXPECT_EQ(kRecordFlagVisited, rec->getFlags() & kRecordFlagVisited);

  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), records, paths, false).IsError());
  expectFlags(0, 0, "paths, validate false");

  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), records, true, 10, false).IsError());
  while (!records.empty()) {
    ASSERT_FALSE(this->db->getSubTree(WzScanDBRecordBasePtr(), records, true, 10, true).IsError());
  }
  expectFlags(kRecordFlagVisited, 0, "batched validate true");

  // The forms without validate leave every flag as it is.
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), records, paths, 10, false).IsError());
  while (!records.empty()) {
    ASSERT_FALSE(this->db->getSubTree(WzScanDBRecordBasePtr(), records, paths, 10, true).IsError());
  }
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), records, 10, false).IsError());
  while (!records.empty()) {
    ASSERT_FALSE(this->db->getSubTree(WzScanDBRecordBasePtr(), records, 10, true).IsError());
  }
  expectFlags(kRecordFlagVisited, 0, "batched without validate");

  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), records, paths, false, 10, false).IsError());
  while (!records.empty()) {
    ASSERT_FALSE(this->db->getSubTree(WzScanDBRecordBasePtr(), records, paths, false, 10, true).IsError());
  }
  expectFlags(0, 0, "batched paths validate false");

  // A file as start: nothing below it, but its own bit is still written.
  const int file = model.breadthFirst(outside).front();
  inWalk.assign(model.size(), false);
  inWalk[file] = true;
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(file), records, true).IsError());
  EXPECT_TRUE(records.empty());
  expectFlags(kRecordFlagVisited, 0, "file start");
}

// An unbatched walk uses its own queue: it neither ends nor disturbs the
// batched walk in progress. A continuing call on an object that never started
// a walk returns an empty batch.
TYPED_TEST(SubTreeTest, UnbatchedWalksLeaveTheBatchedWalkAlone) {
  TreeModel& model = this->tree.model();
  const int start = model.addFolder(0, "start");
  model.addRandom(start, 400, 6, 9);
  const int other = model.addFolder(0, "other");
  model.addRandom(other, 100, 6, 10);
  this->Store();

  std::vector<WzScanDBRecordBasePtr> records{this->tree.record(0)};
  ASSERT_FALSE(this->db->getSubTree(WzScanDBRecordBasePtr(), records, 0, true).IsError());
  EXPECT_TRUE(records.empty());
  WzScanDB fresh(TypeParam::Prototype());
  records.push_back(this->tree.record(0));
  std::vector<std::string> paths{"x"};
  ASSERT_FALSE(fresh.getSubTree(WzScanDBRecordBasePtr(), records, paths, 0, true).IsError());
  EXPECT_TRUE(records.empty());
  EXPECT_TRUE(paths.empty());

  std::vector<WzScanDBRecordBasePtr> joined;
  std::vector<std::string> joinedPaths;
  ASSERT_FALSE(this->db->getSubTree(this->tree.record(start), records, paths, 0, false).IsError());
  std::vector<WzScanDBRecordBasePtr> scratch;
  std::vector<std::string> scratchPaths;
  while (!records.empty()) {
    joined.insert(joined.end(), records.begin(), records.end());
    joinedPaths.insert(joinedPaths.end(), paths.begin(), paths.end());
    ASSERT_FALSE(this->db->getSubTree(this->tree.record(other), scratch, scratchPaths, false).IsError());
    ASSERT_FALSE(this->db->getSubTree(this->tree.record(other), scratch, true).IsError());
    ASSERT_FALSE(this->db->getSubTree(WzScanDBRecordBasePtr(), records, paths, 0, true).IsError());
  }
  EXPECT_EQ(model.breadthFirst(start), this->tree.nodesOf(joined));
  EXPECT_EQ(this->RelativePaths(start, model.breadthFirst(start)), joinedPaths);
}

// Write failures of the marking walks, provoked by reopening the table read
// only: each overload and direction reports the start record's write and a
// child's write at its own line and in its own words. The failing child is
// already in the result list, with its flag changed in memory.
TYPED_TEST(SubTreeTest, WriteFailureSitesOfTheMarkingOverloads) {
  TreeModel& model = this->tree.model();
  const int start = model.addFolder(0, "start");
  model.addFile(start, "a");
  model.addFile(start, "b");
  this->Store();

  struct Overload {
    const char* parameters;
    int startSetLine, startClearLine, childLine;
    const char* startSetText;
    const char* startClearText;
    const char* childText;  // with the flag word for "set" and for "clear"
    const char* setWord;
    const char* clearWord;
    bool batched, withPaths;
  };
  const char* kPathsParam = "std::vector<std::__cxx11::basic_string<char> >&, ";
  const std::vector<Overload> overloads = {
      {"bool)", 1113, 1118, 1145, "updateDBRecord(%s) Failed", "updateDBRecord(%s) Failed",
       "updateDBRecord(%s) with visited flag %s Failed", "set", "removed", false, false},
      {"bool)", 1181, 1186, 1236, "updateDBRecord(%s) with visited = true Failed",
       "updateDBRecord(%s) with visited = false Failed", "updateDBRecord(%s) with visited = %s Failed",
       "true", "false", false, true},
      {"bool, int, bool)", 1272, 1277, 1304, "updateDBRecord(%s) with visited = true Failed",
       "updateDBRecord(%s) with visited = false Failed", "updateDBRecord(%s) with visited = %s Failed",
       "true", "false", true, false},
      {"bool, int, bool)", 1351, 1356, 1404, "updateDBRecord(%s) with visited = true Failed",
       "updateDBRecord(%s) with visited = false Failed", "updateDBRecord(%s) with visited = %s Failed",
       "true", "false", true, true},
  };
  auto format = [](const char* text, const std::string& record, const char* word = "") {
    char buffer[2048];
    snprintf(buffer, sizeof(buffer), text, record.c_str(), word);
    return std::string(buffer);
  };
  auto reopen = [&](WZIndexing::TAccessEnum mode) {
    this->db->TCtreeTable::close();
    ASSERT_EQ(0, this->db->open(mode));
  };
  // Stored flags: the start's visited bit as given, the children's bits the
  // opposite, so that exactly one of the two kinds of write is needed.
  auto prepare = [&](bool startVisited) {
    reopen(WZIndexing::kAccessReadWrite);
    for (int id : {start, start + 1, start + 2}) {
      WzScanDBRecordBasePtr rec = this->tree.record(id);
      const bool visited = (id == start) == startVisited;
      rec->setFlags(rec->getFlags() | (visited ? kRecordFlagVisited : 0));
      ASSERT_FALSE(this->db->updateDBRecord(rec).IsError());
    }
    reopen(WZIndexing::kAccessReadOnly);
  };

  std::vector<WzScanDBRecordBasePtr> records;
  std::vector<std::string> paths;
  for (const Overload& each : overloads) {
    const std::string signature =
        std::string(kSignaturePrefix) + (each.withPaths ? kPathsParam : "") + each.parameters;
    auto call = [&](bool validate) {
      WzScanDBRecordBasePtr s = this->tree.record(start);
      if (each.batched && each.withPaths) return this->db->getSubTree(s, records, paths, validate, 10, false);
      if (each.batched) return this->db->getSubTree(s, records, validate, 10, false);
      if (each.withPaths) return this->db->getSubTree(s, records, paths, validate);
      return this->db->getSubTree(s, records, validate);
    };
    for (bool validate : {true, false}) {
      // The start record needs the write.
      prepare(!validate);
      CKoError err = call(validate);
      ASSERT_TRUE(err.IsError()) << signature;
      EXPECT_EQ(EKoErrorKind::kInt, err.GetKind());
      EXPECT_EQ(signature, Top(err).location.function);
      EXPECT_EQ(validate ? each.startSetLine : each.startClearLine, Top(err).location.line);
      EXPECT_EQ(format(validate ? each.startSetText : each.startClearText,
                       this->tree.record(start)->toString()),
                Top(err).message);
      EXPECT_TRUE(records.empty());

      // Only the children need it: the first child fails.
      prepare(validate);
      err = call(validate);
      ASSERT_TRUE(err.IsError()) << signature;
      EXPECT_EQ(signature, Top(err).location.function);
      EXPECT_EQ(each.childLine, Top(err).location.line);
      ASSERT_EQ(1u, records.size());
      EXPECT_EQ("a", records[0]->getName());
      EXPECT_EQ(validate ? kRecordFlagVisited : 0, records[0]->getFlags() & kRecordFlagVisited);
      EXPECT_EQ(format(each.childText, records[0]->toString(),
                       validate ? each.setWord : each.clearWord),
                Top(err).message);
      if (each.withPaths) {
        EXPECT_EQ(std::vector<std::string>{"a"}, paths);
      }
    }
  }
  reopen(WZIndexing::kAccessReadWrite);
}

// Every overload reports a start record that is not stored, and a failed
// lookup, at its own source line with its own signature text.
TYPED_TEST(SubTreeTest, ErrorSitesOfEveryOverload) {
  struct Overload {
    const char* parameters;
    int lookupFailedLine;
    int notPresentLine;
    std::function<CKoError(WzScanDB&, WzScanDBRecordBasePtr)> call;
  };
  std::vector<WzScanDBRecordBasePtr> records;
  std::vector<std::string> paths;
  const std::vector<Overload> overloads = {
      {"bool)", 1098, 1102,
       [&](WzScanDB& db, WzScanDBRecordBasePtr s) { return db.getSubTree(s, records, true); }},
      {"std::vector<std::__cxx11::basic_string<char> >&, bool)", 1163, 1166,
       [&](WzScanDB& db, WzScanDBRecordBasePtr s) { return db.getSubTree(s, records, paths, false); }},
      {"bool, int, bool)", 1256, 1259,
       [&](WzScanDB& db, WzScanDBRecordBasePtr s) { return db.getSubTree(s, records, true, 5, false); }},
      {"std::vector<std::__cxx11::basic_string<char> >&, bool, int, bool)", 1335, 1337,
       [&](WzScanDB& db, WzScanDBRecordBasePtr s) {
         return db.getSubTree(s, records, paths, true, 5, false);
       }},
      {"std::vector<std::__cxx11::basic_string<char> >&, int, bool)", 1433, 1436,
       [&](WzScanDB& db, WzScanDBRecordBasePtr s) { return db.getSubTree(s, records, paths, 5, false); }},
      {"int, bool)", 1499, 1501,
       [&](WzScanDB& db, WzScanDBRecordBasePtr s) { return db.getSubTree(s, records, 5, false); }},
  };

  const int missing = this->tree.model().addFolder(0, "missing");  // never stored
  WzScanDBRecordBasePtr absent = this->tree.record(missing);
  WzScanDB uninitialized(TypeParam::Prototype());
  for (const Overload& each : overloads) {
    const std::string signature = std::string(kSignaturePrefix) + each.parameters;
    records.assign(1, this->tree.record(0));
    paths.assign(1, "stale");

    CKoError err = each.call(*this->db, absent);
    ASSERT_TRUE(err.IsError()) << signature;
    EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
    EXPECT_EQ(2, err.GetCode());
    ASSERT_EQ(1u, err.GetFrames().size());
    EXPECT_EQ("The record " + absent->toString() + " is not present in the database to retrieve a subtree",
              Origin(err).message);
    EXPECT_STREQ("WzScanDB/WzScanDB", Origin(err).location.file);
    EXPECT_EQ(signature, Origin(err).location.function);
    EXPECT_EQ(each.notPresentLine, Origin(err).location.line);
    EXPECT_TRUE(records.empty());
    if (std::string(each.parameters).find("basic_string") != std::string::npos) {
      EXPECT_TRUE(paths.empty());
    }

    err = each.call(uninitialized, this->tree.record(0));
    ASSERT_TRUE(err.IsError()) << signature;
    EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
    EXPECT_EQ(22, err.GetCode());
    ASSERT_EQ(2u, err.GetFrames().size());
    EXPECT_EQ("checkDBRecord(" + this->tree.record(0)->toString() + ") Failed", Top(err).message);
    EXPECT_EQ(signature, Top(err).location.function);
    EXPECT_EQ(each.lookupFailedLine, Top(err).location.line);
  }
}

}  // namespace
