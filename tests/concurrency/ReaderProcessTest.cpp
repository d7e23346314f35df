// Reader processes read a table while a writer process writes it.
//
// The writer plays a fixed history of adds, modifies and deletes on numbered
// slots (one write = one log sequence number, so the writer's state after
// write n is "the history up to n"), in three sessions with a close and a
// reopen between them. Its log limit is 1 MiB and its growth step 1 MiB, so
// it takes many checkpoints and grows its files many times. Every record
// image is a function of (slot, the write that made it).
//
// Two readers read meanwhile: one keeps one read-only open from start to end,
// the other reopens every few dozen reads. Each read must return whole images
// of a state the writer reached (index reads included), and the states a
// reader sees must never go back in time: a reader keeps a lower bound on the
// writer's position that every read must be consistent with and raises it.
// When the writer has closed for good, each reader finds exactly its final
// state along every index and in physical order, and the consistency check
// passes. No process may crash or hang.
//
// A reader stopped inside a read delays the writer by a bounded wait only.

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ForkedChild.h"
#include "runtime/LogWriter.h"
#include "support/GenericSchemaTable.h"
#include "support/TempDir.h"

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr uint32_t kWrites = 24000;
#else
constexpr uint32_t kWrites = 45000;
#endif
constexpr int kSessions = 3;
constexpr uint32_t kNever = std::numeric_limits<uint32_t>::max();

class SmallStepTable : public GenericSchemaTable {
 public:
  int hugeFileIncr() override { return 1; }
};

enum Op : uint8_t { kAdd, kModify, kDelete };

// The writer's history: write n (from 1) changes slot slotOf[n] by opOf[n].
struct History {
  std::vector<uint32_t> slotOf;
  std::vector<Op> opOf;
  // Per slot: the writes that changed it, in order, and whether it was
  // present after each.
  std::vector<std::vector<std::pair<uint32_t, bool>>> changes;

  explicit History(uint32_t writes) : slotOf(writes + 1), opOf(writes + 1) {
    std::mt19937 rng(20261123);
    std::vector<bool> present;
    for (uint32_t n = 1; n <= writes; ++n) {
      uint32_t slot = static_cast<uint32_t>(present.size());
      if (rng() % 100 >= 30 && !present.empty()) slot = rng() % present.size();
      if (slot == present.size()) {
        present.push_back(false);
        changes.emplace_back();
      }
      const Op op = !present[slot] ? kAdd : rng() % 5 == 0 ? kDelete : kModify;
      present[slot] = op != kDelete;
      slotOf[n] = slot;
      opOf[n] = op;
      changes[slot].push_back({n, present[slot]});
    }
  }
  uint32_t writes() const { return static_cast<uint32_t>(slotOf.size() - 1); }
};

SGenericRecord ImageOf(uint32_t slot, uint32_t write) {
  SGenericRecord r{};
  std::memcpy(r.guid, &slot, sizeof slot);
  r.guid[15] = 0x5A;
  std::memset(r.parent_guid, 0x11, sizeof r.parent_guid);
  for (size_t i = 0; i < sizeof r.stat_data; ++i)
    r.stat_data[i] = static_cast<uint8_t>((slot * 31 + write) >> (i % 3 * 8)) ^ uint8_t(i);
  r.refTime = write;
  // Names long enough for the log to pass its limit every few thousand writes.
  std::snprintf(r.sname, sizeof r.sname, "slot-%07u-w%08u-%0120u", slot, write, slot);
  return r;
}

// What a reader learnt of the writer's position: a lower bound every later
// read must be consistent with.
class Position {
 public:
  explicit Position(const History& history) : history_(history) {}

  // A read found `record`: whole, of a state at or after the bound.
  bool Saw(const SGenericRecord& record, std::string* why) {
    uint32_t slot;
    std::memcpy(&slot, record.guid, sizeof slot);
    const uint32_t write = record.refTime;
    const SGenericRecord expected = ImageOf(slot, write);
    if (slot >= history_.changes.size() || write == 0 || write > history_.writes() ||
        std::memcmp(&record, &expected, sizeof record) != 0) {
      *why = "torn or unknown image of slot " + std::to_string(slot);
      return false;
    }
    const auto& c = history_.changes[slot];
    for (size_t i = 0; i < c.size(); ++i)
      if (c[i].first == write && c[i].second) {
        const uint32_t until = i + 1 < c.size() ? c[i + 1].first : kNever;
        return Raise(write, until, slot, why);
      }
    *why = "slot " + std::to_string(slot) + " never held write " + std::to_string(write);
    return false;
  }
  // A read found `slot` absent: before its first add, or after a delete.
  bool Missed(uint32_t slot, std::string* why) {
    const auto& c = history_.changes[slot];
    std::vector<std::pair<uint32_t, uint32_t>> absent{{0, c.empty() ? kNever : c[0].first}};
    for (size_t i = 0; i < c.size(); ++i)
      if (!c[i].second) absent.push_back({c[i].first, i + 1 < c.size() ? c[i + 1].first : kNever});
    for (const auto& [from, until] : absent)
      if (until > bound_) return Raise(from, until, slot, why);
    *why = "slot " + std::to_string(slot) + " absent, but it was present since before write " +
           std::to_string(bound_);
    return false;
  }
  uint32_t bound() const { return bound_; }
  size_t raises() const { return raises_; }

