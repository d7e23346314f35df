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

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
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

constexpr uint32_t kWrites = 30000;

struct SmallStepTable : GenericSchemaTable { int hugeFileIncr() override { return 1; } };

enum Op : uint8_t { kAdd, kModify, kDelete };

// The writer's history: write n (from 1) changes slot slotOf[n] by opOf[n].
// Per slot: the writes that changed it, in order, and whether it was present
// after each.
struct History {
  std::vector<uint32_t> slotOf{0};
  std::vector<Op> opOf{kAdd};
  std::vector<std::vector<std::pair<uint32_t, bool>>> changes;

  History() {
    std::mt19937 rng(20261123);
    for (uint32_t n = 1; n <= kWrites; ++n) {
      const uint32_t slot = rng() % 100 >= 30 && !changes.empty() ? rng() % changes.size() : uint32_t(changes.size());
      if (slot == changes.size()) changes.emplace_back();
      const Op op = changes[slot].empty() || !changes[slot].back().second ? kAdd : rng() % 5 == 0 ? kDelete : kModify;
      slotOf.push_back(slot), opOf.push_back(op);
      changes[slot].push_back({n, op != kDelete});
    }
  }
};

SGenericRecord ImageOf(uint32_t slot, uint32_t write) {
  SGenericRecord r{};
  std::memcpy(r.guid, &slot, sizeof slot);
  std::memset(r.parent_guid, 0x11, sizeof r.parent_guid);
  for (size_t i = 0; i < sizeof r.stat_data; ++i)
    r.stat_data[i] = static_cast<uint8_t>((slot * 31 + write) >> (i % 3 * 8)) ^ uint8_t(i);
  r.refTime = write;
  // Names long enough for the log to pass its limit every few thousand writes.
  std::snprintf(r.sname, sizeof r.sname, "slot-%07u-w%08u-%0120u", slot, write, slot);
  return r;
}

GenericKey KeyOf(SmallStepTable& table, int index, const SGenericRecord& record) {
  GenericKey key;
  table.buildKey(index, record, &key);
  return key;
}

int RunWriter(const std::string& name, const History& history, ForkedChild::Channel& channel) {
  for (uint32_t session = 0, n = 1; session < 3; ++session) {
    SmallStepTable table;
    int status = session == 0 ? table.createTable(name) : table.openTable(name);
    if (session == 0 && status == TBL_OK) channel.Tell('c');
    for (const uint32_t end = std::min(kWrites, n + kWrites / 3 + 1); status == TBL_OK && n <= end; ++n) {
      SGenericRecord image = ImageOf(history.slotOf[n], n), stored;
      GenericKey key = KeyOf(table, 0, image);
      if (history.opOf[n] == kAdd) status = table.addRecord(&image);
      else if ((status = table.getRecord(0, key.bytes, &stored)) == TBL_OK)
        status = history.opOf[n] == kModify ? table.modifyRecord(&image) : table.deleteRecord();
    }
    if (status != TBL_OK || (status = table.close()) != TBL_OK) {
      channel.report = "write " + std::to_string(n) + " or close: " + TCtreeTable::errToString(status);
      return 1;
    }
  }
  return 0;
}

