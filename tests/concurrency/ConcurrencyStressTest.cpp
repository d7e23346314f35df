// Several caller threads drive one generic database at once through the
// exported functions, each in its own sub-tree and with its own model of it;
// one more thread walks the whole tree item by item and validates it. In the
// end the table must be consistent and hold exactly what the models say.
//
// What callers may do side by side: addDBRecord and deleteDBRecord, and so
// everything built on them (file and folder operations, renames), call the
// engine's add and delete outside dbLock, and the table object is not
// thread-safe; the folder operations and the item walk also share the one
// batched-walk state of the object. So every such call here holds the
// caller's write gate exclusively, while the calls that hold dbLock for
// their whole length (look-ups, updates, folder listings, the item walk,
// validation) run side by side under its shared side.

#include <algorithm>
#include <atomic>
#include <random>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "SubTreeModel.h"
#include "WzScanDB/WzScanDBExports.h"
#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"
#include "support/LogAt.h"

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kOpsPerWorker = 150;
#else
constexpr int kOpsPerWorker = 3000;
#endif
constexpr int kWorkers = 4;
constexpr unsigned long long kRefTime = 1700000000ULL;

WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir,
                              unsigned long long refTime = 0) {
  WzScanDBRecordPtr record;
  std::string text = path;
  CreateGlusterRecordObject(record, text, isDir, refTime);
  return record;
}

// The stored record with the key of `path`, or null.
WzScanDBRecordBasePtr Lookup(const WzScanDBPtr& db, const std::string& path) {
  WzScanDBRecordBasePtr probe = Generic(path, false);
  WzScanDBRecordBasePtr out = Generic(path, false);
  bool found = false;
  CKoError err;
  WzScanDBObjectCheckDBRecord(db, probe, out, found, err);
  EXPECT_TRUE(err.IsSuccess()) << path << ": " << err.AsString();
  return found ? out : WzScanDBRecordBasePtr();
}

// Every item below the root with its relative path; the walk must end with
// the end-of-iteration error and nothing else.
std::set<std::string> WalkFromRoot(const WzScanDBPtr& db) {
  std::set<std::string> paths;
  WzScanDBRecordBasePtr item;
  std::string path;
  CKoError err;
  WzScanDBObjectGetFirstItem(db, Generic("/", true), item, path, err);
  while (err.IsSuccess()) {
    EXPECT_TRUE(paths.insert(path).second) << "item handed out twice: " << path;
    WzScanDBObjectGetNextItem(db, item, path, err);
  }
  EXPECT_EQ(EKoErrorKind::kWin32, err.GetKind()) << err.AsString();
  EXPECT_EQ(18, err.GetCode()) << err.AsString();
  return paths;
}

class ConcurrencyStressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    capture = InstallQuietCapture(0);

    WzScanDBRecordPtr prototype;
    CreateGlusterEmptyRecordObject(prototype);
    CreateWzScanDBObject(db, prototype);
    std::string directory = dir.path();
    CKoError err;
    WzScanDBObjectInitialize(db, directory, err);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    WzScanDBObjectSetRefTime(db, kRefTime);
    AddOrFail("/", true);
  }
  void TearDown() override {
    if (db) {
      CKoError err;
      WzScanDBObjectClose(db, err);
    }
    capture->Remove();
  }

  void AddOrFail(const std::string& path, bool isDir) {
    CKoError err;
    if (isDir)
      WzScanDBObjectAddFolder(db, Generic(path, true), err);
    else
      WzScanDBObjectAddFile(db, Generic(path, false), err);
    ASSERT_TRUE(err.IsSuccess()) << path << ": " << err.AsString();
  }

  void RunWorker(int index, SubTreeModel& model);
  void RunWalker(const std::set<std::string>& fixedPaths, std::atomic<int>& running,
                 int& walks);

  TempDir dir;
  std::shared_ptr<CLogCapture> capture;
  WzScanDBPtr db;
  std::shared_mutex writeGate;
};