 private:
  bool Raise(uint32_t from, uint32_t until, uint32_t slot, std::string* why) {
    if (until <= bound_) {
      *why = "slot " + std::to_string(slot) + " went back in time: a state before write " +
             std::to_string(until) + " read after write " + std::to_string(bound_) + " was seen";
      return false;
    }
    if (from > bound_) {
      bound_ = from;
      ++raises_;
    }
    return true;
  }

  const History& history_;
  uint32_t bound_ = 0;
  size_t raises_ = 0;
};

GenericKey KeyOf(SmallStepTable& table, int index, const SGenericRecord& record) {
  GenericKey key;
  table.buildKey(index, record, &key);
  return key;
}

// ---- the writer ------------------------------------------------------------

int RunWriter(const std::string& name, const History& history, ForkedChild::Channel& channel) {
  const uint32_t perSession = history.writes() / kSessions + 1;
  double slowest = 0;
  int growths = 0, checkpoints = 0;
  uint64_t lastSize = 0, lastLog = 0;
  uint32_t n = 1;
  for (int session = 0; session < kSessions; ++session) {
    SmallStepTable table;
    int status = session == 0 ? table.createTable(name) : table.openTable(name);
    if (status != TBL_OK) {
      channel.report = "session " + std::to_string(session) + ": open answered " + std::to_string(status);
      return 1;
    }
    if (session == 0) channel.Tell('c');
    for (const uint32_t end = std::min(history.writes(), n + perSession); n <= end; ++n) {
      const auto started = std::chrono::steady_clock::now();
      SGenericRecord image = ImageOf(history.slotOf[n], n), stored;
      status = TBL_OK;
      if (history.opOf[n] == kAdd) {
        status = table.addRecord(&image);
      } else {
        GenericKey key = KeyOf(table, 0, image);
        status = table.getRecord(0, key.bytes, &stored);
        if (status == TBL_OK)
          status = history.opOf[n] == kModify ? table.modifyRecord(&image) : table.deleteRecord();
      }
      if (status != TBL_OK) {
        channel.report = "write " + std::to_string(n) + " answered " + std::to_string(status);
        return 1;
      }
      slowest = std::max(slowest, std::chrono::duration<double>(
                                      std::chrono::steady_clock::now() - started).count());
      // A growth claims disk blocks for the data file; a checkpoint starts
      // the log afresh.
      struct stat st;
      if (::stat((name + ".dat").c_str(), &st) == 0 && uint64_t(st.st_size) > lastSize) {
        growths += lastSize != 0;
        lastSize = uint64_t(st.st_size);
      }
      if (::stat((name + ".log").c_str(), &st) == 0) {
        checkpoints += uint64_t(st.st_size) < lastLog;
        lastLog = uint64_t(st.st_size);
      }
    }
    if ((status = table.close()) != TBL_OK) {
      channel.report = "close answered " + std::to_string(status);
      return 1;
    }
    lastSize = lastLog = 0;
    ++checkpoints;
  }
  char text[160];
  std::snprintf(text, sizeof text,
                "%u writes in %d sessions, %d checkpoints, %d data file growths, slowest write %.3f s",
                history.writes(), kSessions, checkpoints, growths, slowest);
  channel.report = text;
  return 0;
}

// ---- a reader --------------------------------------------------------------

class Reader {
 public:
  Reader(const std::string& name, const History& history, int reopenEvery)
      : name_(name), history_(history), position_(history), reopenEvery_(reopenEvery) {}

  int Run(ForkedChild::Channel& channel) {
    if (!Open(channel.report)) return 1;
    std::mt19937 rng(reopenEvery_);
    std::string why;
    // Reads until the parent says the writer is gone, then one final check.
    struct pollfd done = {channel.down, POLLIN, 0};
    while (poll(&done, 1, 0) == 0) {
      if (!ReadSome(rng, &why)) {
        channel.report = why;
        return 1;
      }
      if (reopenEvery_ && ++rounds_ % reopenEvery_ == 0) {
        table_.close();
        if (!Open(channel.report)) return 1;
        ++reopens_;
      }
    }
    if (!FinalCheck(&why)) {
      channel.report = "after the writer closed: " + why;
      return 1;
    }
    char text[160];
    std::snprintf(text, sizeof text, "%zu reads, %zu raises of the writer's known position, %d reopens",
                  reads_, position_.raises(), reopens_);
    channel.report = text;
    return 0;
  }