// Reads until the parent hangs up (the writer is gone), reopening every
// `reopenEvery` rounds (0: never), then checks the final state. The report
// says what went wrong.
int RunReader(const std::string& name, const History& history, ForkedChild::Channel& channel, int reopenEvery) {
  SmallStepTable table;
  std::mt19937 rng(reopenEvery);
  std::string& why = channel.report;
  uint32_t bound = 0;  // the writer's position, as far as this reader knows
  // `slot` was read holding the image of `write`, or absent: a state of a
  // time at or after the bound, which rises to that state's start. (i = 0:
  // before the slot's first add.)
  auto seen = [&](uint32_t slot, bool present, uint32_t write) {
    const auto& c = history.changes[slot];
    for (size_t i = 0; i <= c.size(); ++i) {
      const uint32_t from = i ? c[i - 1].first : 0, until = i < c.size() ? c[i].first : ~0u;
      if ((i && c[i - 1].second) == present && (!present || from == write) && until > bound)
        return bound = std::max(bound, from), true;
    }
    why = "slot " + std::to_string(slot) + " in a state that never was or ended before " + std::to_string(bound);
    return false;
  };
  // A read that found a record: whole, of a state the writer reached.
  auto found = [&](int status, const SGenericRecord& record) {
    uint32_t slot;
    std::memcpy(&slot, record.guid, sizeof slot);
    const SGenericRecord expected = ImageOf(slot, record.refTime);
    if (status == TBL_OK && slot < history.changes.size() && std::memcmp(&record, &expected, sizeof record) == 0)
      return seen(slot, true, record.refTime);
    why = status == TBL_OK ? "a torn or unknown image" : "a read answered " + std::to_string(status);
    return false;
  };
  auto readSome = [&] {
    // A slot by its own key.
    const uint32_t slot = rng() % history.changes.size();
    SGenericRecord probe = ImageOf(slot, 0), record;
    GenericKey key0 = KeyOf(table, 0, probe);
    int status = table.getRecord(0, key0.bytes, &record);
    if (status == TBL_NOT_FOUND ? !seen(slot, false, 0) : !found(status, record)) return false;
    // The same slot along the parent-and-name index: its one record, if any.
    std::snprintf(probe.sname, sizeof probe.sname, "slot-%07u-", slot);
    GenericKey key1 = KeyOf(table, 1, probe);
    status = table.getGTERecord(1, key1.bytes, &record);
    if (status != TBL_NOT_FOUND && !found(status, record)) return false;
    if ((status != TBL_OK || std::strncmp(record.sname, probe.sname, 13) != 0) && !seen(slot, false, 0)) return false;
    // A short walk from there on either index or in physical order: each
    // step whole, and further in the walk's order, (key, record number).
    const int index = static_cast<int>(rng() % 3) - 1;
    status = table.getGTERecord(index == 1, index == 1 ? key1.bytes : key0.bytes, &record);
    std::string previous;
    for (int step = 0; step < 24 && status == TBL_OK; ++step, status = table.nextRecord(index, &record)) {
      char number[24];
      std::snprintf(number, sizeof number, "%020lld", static_cast<long long>(table.currentRecordNumber()));
      const GenericKey key = KeyOf(table, index == 1, record);
      const std::string order = std::string(key.bytes, index < 0 ? 0 : index ? 72 : 16) + number;
      if (step > 0 && order <= previous) why = "a walk on index " + std::to_string(index) + " went backwards";
      if (!found(status, record) || !why.empty()) return false;
      previous = order;
    }
    return status == TBL_OK || status == TBL_NOT_FOUND || found(status, record);
  };
  // The final state, exactly, in every order.
  auto finalState = [&] {
    auto bytes = [](const SGenericRecord& r) { return std::string(reinterpret_cast<const char*>(&r), sizeof r); };
    std::set<std::string> expected;
    for (uint32_t slot = 0; slot < history.changes.size(); ++slot)
      if (const auto last = history.changes[slot].back(); last.second) expected.insert(bytes(ImageOf(slot, last.first)));
    for (int index = -1; index < 2; ++index) {
      std::set<std::string> all;
      SGenericRecord record;
      int status = table.firstRecord(index, &record);
      for (; status == TBL_OK; status = table.nextRecord(index, &record)) all.insert(bytes(record));
      if (status != TBL_NOT_FOUND || all != expected) why = "index " + std::to_string(index) + ": not the final state";
    }
    std::string report;
    if (table.checkConsistency(&report) != TBL_OK) why = "inconsistent: " + report;
    return why.empty();
  };
  struct pollfd done = {channel.down, POLLIN, 0};
  for (int round = 1; why.empty(); ++round) {
    if (!table.isOpen() && table.openTable(name, WZIndexing::kAccessReadOnly) != TBL_OK) why = "open failed";
    else if (poll(&done, 1, 0) != 0) return finalState() ? 0 : 1;
    else if (readSome() && reopenEvery && round % reopenEvery == 0) table.close();
  }
  return 1;
}

