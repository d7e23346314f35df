// Crash test of the table engine: a forked writer applies random writes and
// acknowledges each one over a pipe; the parent kills it with SIGKILL at a
// random moment, opens the table or a copy of its files (then the next
// writer replays the log), and checks that it is consistent and holds exactly the
// last acknowledged state of every key (the one operation in flight at the
// kill may or may not have happened).
//
// Each round draws the log's settings (a sync interval of 0, a few ms or a
// second; a 1 MiB log limit, so checkpoints come every few thousand writes),
// and the writer closes and reopens now and then, so kills land during log
// appends, replays (a writer killed during the open that replays its
// predecessor's log), checkpoints and closes; the test counts where they
// landed.
//
// Environment: WZ_CRASH_ROUNDS, WZ_CRASH_SEED, WZ_CRASH_KEYS,
// WZ_CRASH_MAX_DELAY_US change the run (scripts/table-crash-soak.sh).
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <random>

#include <gtest/gtest.h>

#include "CrashWriter.h"
#include "support/TempDir.h"

namespace crashtest {
namespace {

uint64_t envOr(const char* name, uint64_t fallback) {
  const char* v = std::getenv(name);
  return v && *v ? std::strtoull(v, nullptr, 0) : fallback;
}

std::string guidKey(const uint8_t* guid) { return std::string(reinterpret_cast<const char*>(guid), 16); }

class CrashRig {
 public:
  CrashRig(const std::string& name, uint32_t keys, uint64_t seed) : name_(name), rng_(seed) {
    model_.state.assign(keys, kAbsent);
    model_.nextVersion.assign(keys, 0);
    for (uint32_t k = 0; k < keys; ++k) keyOfGuid_[guidKey(makeRecord(k, 0).guid)] = k;
    GenericSchemaTable table;
    EXPECT_EQ(table.createTable(name_), TBL_OK);
  }

  // One round: fork the writer, kill it after `delayUs`, collect its reports,
  // then check the table.
  void runRound(uint64_t delayUs) {
    const bool logLeft = ::access((name_ + ".log").c_str(), F_OK) == 0;
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const uint64_t writerSeed = rng_();
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(fds[0]);
      runWriter(name_, model_, writerSeed, fds[1]);
    }
    ::close(fds[1]);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(delayUs);
    bool killed = false;
    std::string carry;
    inFlight_ = false;
    failure_.reset();
    for (;;) {
      int timeoutMs = 1000;
      if (!killed) {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) killed = ::kill(pid, SIGKILL) == 0;
        else timeoutMs = int((left + 999) / 1000);
      }
      pollfd p{fds[0], POLLIN, 0};
      if (::poll(&p, 1, timeoutMs) <= 0) continue;
      char buf[4096];
      const ssize_t n = ::read(fds[0], buf, sizeof buf);
      if (n <= 0) break;  // the writer is gone and every report is in
      carry.append(buf, size_t(n));
      size_t used = 0;
      for (; used + sizeof(Message) <= carry.size(); used += sizeof(Message)) {
        Message m;
        std::memcpy(&m, carry.data() + used, sizeof m);
        apply(m);
      }
      carry.erase(0, used);
    }
    ::close(fds[0]);
    if (!killed) ::kill(pid, SIGKILL);
    int wstatus = 0;
    ASSERT_EQ(::waitpid(pid, &wstatus, 0), pid);
    ASSERT_TRUE(carry.empty()) << "partial message from the writer";
    if (failure_)
      FAIL() << "writer failed: op " << int(failure_->op) << " key " << failure_->keyId << " status "
             << failure_->status << " ("
             << (failure_->status == 0xFFFF ? "wrong record read" : TCtreeTable::errToString(failure_->status)) << ")";
    ASSERT_TRUE(WIFSIGNALED(wstatus) && WTERMSIG(wstatus) == SIGKILL) << "writer ended on its own: " << wstatus;
    if (pending_) ++killedDuring_[pendingOp_ == kOpOpen && logLeft ? kReplaying : pendingOp_];
    verify();
  }