 private:
  bool Open(std::string& report) {
    const int status = table_.openTable(name_, WZIndexing::kAccessReadOnly);
    if (status != TBL_OK) report = "read-only open answered " + std::to_string(status);
    return status == TBL_OK;
  }

  bool Found(int status, const SGenericRecord& record, std::string* why) {
    ++reads_;
    if (status == TBL_OK) return position_.Saw(record, why);
    *why = "a read answered " + std::to_string(status);
    return false;
  }

  bool ReadSome(std::mt19937& rng, std::string* why) {
    const uint32_t slots = static_cast<uint32_t>(history_.changes.size());
    // A slot by its own key.
    const uint32_t slot = rng() % slots;
    SGenericRecord probe = ImageOf(slot, 0), record;
    GenericKey key0 = KeyOf(table_, 0, probe);
    int status = table_.getRecord(0, key0.bytes, &record);
    if (status == TBL_NOT_FOUND ? !position_.Missed(slot, why) : !Found(status, record, why))
      return false;
    // The same slot along the parent-and-name index: its one record, if any.
    std::snprintf(probe.sname, sizeof probe.sname, "slot-%07u-", slot);
    GenericKey key1 = KeyOf(table_, 1, probe);
    status = table_.getGTERecord(1, key1.bytes, &record);
    if (status != TBL_NOT_FOUND && !Found(status, record, why)) return false;
    const bool ours = status == TBL_OK && std::strncmp(record.sname, probe.sname, 13) == 0;
    if (!ours && !position_.Missed(slot, why)) return false;
    // A short walk from there on either index or in physical order: each
    // step whole, and further in the walk's order, (key, record number).
    const int index = static_cast<int>(rng() % 3) - 1;
    status = index == 1 ? table_.getGTERecord(1, key1.bytes, &record)
                        : table_.getGTERecord(0, key0.bytes, &record);
    std::string previous;
    for (int step = 0; step < 24 && status == TBL_OK; ++step) {
      if (!Found(status, record, why)) return false;
      char number[24];
      std::snprintf(number, sizeof number, "%020lld",
                    static_cast<long long>(table_.currentRecordNumber()));
      const std::string order =
          (index == 1 ? std::string(record.sname)
                      : index == 0 ? std::string(reinterpret_cast<char*>(record.guid), 16) : "") +
          number;
      if (step > 0 && order <= previous) {
        *why = "a walk on index " + std::to_string(index) + " went backwards to " + record.sname;
        return false;
      }
      previous = order;
      status = table_.nextRecord(index, &record);
    }
    return status == TBL_OK || status == TBL_NOT_FOUND || Found(status, record, why);
  }

  // The final state, exactly, in every order.
  bool FinalCheck(std::string* why) {
    std::set<std::string> expected;
    for (uint32_t slot = 0; slot < history_.changes.size(); ++slot) {
      const auto& last = history_.changes[slot].back();
      if (last.second) {
        const SGenericRecord image = ImageOf(slot, last.first);
        expected.insert(std::string(reinterpret_cast<const char*>(&image), sizeof image));
      }
    }
    for (int index = -1; index < 2; ++index) {
      std::set<std::string> found;
      SGenericRecord record;
      int status = table_.firstRecord(index, &record);
      for (; status == TBL_OK; status = table_.nextRecord(index, &record))
        found.insert(std::string(reinterpret_cast<const char*>(&record), sizeof record));
      if (status != TBL_NOT_FOUND || found != expected) {
        *why = "index " + std::to_string(index) + ": " + std::to_string(found.size()) +
               " records where " + std::to_string(expected.size()) + " were expected";
        return false;
      }
    }
    std::string report;
    if (table_.checkConsistency(&report) != TBL_OK) {
      *why = "inconsistent: " + report;
      return false;
    }
    return true;
  }

  std::string name_;
  const History& history_;
  Position position_;
  int reopenEvery_;
  SmallStepTable table_;
  size_t reads_ = 0, rounds_ = 0;
  int reopens_ = 0;
};

