// Eight threads drive one generic database at once: adds, updates, deletes
// and folder listings on files of four folders. Some files are
// private to one thread (exact expectations at every step), the others are
// shared by all threads (their calls race on the same keys); then, in
// bursts, all threads add one shared file at the same moment and then all
// delete it. Two disciplines:
//
//   - kCallerSerialisesWrites: the threads serialise addDBRecord and
//     deleteDBRecord among themselves, as callers that share a database must;
//     look-ups, updates and listings run free;
//   - kNoCallerLock: nothing at all is serialised by the caller.
//
// Allowed answers besides success are only those a race explains: an update
// whose record a delete took away says "not present" (error 22, or engine
// status 103 when the delete came between its look-up and its write); without
// a caller lock an add that loses a race against another add of the same key
// gets 102, and a delete that loses against another delete gets 103.
//
// Every record read is checked byte by byte (its stat bytes are a function of
// its reference time, which names its key): a torn or misplaced image fails.
// Afterwards, and again after a close and reopen, the engine's consistency
// check, validateTree and the history of the calls that returned success must
// agree: the final state of each key is what one of its last successful
// writes left (a write that ended before another began cannot be the last),
// and the table holds nothing else. The table runs with a 1 MiB log limit and
// a 2 ms sync interval, so checkpoints and the log flusher run all through.
// scripts/run-tests.sh runs this test under ThreadSanitizer too.

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "support/LogAt.h"
#include "support/TempDir.h"
#include "table/TableStatus.h"