  // Where the kills landed: the operation begun and not acknowledged.
  std::string killSites() const {
    static const char* const names[] = {"open",    "add",     "modify",  "modify by parent",
                                        "delete",  "refused add", "suspend (checkpoint)",
                                        "rebuild", "close and reopen", "open replaying a log"};
    std::string out;
    for (const auto& [op, count] : killedDuring_)
      out += std::string(out.empty() ? "" : ", ") + names[op] + " " + std::to_string(count);
    return out;
  }

  uint64_t acknowledged() const { return acks_; }
  size_t present() const { return model_.state.size() - std::count(model_.state.begin(), model_.state.end(), kAbsent); }

 private:
  void apply(const Message& m) {
    pending_ = m.phase == kBegin;
    pendingOp_ = m.op;
    if (m.phase == kFailed) {
      failure_ = m;
    } else if (m.phase == kBegin) {
      inFlight_ = isRecordOp(m.op);
      begin_ = m;
      before_ = inFlight_ ? model_.state[m.keyId] : kAbsent;
    } else {
      ++acks_;
      inFlight_ = false;
      if (!isRecordOp(m.op) || m.op == kOpDuplicateAdd) return;
      model_.state[m.keyId] = m.op == kOpDelete ? kAbsent : int64_t(m.version);
      if (m.op != kOpDelete) model_.nextVersion[m.keyId] = m.version + 1;
    }
  }

  // The stored record of `key`, or TBL_NOT_FOUND.
  int read(GenericSchemaTable& table, uint32_t key, SGenericRecord* found) {
    GenericKey k;
    EXPECT_EQ(table.buildKey(0, makeRecord(key, 0), &k), TBL_OK);
    return table.getRecord(0, k.bytes, found);
  }

  // Checks the files themselves (their log replayed and removed), or, every
  // other round at random, a copy of them, so that the log the writer left
  // stays for the next writer to replay (and perhaps be killed replaying).
  void verify() {
    const std::string copy = rng_() % 2 ? name_ : name_ + "-check";
    for (const char* ext : {".dat", ".idx", ".log"}) {
      if (copy == name_) break;
      std::error_code ignored;
      std::filesystem::remove(copy + ext, ignored);
      if (std::filesystem::exists(name_ + ext)) std::filesystem::copy_file(name_ + ext, copy + ext);
    }
    GenericSchemaTable table;
    ASSERT_EQ(table.openTable(copy), TBL_OK);
    std::string report;
    ASSERT_EQ(table.checkConsistency(&report), TBL_OK) << report;
    SGenericRecord found;

    // The key of an unacknowledged record operation may hold the state from
    // before or after it; settle the model on what the table holds. (A
    // refused duplicate add reports the unchanged version as its after.)
    if (inFlight_) {
      const uint32_t key = begin_.keyId;
      const int64_t after = begin_.op == kOpDelete ? kAbsent : int64_t(begin_.version);
      int64_t actual = kAbsent;
      const int status = read(table, key, &found);
      if (status == TBL_OK) {
        for (int64_t candidate : {before_, after}) {
          const SGenericRecord want = makeRecord(key, uint32_t(candidate));
          if (candidate != kAbsent && std::memcmp(&found, &want, sizeof found) == 0) actual = candidate;
        }
        ASSERT_NE(actual, kAbsent) << "in-flight key " << key << " holds neither state";
      } else {
        ASSERT_EQ(status, TBL_NOT_FOUND);
        ASSERT_TRUE(before_ == kAbsent || after == kAbsent) << "in-flight key " << key << " lost";
      }
      model_.state[key] = actual;
      if (begin_.op != kOpDelete && begin_.op != kOpDuplicateAdd) model_.nextVersion[key] = begin_.version + 1;
    }

    // Index 0: every key reads back exactly, or is absent.
    for (uint32_t key = 0; key < model_.state.size(); ++key) {
      const int64_t v = model_.state[key];
      const int status = read(table, key, &found);
      if (v == kAbsent) {
        ASSERT_EQ(status, TBL_NOT_FOUND) << "key " << key << " should be absent";
        continue;
      }
      ASSERT_EQ(status, TBL_OK) << "acknowledged key " << key << " v" << v << " lost";
      const SGenericRecord want = makeRecord(key, uint32_t(v));
      ASSERT_EQ(std::memcmp(&found, &want, sizeof want), 0) << "key " << key << " does not hold version " << v;
    }

    // Physical order and both index orders: each record once, as the model has it.
    for (int index : {-1, 0, 1}) {
      size_t count = 0;
      int status = table.firstRecord(index, &found);
      for (; status == TBL_OK; status = table.nextRecord(index, &found), ++count) {
        auto it = keyOfGuid_.find(guidKey(found.guid));
        ASSERT_NE(it, keyOfGuid_.end()) << "unknown record on index " << index;
        const int64_t v = model_.state[it->second];
        ASSERT_NE(v, kAbsent) << "deleted key " << it->second << " on index " << index;
        const SGenericRecord want = makeRecord(it->second, uint32_t(v));
        ASSERT_EQ(std::memcmp(&found, &want, sizeof found), 0) << "index " << index;
      }
      ASSERT_EQ(status, TBL_NOT_FOUND) << "walk of index " << index;
      ASSERT_EQ(count, present()) << "records on index " << index;
    }
    ASSERT_EQ(table.close(), TBL_OK);
  }