TEST(ReaderProcess, ReadersSeeOnlyWholeCommittedStatesAcrossCheckpointsGrowthsAndCloses) {
  g_ptrLogWriter->SetNone();
  TempDir dir;
  std::ofstream(dir / "settings.ini") << "[~FileSystemAgent]\nnWzScanDBLogLimitMiB = 1\n";
  setenv("WZ_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
  const std::string name = dir / "WzScanDB";
  const History history(kWrites);

  ForkedChild writer([&](ForkedChild::Channel& c) { return RunWriter(name, history, c); });
  ASSERT_EQ('c', writer.Heard()) << writer.Wait().Describe();
  ForkedChild steady([&](ForkedChild::Channel& c) { return Reader(name, history, 0).Run(c); });
  ForkedChild reopening([&](ForkedChild::Channel& c) { return Reader(name, history, 40).Run(c); });
  const ForkedChild::Result written = writer.Wait();
  steady.Hangup();
  reopening.Hangup();
  const ForkedChild::Result steadyRead = steady.Wait(), reopenRead = reopening.Wait();
  unsetenv("WZ_SETTINGS_FILE");

  EXPECT_TRUE(written.exited && written.status == 0) << "writer: " << written.Describe();
  EXPECT_TRUE(steadyRead.exited && steadyRead.status == 0) << "reader: " << steadyRead.Describe();
  EXPECT_TRUE(reopenRead.exited && reopenRead.status == 0)
      << "reopening reader: " << reopenRead.Describe();
  std::printf("[ figures  ] writer: %s\n[ figures  ] reader: %s\n[ figures  ] reopening reader: %s\n",
              written.report.c_str(), steadyRead.report.c_str(), reopenRead.report.c_str());
}

// A reader stopped (SIGSTOP, a shell's Ctrl-Z) inside a read keeps its
// snapshot pinned. A writer about to reuse that snapshot's pages waits for
// it for nWzScanDBReaderWaitMs, then refuses that write with TBL_IN_USE
// instead of hanging; the refused write leaves nothing, the writer's other
// writes go in, and once the reader goes on, writes are accepted again.
TEST(ReaderProcess, AReaderStoppedInsideAReadDelaysTheWriterOnlyForItsPatience) {
  g_ptrLogWriter->SetNone();
  TempDir dir;
  std::ofstream(dir / "settings.ini") << "[~FileSystemAgent]\nnWzScanDBReaderWaitMs = 300\n";
  setenv("WZ_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
  const std::string name = dir / "WzScanDB";
  {
    SmallStepTable table;
    ASSERT_EQ(TBL_OK, table.createTable(name));
    for (uint32_t slot = 0; slot < 2000; ++slot) {
      SGenericRecord image = ImageOf(slot, 1);
      ASSERT_EQ(TBL_OK, table.addRecord(&image));
    }
    ASSERT_EQ(TBL_OK, table.close());
  }
  ForkedChild reader([&](ForkedChild::Channel& channel) {
    SmallStepTable table;
    if (table.openTable(name, WZIndexing::kAccessReadOnly) != TBL_OK) return 1;
    channel.Tell('r');
    for (SGenericRecord record;;)
      for (int status = table.firstRecord(1, &record); status == TBL_OK;
           status = table.nextRecord(1, &record)) {
      }
  });
  ASSERT_EQ('r', reader.Heard());
  // Per round, three sessions of one write each (each write after a
  // commit): the child exits with a bit set per write refused.
  std::set<uint32_t> accepted, refused;
  for (uint32_t round = 0; round < 6; ++round) {
    reader.Kill(SIGSTOP);
    ForkedChild writer(
        [&](ForkedChild::Channel&) {
          int refusals = 0;
          for (uint32_t session = 0; session < 3; ++session) {
            SmallStepTable table;
            SGenericRecord image = ImageOf(10000 + round * 3 + session, 1);
            if (table.openTable(name) != TBL_OK) return 64;
            const int status = table.addRecord(&image);
            if (status == TBL_IN_USE) refusals |= 1 << session;
            else if (status != TBL_OK) return 65;
            if (table.close() != TBL_OK) return 66;
          }
          return refusals;
        },
        10);
    const ForkedChild::Result result = writer.Wait();
    reader.Kill(SIGCONT);
    ASSERT_TRUE(result.exited && result.status < 8) << "round " << round << ": " << result.Describe();
    for (uint32_t session = 0; session < 3; ++session)
      ((result.status >> session) & 1 ? refused : accepted).insert(10000 + round * 3 + session);
  }
  // The reader is nearly always inside a read: most writes after a commit
  // find their pages pinned.
  EXPECT_FALSE(refused.empty());
  reader.Kill(SIGKILL);
  reader.Wait();

  SmallStepTable table;
  ASSERT_EQ(TBL_OK, table.openTable(name));
  SGenericRecord image = ImageOf(20000, 1);
  EXPECT_EQ(TBL_OK, table.addRecord(&image));
  std::set<uint32_t> stored;
  SGenericRecord record;
  for (int status = table.firstRecord(1, &record); status == TBL_OK; status = table.nextRecord(1, &record))
  {
    uint32_t slot;
    std::memcpy(&slot, record.guid, sizeof slot);
    if (slot >= 10000 && slot < 20000) stored.insert(slot);
  }
  EXPECT_EQ(accepted, stored);
  EXPECT_EQ(TBL_OK, table.close());
  unsetenv("WZ_SETTINGS_FILE");
}

}  // namespace