namespace {

constexpr int kThreads = 8, kOpsPerThread = 3000, kBursts = 150, kFolders = 4, kPrivatePerFolder = 3;
// Keys by number: per folder, its shared file, then each thread's private ones.
constexpr int kPerFolder = 1 + kThreads * kPrivatePerFolder;

enum class Discipline { kCallerSerialisesWrites, kNoCallerLock };
enum Op { kAdd, kUpdate, kDelete };

struct Key {  // owner: the thread that alone writes it, or -1 when shared
  std::string path;
  int folder, owner;
};
// A write that returned success: its place in time and what it left.
struct Event { uint64_t start, end; bool present; uint32_t value; };

// The reference time names the key in its top 12 bits; the stat bytes are a
// function of it.
void FillStat(uint32_t value, uint8_t* stat) {
  for (uint32_t i = 0, word = 0; i < sizeof(struct stat); i += 4)
    word = value ^ (0x9E3779B9u * (i + 1)), std::memcpy(stat + i, &word, 4);
}
SRecordStructure& Image(const WzScanDBRecordBasePtr& r) { return *static_cast<SRecordStructure*>(r->getStructure()); }
WzScanDBRecordBasePtr Record(const std::string& path, bool isDir, uint32_t value = 0) {
  auto record = boost::make_shared<WzScanDBRecord>(path, isDir, value);
  if (!isDir) FillStat(value, reinterpret_cast<uint8_t*>(&Image(record).stat_data));
  return record;
}

// The answer to a write of `key` is one the discipline allows: for a
// thread's own key exactly the model's (an update of an absent record: "not
// present"); for a shared key success or what a race explains.
bool Allowed(Discipline discipline, Op op, const CKoError& error, bool own, bool present) {
  const bool notPresent = error.GetKind() == EKoErrorKind::kErrNo && error.GetCode() == 22 &&
                          error.AsString().find("the Record is not present in the database") != std::string::npos;
  const long long engine = error.GetKind() == EKoErrorKind::kInt ? error.GetCode() : 0;
  if (own) return op == kUpdate && !present ? notPresent : error.IsSuccess();
  if (error.IsSuccess()) return true;
  if (op == kUpdate) return notPresent || engine == TBL_NO_CURRENT;
  if (discipline == Discipline::kCallerSerialisesWrites) return false;
  return engine == TBL_NO_CURRENT || (op == kAdd && (notPresent || engine == TBL_DUPLICATE_KEY));
}

// Lets all threads go at once, round after round: the last to arrive starts
// the next generation.
struct Barrier {
  void Wait() {
    const int generation = generation_;
    if (++arrived_ % kThreads == 0) ++generation_;
    while (generation_ == generation) std::this_thread::yield();
  }
  std::atomic<int> arrived_{0}, generation_{0};
};

class ConcurrencyStress : public ::testing::TestWithParam<Discipline> {
 protected:
  void SetUp() override {
    capture = InstallQuietCapture(0);
    std::ofstream(dir / "settings.ini") << "[~FileSystemAgent]\nnWzScanDBLogLimitMiB = 1\n"
                                        << "nWzScanDBSyncIntervalMs = 2\n";
    setenv("WZ_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
    db = boost::make_shared<WzScanDB>(Record("", false));
    ASSERT_TRUE(db->initialize(dir.path()).IsSuccess() && db->addFolder(Record("/", true)).IsSuccess());
    for (int f = 0; f < kFolders; ++f) {
      const std::string folder = "/d" + std::to_string(f);
      ASSERT_TRUE(db->addFolder(Record(folder, true)).IsSuccess());
      keys.push_back({folder + "/s", f, -1});
      for (int i = 0; i < kThreads * kPrivatePerFolder; ++i)
        keys.push_back({folder + "/t" + std::to_string(i), f, i / kPrivatePerFolder});
    }
  }
  void TearDown() override {
    if (db) db->close();
    unsetenv("WZ_SETTINGS_FILE");
    capture->Remove();
  }

  // A stored file record is well formed for `key` (any key of its folder when
  // -1): the whole image of a value of that key (its name, its identifiers,
  // the stat bytes of that value). Returns the key, or -1 after a failure.
  int CheckImage(const WzScanDBRecordBasePtr& stored, int folder, int key) {
    const SRecordStructure& image = Image(stored);
    const int named = int(image.refTime >> 20);
    if (named < int(keys.size()) && keys[named].folder == folder && (key < 0 || named == key) &&
        std::memcmp(&Image(Record(keys[named].path, false, image.refTime)), &image, sizeof image) == 0)
      return named;
    ADD_FAILURE() << "torn or foreign image '" << image.sname << "' for key " << key << " of folder " << folder;
    return -1;
  }

  // One add, update or delete of `key` by `thread`, timed on the shared
  // clock: its answer must be one the discipline allows (exactly the model's
  // for this thread's own keys), and a success is kept in the history.
  bool Write(int thread, Op op, int key, uint32_t& serial, std::map<int, uint32_t>& mine) {
    const uint32_t value = (uint32_t(key) << 20) | (((uint32_t(thread) << 16) + ++serial) & 0xFFFFF);
    WzScanDBRecordBasePtr record = Record(keys[key].path, false, value);
    std::unique_lock<std::mutex> lock(writeLock, std::defer_lock);
    if (op != kUpdate && GetParam() == Discipline::kCallerSerialisesWrites) lock.lock();
    const uint64_t start = ++clock;
    CKoError error = op == kAdd      ? db->addDBRecord(record)
                     : op == kUpdate ? db->updateDBRecord(record)
                                     : db->deleteDBRecord(record);
    const uint64_t end = ++clock;
    if (lock.owns_lock()) lock.unlock();
    if (!Allowed(GetParam(), op, error, keys[key].owner == thread, mine.count(key) != 0)) {
      ADD_FAILURE() << keys[key].path << ": " << error.AsString();
      return false;
    }
    if (error.IsError()) return true;
    if (op == kDelete) mine.erase(key);
    else if (keys[key].owner == thread) mine[key] = value;
    events[thread].push_back({key, {start, end, op != kDelete, value}});
    return true;
  }

  void RunThread(int thread) {
    std::mt19937 rng(1000u + static_cast<unsigned>(thread));
    std::map<int, uint32_t> mine;  // this thread's private keys that are present
    uint32_t serial = 0;
    for (int i = 0; i < kOpsPerThread && !::testing::Test::HasFailure(); ++i) {
      const unsigned roll = rng() % 100;
      if (roll < 75) {  // a write of this thread's own keys or of shared ones
        const int own = rng() % 2 ? 0 : 1 + thread * kPrivatePerFolder + int(rng() % kPrivatePerFolder);
        const int key = int(rng() % kFolders) * kPerFolder + own;
        if (!Write(thread, roll < 35 ? kAdd : roll < 57 ? kUpdate : kDelete, key, serial, mine)) return;
      } else {  // a folder listing: whole images of its files, each once
        const int folder = int(rng() % kFolders);
        std::vector<WzScanDBRecordBasePtr> children;
        ASSERT_TRUE(db->getChildren(Record("/d" + std::to_string(folder), true), children).IsSuccess());
        std::set<int> seen;
        for (const WzScanDBRecordBasePtr& child : children)
          ASSERT_TRUE(seen.insert(CheckImage(child, folder, -1)).second) << "listed twice: " << Image(child).sname;
      }
    }
  }

  // All threads at once add one shared key, then all delete it: the races
  // of add against add and delete against delete, round after round.
  void RunBursts(int thread, Barrier& barrier) {
    std::map<int, uint32_t> mine;
    uint32_t serial = 1u << 15;
    for (int round = 0; round < kBursts; ++round)
      for (Op op : {kAdd, kDelete}) {
        barrier.Wait();
        Write(thread, op, (round % kFolders) * kPerFolder, serial, mine);
      }
  }

  std::shared_ptr<CLogCapture> capture;
  TempDir dir;
  boost::shared_ptr<WzScanDB> db;
  std::vector<Key> keys;
  std::atomic<uint64_t> clock{0};
  std::mutex writeLock;  // the caller's own, for kCallerSerialisesWrites
  std::vector<std::vector<std::pair<int, Event>>> events = std::vector<std::vector<std::pair<int, Event>>>(kThreads);
};

TEST_P(ConcurrencyStress, EightThreadsKeepWhatSucceeded) {
  Barrier barrier;
  for (bool bursts : {false, true}) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([this, t, bursts, &barrier] { bursts ? RunBursts(t, barrier) : RunThread(t); });
    for (std::thread& thread : threads) thread.join();
    ASSERT_FALSE(HasFailure());
  }
  // What each key must hold: one of its last successful writes.
  std::vector<std::vector<Event>> history(keys.size());
  for (const auto& list : events)
    for (const auto& [key, event] : list) history[key].push_back(event);
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round == 0 ? "after the threads" : "after close and open");
    std::string report;
    EXPECT_EQ(TBL_OK, db->checkConsistency(&report)) << report;
    bool consistent = false;
    EXPECT_TRUE(db->validateTree(consistent).IsSuccess() && consistent);
    int present = 0;
    for (size_t key = 0; key < keys.size(); ++key) {
      WzScanDBRecordBasePtr out = Record(keys[key].path, false);
      bool found = false;
      ASSERT_TRUE(db->checkDBRecord(Record(keys[key].path, false), out, found).IsSuccess());
      if (found && CheckImage(out, keys[key].folder, int(key)) < 0) continue;
      uint64_t lastStart = 0;
      for (const Event& e : history[key]) lastStart = std::max(lastStart, e.start);
      bool explained = history[key].empty() && !found;
      for (const Event& e : history[key])
        explained |= e.end > lastStart && e.present == found && (!found || e.value == Image(out).refTime);
      EXPECT_TRUE(explained) << keys[key].path << (found ? " holds " + std::to_string(Image(out).refTime) : " absent")
                             << ", which none of its last successful writes left";
      present += found;
    }
    EXPECT_EQ(1 + kFolders + present, db->numberOfRecords());
    for (const CLogEntry& entry : capture->Entries()) EXPECT_GE(entry.level, 0) << entry.function << entry.message;
    if (round == 1) break;
    ASSERT_TRUE(db->close().IsSuccess());
    ASSERT_TRUE((db = boost::make_shared<WzScanDB>(Record("", false)))->initialize(dir.path()).IsSuccess());
  }
}

INSTANTIATE_TEST_SUITE_P(Disciplines, ConcurrencyStress,
                         ::testing::Values(Discipline::kCallerSerialisesWrites, Discipline::kNoCallerLock),
                         [](const auto& info) {
                           return std::string(info.index ? "NoCallerLock" : "CallerSerialisesAddAndDelete");
                         });

}  // namespace