void UseSettings(const TempDir& dir, const std::string& settings) {
  g_ptrLogWriter->SetNone();
  std::ofstream(dir / "settings.ini") << "[~FileSystemAgent]\n" << settings << "\n";
  setenv("WZ_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
}

TEST(ReaderProcess, ReadersSeeOnlyWholeCommittedStatesAcrossCheckpointsGrowthsAndCloses) {
  TempDir dir;
  UseSettings(dir, "nWzScanDBLogLimitMiB = 1");
  const std::string name = dir / "WzScanDB";
  const History history;
  ForkedChild writer([&](ForkedChild::Channel& c) { return RunWriter(name, history, c); });
  ASSERT_EQ('c', writer.Heard()) << writer.Wait().Describe();
  ForkedChild steady([&](ForkedChild::Channel& c) { return RunReader(name, history, c, 0); });
  ForkedChild reopening([&](ForkedChild::Channel& c) { return RunReader(name, history, c, 40); });
  const ForkedChild::Result written = writer.Wait();
  steady.Hangup(), reopening.Hangup();
  unsetenv("WZ_SETTINGS_FILE");
  for (const auto& [who, result] : {std::make_pair("writer", written), std::make_pair("reader", steady.Wait()),
                                    std::make_pair("reopening reader", reopening.Wait())})
    EXPECT_TRUE(result.exited && result.status == 0) << who << ": " << result.Describe();
}

// A reader stopped (SIGSTOP, a shell's Ctrl-Z) inside a read keeps its
// snapshot pinned. A writer about to reuse that snapshot's pages waits for
// it for nWzScanDBReaderWaitMs, then refuses that write with TBL_IN_USE
// instead of hanging; the refused write leaves nothing, the writer's other
// writes go in, and once the reader goes on, writes are accepted again.
TEST(ReaderProcess, AReaderStoppedInsideAReadDelaysTheWriterOnlyForItsPatience) {
  TempDir dir;
  UseSettings(dir, "nWzScanDBReaderWaitMs = 300");
  const std::string name = dir / "WzScanDB";
  SmallStepTable table, after;
  SGenericRecord image;
  ASSERT_EQ(TBL_OK, table.createTable(name));
  for (uint32_t slot = 0; slot < 2000; ++slot) ASSERT_EQ(TBL_OK, table.addRecord(&(image = ImageOf(slot, 1))));
  ASSERT_EQ(TBL_OK, table.close());
  ForkedChild reader([&](ForkedChild::Channel& channel) {
    if (table.openTable(name, WZIndexing::kAccessReadOnly) != TBL_OK) return 1;
    channel.Tell('r');
    for (int status;;)
      for (status = table.firstRecord(1, &image); status == TBL_OK; status = table.nextRecord(1, &image)) {
      }
  });
  ASSERT_EQ('r', reader.Heard());
  // Rounds of: the reader stopped; sessions of one write each (each after a
  // commit) until one is refused (the child exits with the number of writes
  // accepted, plus 100 when the next was refused); the reader continued.
  uint32_t next = 10000;
  bool refused = false;
  for (int round = 0; round < 100 && !refused; ++round) {
    reader.Kill(SIGSTOP);
    ForkedChild writer([&](ForkedChild::Channel&) {
      for (uint32_t slot = next; slot < next + 5; ++slot) {
        SmallStepTable table;
        const int status = table.openTable(name) == TBL_OK ? table.addRecord(&(image = ImageOf(slot, 1))) : -1;
        if (table.close() != TBL_OK || (status != TBL_OK && status != TBL_IN_USE)) return 255;
        if (status == TBL_IN_USE) return int(slot - next) + 100;
      }
      return 5;
    }, 10);
    const ForkedChild::Result result = writer.Wait();
    reader.Kill(SIGCONT);
    ASSERT_TRUE(result.exited && result.status != 255) << result.Describe();
    refused = result.status >= 100, next += result.status % 100;
  }
  EXPECT_TRUE(refused) << "no write found its pages pinned by the reader stopped inside a read";
  reader.Kill(SIGKILL);
  reader.Wait();
  // The writes before the refused one are kept, the refused one is not, and
  // writes go in again.
  ASSERT_EQ(TBL_OK, after.openTable(name));
  EXPECT_EQ(TBL_OK, after.addRecord(&(image = ImageOf(20000, 1))));
  EXPECT_EQ(after.numberOfRecords(), 2001 + (next - 10000));
  EXPECT_EQ(after.getRecord(0, KeyOf(after, 0, ImageOf(next, 1)).bytes, &image), TBL_NOT_FOUND);
  EXPECT_EQ(TBL_OK, after.close());
  unsetenv("WZ_SETTINGS_FILE");
}

}  // namespace