void ConcurrencyStressTest::RunWorker(int index, SubTreeModel& model) {
  std::mt19937 rng(7919u * static_cast<unsigned>(index + 1));
  int serial = 0;
  auto fresh = [&](const char* prefix) { return prefix + std::to_string(serial++); };
  CKoError err;

  for (int op = 0; op < kOpsPerWorker && !::testing::Test::HasFatalFailure(); ++op) {
    const int roll = std::uniform_int_distribution<int>(0, 99)(rng);
    if (roll < 35) {  // add a file or a folder below a random folder
      const bool isDir = roll >= 25;
      const std::string path = model.pick(rng, true) + "/" + fresh(isDir ? "d" : "f");
      {
        std::unique_lock<std::shared_mutex> gate(writeGate);
        if (isDir)
          WzScanDBObjectAddFolder(db, Generic(path, true), err);
        else
          WzScanDBObjectAddFile(db, Generic(path, false), err);
      }
      ASSERT_TRUE(err.IsSuccess()) << path << ": " << err.AsString();
      model.add(path, isDir, kRefTime);
    } else if (roll < 55) {  // look up an entry, or a name that was never added
      const bool absent = roll < 40;
      const std::string path =
          absent ? model.pick(rng, true) + "/" + fresh("x") : model.pick(rng, false);
      WzScanDBRecordBasePtr stored;
      {
        std::shared_lock<std::shared_mutex> gate(writeGate);
        stored = Lookup(db, path);
      }
      if (absent) {
        ASSERT_FALSE(stored) << path;
        continue;
      }
      ASSERT_TRUE(stored) << "lost: " << path;
      EXPECT_EQ(model.at(path).isDir, stored->isDir()) << path;
      EXPECT_EQ(model.at(path).refTime, stored->getRefTime()) << path;
    } else if (roll < 65) {  // update a file's reference time
      const std::string path = model.pick(rng, false);
      if (model.at(path).isDir) continue;
      const unsigned long long refTime =
          kRefTime + 1 + std::uniform_int_distribution<unsigned>(0, 100000)(rng);
      {
        std::shared_lock<std::shared_mutex> gate(writeGate);
        WzScanDBObjectUpdateDBRecord(db, Generic(path, false, refTime), err);
      }
      ASSERT_TRUE(err.IsSuccess()) << path << ": " << err.AsString();
      model.at(path).refTime = refTime;
    } else if (roll < 75) {  // list a folder
      const std::string folder = model.pick(rng, true);
      std::vector<WzScanDBRecordBasePtr> items;
      {
        std::shared_lock<std::shared_mutex> gate(writeGate);
        WzScanDBObjectGetFolderItems(db, Generic(folder, true), items, err);
      }
      ASSERT_TRUE(err.IsSuccess()) << folder << ": " << err.AsString();
      std::vector<std::string> names;
      for (const WzScanDBRecordBasePtr& item : items) names.push_back(item->getName());
      std::sort(names.begin(), names.end());
      ASSERT_EQ(model.childNames(folder), names) << folder;
    } else if (roll < 85) {  // remove a file
      const std::string path = model.pick(rng, false);
      if (model.at(path).isDir) continue;
      {
        std::unique_lock<std::shared_mutex> gate(writeGate);
        WzScanDBObjectRemoveFile(db, Generic(path, false), err);
      }
      ASSERT_TRUE(err.IsSuccess()) << path << ": " << err.AsString();
      model.removeTree(path);
    } else if (roll < 97) {  // rename a file or a folder (with its sub-tree)
      const std::string from = model.pick(rng, false);
      if (from == model.top()) continue;
      const bool isDir = model.at(from).isDir;
      // renameFolder re-keys the folders below the moved one from their new
      // path with a trailing delimiter, which a generic record hashes apart
      // from the same path without it: their children would lose their
      // parent. Only folders that hold no folders are moved here.
      if (isDir && model.hasSubFolder(from)) continue;
      const std::string to = ParentOf(from) + "/" + fresh("r");
      {
        std::unique_lock<std::shared_mutex> gate(writeGate);
        if (isDir)
          WzScanDBObjectRenameFolder(db, Generic(from, true), Generic(to, true), from, to, err);
        else
          WzScanDBObjectRenameFile(db, Generic(from, false), Generic(to, false), err);
      }
      ASSERT_TRUE(err.IsSuccess()) << from << " -> " << to << ": " << err.AsString();
      model.moveTree(from, to, kRefTime);
    } else {  // remove a folder with its sub-tree, once the tree has grown
      const std::string folder = model.pick(rng, true);
      if (folder == model.top() || model.entries().size() < 40) continue;
      {
        std::unique_lock<std::shared_mutex> gate(writeGate);
        WzScanDBObjectRemoveFolder(db, Generic(folder, true), err);
      }
      ASSERT_TRUE(err.IsSuccess()) << folder << ": " << err.AsString();
      model.removeTree(folder);
    }
  }
}