  std::string name_;
  std::mt19937_64 rng_;
  WriterModel model_;
  std::map<std::string, uint32_t> keyOfGuid_;
  uint64_t acks_ = 0;
  bool inFlight_ = false;  // a record operation had begun, unacknowledged
  Message begin_{};
  int64_t before_ = kAbsent;
  std::optional<Message> failure_;
  bool pending_ = false;  // the last message was a Begin
  uint8_t pendingOp_ = 0;
  static constexpr uint8_t kReplaying = kOpReopen + 1;
  std::map<uint8_t, size_t> killedDuring_;
};

// Draws the log's settings for the next round into the settings file.
void drawSettings(const std::string& file, std::mt19937_64& rng) {
  static const int intervals[] = {0, 2, 20, 1000};
  FILE* out = std::fopen(file.c_str(), "w");
  ASSERT_NE(out, nullptr);
  std::fprintf(out, "[~FileSystemAgent]\nnWzScanDBSyncIntervalMs = %d\nnWzScanDBLogLimitMiB = 1\n",
               intervals[rng() % 4]);
  std::fclose(out);
}

TEST(TableCrash, KilledWriterLosesNoAcknowledgedOperation) {
  const uint64_t seed = envOr("WZ_CRASH_SEED", 20261122), maxDelayUs = envOr("WZ_CRASH_MAX_DELAY_US", 60000);
  const int rounds = int(envOr("WZ_CRASH_ROUNDS", 40));
  TempDir dir;
  const std::string settings = dir / "settings.ini";
  ::setenv("WZ_SETTINGS_FILE", settings.c_str(), 1);
  CrashRig rig(dir / "WzScanDB", uint32_t(envOr("WZ_CRASH_KEYS", 3000)), seed);
  std::mt19937_64 rng(seed ^ 0x5eed);
  for (int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
    drawSettings(settings, rng);
    // Mostly spread over the whole window, sometimes very early (during the
    // open and its possible index rebuild).
    const uint64_t delay = rng() % 8 == 0 ? rng() % 2000 : 500 + rng() % maxDelayUs;
    SCOPED_TRACE("round " + std::to_string(round) + " seed " + std::to_string(seed) + " delay " +
                 std::to_string(delay) + "us");
    rig.runRound(delay);
  }
  std::printf("crash rounds: %d, acknowledged operations: %llu, records at the end: %zu\n"
              "kills during: %s\n",
              rounds, static_cast<unsigned long long>(rig.acknowledged()), rig.present(),
              rig.killSites().c_str());
  ::unsetenv("WZ_SETTINGS_FILE");
  EXPECT_GT(rig.acknowledged(), uint64_t(rounds)) << "the writer barely ran";
}

}  // namespace
}  // namespace crashtest
