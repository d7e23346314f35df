// Eight threads drive one generic database at once: adds, updates, deletes,
// look-ups and folder listings on files of four folders. Some files are
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
// Afterwards the engine's consistency check, validateTree and the history of
// the calls that returned success must agree: the final state of each key is
// what one of its last successful writes left (a write that ended before
// another began cannot be the last), and the table holds nothing else. The
// table runs with a 1 MiB log limit and a 2 ms sync interval, so checkpoints
// and the log flusher run all through.

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <ostream>
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

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kOpsPerThread = 2500;
#else
constexpr int kOpsPerThread = 5000;
#endif
constexpr int kThreads = 8;
constexpr int kBursts = 150;
constexpr int kFolders = 4;
constexpr int kSharedPerFolder = 1;
constexpr int kPrivatePerFolder = 3;  // per thread

enum class Discipline { kCallerSerialisesWrites, kNoCallerLock };

void PrintTo(Discipline discipline, std::ostream* out) {
  *out << (discipline == Discipline::kCallerSerialisesWrites ? "caller serialises add and delete"
                                                             : "no caller lock");
}

struct Key {
  std::string path, name;
  int folder;
  int owner;  // the thread that alone writes it, or -1 when shared
};

// A write that returned success: its place in time and what it left.
struct Event {
  uint64_t start, end;
  bool present;
  uint32_t value;
};

// The reference time names the key in its top 12 bits; the stat bytes are a
// function of it.
uint32_t ValueOf(int key, uint32_t serial) { return (uint32_t(key) << 20) | (serial & 0xFFFFF); }
int KeyOfValue(uint32_t value) { return static_cast<int>(value >> 20); }

void FillStat(uint32_t value, uint8_t* stat) {
  for (size_t i = 0; i < sizeof(struct stat); i += 4) {
    const uint32_t word = value ^ (0x9E3779B9u * static_cast<uint32_t>(i + 1));
    std::memcpy(stat + i, &word, 4);
  }
}

SRecordStructure& Image(const WzScanDBRecordBasePtr& record) {
  return *static_cast<SRecordStructure*>(record->getStructure());
}

WzScanDBRecordBasePtr Record(const std::string& path, bool isDir, uint32_t value = 0) {
  auto record = boost::make_shared<WzScanDBRecord>(path, isDir, value);
  if (!isDir) FillStat(value, reinterpret_cast<uint8_t*>(&Image(record).stat_data));
  return record;
}

enum class Outcome { kOk, kNotPresent, kDuplicate, kNoCurrent, kOther };

Outcome Classify(const CKoError& error) {
  if (error.IsSuccess()) return Outcome::kOk;
  if (error.GetKind() == EKoErrorKind::kErrNo && error.GetCode() == 22 &&
      error.AsString().find("Failed since the Record is not present in the database") !=
          std::string::npos)
    return Outcome::kNotPresent;
  if (error.GetKind() == EKoErrorKind::kInt && error.GetCode() == TBL_DUPLICATE_KEY)
    return Outcome::kDuplicate;
  if (error.GetKind() == EKoErrorKind::kInt && error.GetCode() == TBL_NO_CURRENT)
    return Outcome::kNoCurrent;
  return Outcome::kOther;
}

enum Op { kAdd, kUpdate, kDelete };

// Lets all threads go at once, round after round.
class Barrier {
 public:
  void Wait() {
    const int generation = generation_.load();
    if (arrived_.fetch_add(1) + 1 == kThreads) {
      arrived_ = 0;
      ++generation_;
      return;
    }
    while (generation_.load() == generation) std::this_thread::yield();
  }

 private:
  std::atomic<int> arrived_{0}, generation_{0};
};

bool Allowed(Discipline discipline, Op op, Outcome outcome) {
  if (outcome == Outcome::kOk) return true;
  if (op == kUpdate) return outcome == Outcome::kNotPresent || outcome == Outcome::kNoCurrent;
  if (discipline == Discipline::kCallerSerialisesWrites) return false;
  if (op == kDelete) return outcome == Outcome::kNoCurrent;
  return outcome != Outcome::kOther;
}