// Walks the whole tree and validates it until the workers are done; the
// fixed sub-tree, which nobody changes, must be in every walk.
void ConcurrencyStressTest::RunWalker(const std::set<std::string>& fixedPaths,
                                      std::atomic<int>& running, int& walks) {
  do {
    std::set<std::string> seen;
    bool consistent = false;
    CKoError err;
    {
      std::shared_lock<std::shared_mutex> gate(writeGate);
      seen = WalkFromRoot(db);
      WzScanDBObjectValidateTree(db, consistent, err);
    }
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    ASSERT_TRUE(consistent) << "walk " << walks;
    for (const std::string& path : fixedPaths) ASSERT_TRUE(seen.count(path)) << path;
    ++walks;
  } while (running.load() > 0);
}

TEST_F(ConcurrencyStressTest, DisjointSubTreesKeepExactlyWhatSucceeded) {
  std::set<std::string> fixedPaths;  // relative to the root, as the walk gives them
  AddOrFail("/fixed", true);
  fixedPaths.insert("fixed");
  for (int i = 0; i < 5; ++i) {
    const std::string folder = "/fixed/d" + std::to_string(i);
    AddOrFail(folder, true);
    fixedPaths.insert(folder.substr(1));
    for (int j = 0; j < 6; ++j) {
      const std::string file = folder + "/f" + std::to_string(j);
      AddOrFail(file, false);
      fixedPaths.insert(file.substr(1));
    }
  }

  std::vector<SubTreeModel> models;
  for (int i = 0; i < kWorkers; ++i) {
    models.emplace_back("/w" + std::to_string(i));
    AddOrFail(models.back().top(), true);
    models.back().add(models.back().top(), true, kRefTime);
  }

  std::atomic<int> running(kWorkers);
  int walks = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kWorkers; ++i)
    threads.emplace_back([this, i, &models, &running] {
      RunWorker(i, models[i]);
      running.fetch_sub(1);
    });
  threads.emplace_back([&] { RunWalker(fixedPaths, running, walks); });
  for (std::thread& thread : threads) thread.join();
  ASSERT_FALSE(HasFailure());
  EXPECT_GE(walks, 1);

  // The engine's own check: every index entry leads to its record, every
  // record is in every index.
  std::string report;
  EXPECT_EQ(0, db->checkConsistency(&report)) << report;
  bool consistent = false;
  CKoError err;
  WzScanDBObjectValidateTree(db, consistent, err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_TRUE(consistent);

  // Exactly the union of the models and the fixed sub-tree, no more, no less.
  std::set<std::string> expected = fixedPaths;
  for (const SubTreeModel& model : models)
    for (const auto& [path, entry] : model.entries()) expected.insert(path.substr(1));
  EXPECT_EQ(expected, WalkFromRoot(db));
  EXPECT_EQ(static_cast<int64_t>(expected.size() + 1), db->numberOfRecords());
  for (SubTreeModel& model : models)
    for (const auto& [path, entry] : model.entries()) {
      WzScanDBRecordBasePtr stored = Lookup(db, path);
      ASSERT_TRUE(stored) << "lost: " << path;
      EXPECT_EQ(entry.isDir, stored->isDir()) << path;
      EXPECT_EQ(entry.refTime, stored->getRefTime()) << path;
    }
  for (const CLogEntry& entry : capture->Entries())
    EXPECT_GE(entry.level, 0) << entry.function << ": " << entry.message;

  // The same after a close and a fresh open of the files.
  WzScanDBObjectClose(db, err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  CreateWzScanDBObject(db, prototype);
  std::string directory = dir.path();
  WzScanDBObjectInitialize(db, directory, err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(0, db->checkConsistency(&report)) << report;
  EXPECT_EQ(expected, WalkFromRoot(db));
}

}  // namespace