class ConcurrencyStress : public ::testing::TestWithParam<Discipline> {
 protected:
  void SetUp() override {
    capture = InstallQuietCapture(0);
    std::ofstream(dir / "settings.ini")
        << "[~FileSystemAgent]\nnWzScanDBLogLimitMiB = 1\nnWzScanDBSyncIntervalMs = 2\n";
    setenv("WZ_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
    db = boost::make_shared<WzScanDB>(Record("", false));
    ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
    ASSERT_TRUE(db->addFolder(Record("/", true)).IsSuccess());
    for (int f = 0; f < kFolders; ++f) {
      const std::string folder = "/d" + std::to_string(f);
      ASSERT_TRUE(db->addFolder(Record(folder, true)).IsSuccess());
      for (int s = 0; s < kSharedPerFolder; ++s)
        keys.push_back({folder + "/s" + std::to_string(s), "s" + std::to_string(s), f, -1});
      for (int t = 0; t < kThreads; ++t)
        for (int p = 0; p < kPrivatePerFolder; ++p) {
          const std::string name = "t" + std::to_string(t) + "-" + std::to_string(p);
          keys.push_back({folder + "/" + name, name, f, t});
        }
    }
    for (size_t k = 0; k < keys.size(); ++k) keyOfName[{keys[k].folder, keys[k].name}] = int(k);
  }
  void TearDown() override {
    if (db) db->close();
    unsetenv("WZ_SETTINGS_FILE");
    capture->Remove();
  }

  // A stored file record is well formed for `key` (any key of its folder when
  // -1): its name, its identifiers, a value of that key and the stat bytes of
  // that value. Returns the key it belongs to, or -1 after a failure.
  int CheckImage(const WzScanDBRecordBasePtr& stored, int folder, int key) {
    const SRecordStructure& image = Image(stored);
    const std::string name(image.sname, strnlen(image.sname, sizeof image.sname));
    auto it = keyOfName.find({folder, name});
    if (it == keyOfName.end() || (key >= 0 && it->second != key)) {
      ADD_FAILURE() << "record '" << name << "' where key " << key << " of folder " << folder
                    << " was read";
      return -1;
    }
    const Key& k = keys[it->second];
    SRecordStructure expected;
    WzScanDBRecord fresh(k.path, false, image.refTime);
    std::memcpy(static_cast<void*>(&expected), fresh.getStructure(), sizeof expected);
    FillStat(image.refTime, reinterpret_cast<uint8_t*>(&expected.stat_data));
    if (KeyOfValue(image.refTime) != it->second ||
        std::memcmp(&expected, &image, sizeof expected) != 0) {
      ADD_FAILURE() << "torn or foreign image read for " << k.path << " (value " << image.refTime
                    << ")";
      return -1;
    }
    return it->second;
  }

  bool Write(int thread, Discipline discipline, Op op, int key, uint32_t& serial,
             std::map<int, uint32_t>& mine);
  void RunThread(int thread, Discipline discipline);
  void RunBursts(int thread, Discipline discipline, Barrier& barrier);

  std::shared_ptr<CLogCapture> capture;
  TempDir dir;
  boost::shared_ptr<WzScanDB> db;
  std::vector<Key> keys;
  std::map<std::pair<int, std::string>, int> keyOfName;
  std::atomic<uint64_t> clock{0};
  std::mutex writeLock;  // the caller's own, for kCallerSerialisesWrites
  std::vector<std::vector<std::pair<int, Event>>> events =
      std::vector<std::vector<std::pair<int, Event>>>(kThreads);
  std::atomic<int> outcomes[5]{};
};

// One add, update or delete of `key` by `thread`, timed on the shared
// clock: its answer must be one the discipline allows (exactly the model's
// for this thread's own keys), and a success is kept in the history.
bool ConcurrencyStress::Write(int thread, Discipline discipline, Op op, int key, uint32_t& serial,
                              std::map<int, uint32_t>& mine) {
  const uint32_t value = ValueOf(key, (uint32_t(thread) << 16) + ++serial);
  WzScanDBRecordBasePtr record = Record(keys[key].path, false, value);
  const bool serialise = op != kUpdate && discipline == Discipline::kCallerSerialisesWrites;
  std::unique_lock<std::mutex> lock(writeLock, std::defer_lock);
  if (serialise) lock.lock();
  const uint64_t start = ++clock;
  CKoError error = op == kAdd      ? db->addDBRecord(record)
                   : op == kUpdate ? db->updateDBRecord(record)
                                   : db->deleteDBRecord(record);
  const uint64_t end = ++clock;
  if (serialise) lock.unlock();
  const Outcome outcome = Classify(error);
  if (keys[key].owner < 0) ++outcomes[int(outcome)];
  if (keys[key].owner == thread) {  // alone on it: exactly as a model says
    const bool present = mine.count(key) != 0;
    const Outcome expected = op == kUpdate && !present ? Outcome::kNotPresent : Outcome::kOk;
    EXPECT_EQ(int(expected), int(outcome)) << keys[key].path << ": " << error.AsString();
    if (int(expected) != int(outcome)) return false;
  } else if (!Allowed(discipline, op, outcome)) {
    ADD_FAILURE() << keys[key].path << ": " << error.AsString();
    return false;
  }
  if (outcome == Outcome::kOk) {
    if (op == kDelete) mine.erase(key);
    else if (keys[key].owner == thread) mine[key] = value;
    events[thread].push_back({key, {start, end, op != kDelete, value}});
  }
  return true;
}

// All threads at once add one shared key, then all delete it: the races
// of add against add and delete against delete, round after round.
void ConcurrencyStress::RunBursts(int thread, Discipline discipline, Barrier& barrier) {
  std::vector<int> shared;
  for (size_t k = 0; k < keys.size(); ++k)
    if (keys[k].owner < 0) shared.push_back(int(k));
  std::map<int, uint32_t> mine;
  uint32_t serial = 1u << 15;
  for (int round = 0; round < kBursts; ++round)
    for (Op op : {kAdd, kDelete}) {
      barrier.Wait();
      Write(thread, discipline, op, shared[size_t(round) % shared.size()], serial, mine);
    }
}

void ConcurrencyStress::RunThread(int thread, Discipline discipline) {
  std::mt19937 rng(1000u + static_cast<unsigned>(thread));
  std::map<int, uint32_t> mine;  // this thread's private keys that are present
  std::vector<int> own, shared;
  for (size_t k = 0; k < keys.size(); ++k) {
    if (keys[k].owner == thread) own.push_back(int(k));
    if (keys[k].owner < 0) shared.push_back(int(k));
  }
  uint32_t serial = 0;
  // Writes go to this thread's own keys or to shared ones; reads to any.
  auto pickWritable = [&] {
    const std::vector<int>& from = rng() % 2 ? own : shared;
    return from[rng() % from.size()];
  };

  for (int i = 0; i < kOpsPerThread && !::testing::Test::HasFailure(); ++i) {
    const unsigned roll = rng() % 100;
    if (roll < 70) {  // a write
      const Op op = roll < 35 ? kAdd : roll < 55 ? kUpdate : kDelete;
      if (!Write(thread, discipline, op, pickWritable(), serial, mine)) return;
    } else if (roll < 88) {  // a look-up
      const int key = int(rng() % keys.size());
      WzScanDBRecordBasePtr out = Record(keys[key].path, false);
      bool found = false;
      CKoError error = db->checkDBRecord(Record(keys[key].path, false), out, found);
      ASSERT_TRUE(error.IsSuccess()) << error.AsString();
      if (found) CheckImage(out, keys[key].folder, key);
      if (keys[key].owner != thread) continue;
      ASSERT_EQ(mine.count(key) != 0, found) << keys[key].path;
      if (found) {
        ASSERT_EQ(mine[key], Image(out).refTime) << keys[key].path;
      }
    } else {  // a folder listing: plausible children, this thread's own exactly
      const int folder = int(rng() % kFolders);
      std::vector<WzScanDBRecordBasePtr> children;
      CKoError error = db->getChildren(Record("/d" + std::to_string(folder), true), children);
      ASSERT_TRUE(error.IsSuccess()) << error.AsString();
      std::set<int> seen;
      std::map<int, uint32_t> own;
      for (const WzScanDBRecordBasePtr& child : children) {
        const int key = CheckImage(child, folder, -1);
        ASSERT_GE(key, 0);
        ASSERT_TRUE(seen.insert(key).second) << "listed twice: " << keys[key].path;
        if (keys[key].owner == thread) own[key] = Image(child).refTime;
      }
      std::map<int, uint32_t> expected;
      for (const auto& [key, value] : mine)
        if (keys[key].folder == folder) expected[key] = value;
      ASSERT_EQ(expected, own) << "folder /d" << folder;
    }
  }
}

TEST_P(ConcurrencyStress, EightThreadsKeepWhatSucceeded) {
  const Discipline discipline = GetParam();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([this, t, discipline] { RunThread(t, discipline); });
  for (std::thread& thread : threads) thread.join();
  ASSERT_FALSE(HasFailure());
  Barrier barrier;
  threads.clear();
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([this, t, discipline, &barrier] { RunBursts(t, discipline, barrier); });
  for (std::thread& thread : threads) thread.join();
  ASSERT_FALSE(HasFailure());
  std::printf("[ figures  ] %d threads x (%d calls + %d bursts); writes of shared keys: %d ok, "
              "%d not present, %d duplicate, %d no current record\n",
              kThreads, kOpsPerThread, kBursts, outcomes[0].load(), outcomes[1].load(),
              outcomes[2].load(), outcomes[3].load());

  // What each key must hold: one of its last successful writes.
  std::vector<std::vector<Event>> history(keys.size());
  for (const auto& list : events)
    for (const auto& [key, event] : list) history[key].push_back(event);

  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round == 0 ? "after the threads" : "after close and open");
    std::string report;
    EXPECT_EQ(TBL_OK, db->checkConsistency(&report)) << report;
    bool consistent = false;
    ASSERT_TRUE(db->validateTree(consistent).IsSuccess());
    EXPECT_TRUE(consistent);
    int present = 0;
    for (size_t key = 0; key < keys.size(); ++key) {
      WzScanDBRecordBasePtr out = Record(keys[key].path, false);
      bool found = false;
      ASSERT_TRUE(db->checkDBRecord(Record(keys[key].path, false), out, found).IsSuccess());
      if (found && CheckImage(out, keys[key].folder, int(key)) < 0) continue;
      const uint32_t value = found ? Image(out).refTime : 0;
      uint64_t lastStart = 0;
      for (const Event& e : history[key]) lastStart = std::max(lastStart, e.start);
      bool explained = history[key].empty() && !found;
      for (const Event& e : history[key])
        if (e.end > lastStart && e.present == found && (!found || e.value == value))
          explained = true;
      EXPECT_TRUE(explained) << keys[key].path << (found ? " holds " : " is absent")
                             << (found ? std::to_string(value) : "")
                             << ", which none of its last successful writes left";
      present += found;
    }
    EXPECT_EQ(1 + kFolders + present, db->numberOfRecords());
    for (const CLogEntry& entry : capture->Entries())
      EXPECT_GE(entry.level, 0) << entry.function << ": " << entry.message;
    if (round == 1) break;
    ASSERT_TRUE(db->close().IsSuccess());
    db = boost::make_shared<WzScanDB>(Record("", false));
    ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
  }
}

INSTANTIATE_TEST_SUITE_P(Disciplines, ConcurrencyStress,
                         ::testing::Values(Discipline::kCallerSerialisesWrites,
                                           Discipline::kNoCallerLock),
                         [](const ::testing::TestParamInfo<Discipline>& info) {
                           return info.param == Discipline::kCallerSerialisesWrites
                                      ? std::string("CallerSerialisesAddAndDelete")
                                      : std::string("NoCallerLock");
                         });

}  // namespace
