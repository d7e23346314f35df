#include "LogReplayCase.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "support/GenericSchemaTable.h"

namespace logreplay {
namespace {

constexpr size_t kRecordsStart = 4096;  // the log's records begin here
constexpr size_t kRecordHeader = 32;    // each: CRC, payload length, LSN, record number, op
constexpr size_t kHeaderSlots[2][2] = {{0, 64}, {512, 576}};
constexpr int kFirstSessionWrites = 24;
constexpr int kOwnWrites = 40, kLaterWrites = 30, kForkedWrites = 80;

using State = std::vector<std::string>;  // every record image, sorted

class SmallTable : public GenericSchemaTable {
 public:
  int hugeFileIncr() override { return 1; }
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  if (!out) throw std::runtime_error("cannot write " + path);
}

void Check(int status, const char* what) {
  if (status != TBL_OK) throw std::runtime_error(std::string(what) + " answered " + std::to_string(status));
}

State Content(SmallTable& table) {
  State state;
  SGenericRecord record;
  for (int status = table.firstRecord(-1, &record); status == TBL_OK;
       status = table.nextRecord(-1, &record))
    state.emplace_back(reinterpret_cast<const char*>(&record), sizeof record);
  std::sort(state.begin(), state.end());
  return state;
}

// One write of a history: an add of a new record, or a modify (new time and
// sometimes a new name, so index 1 moves) or a delete of a stored one.
void Write(SmallTable& table, std::mt19937& rng, uint32_t& serial) {
  SGenericRecord record{};
  std::vector<SGenericRecord> stored;
  for (int status = table.firstRecord(0, &record); status == TBL_OK;
       status = table.nextRecord(0, &record))
    stored.push_back(record);
  const unsigned roll = rng() % 10;
  if (stored.empty() || roll < 4) {
    record = SGenericRecord{};
    ++serial;
    std::memcpy(record.guid, &serial, sizeof serial);
    std::memset(record.parent_guid, 0x22, sizeof record.parent_guid);
    std::snprintf(record.sname, sizeof record.sname, "entry-%u", serial);
    record.refTime = rng();
    Check(table.addRecord(&record), "addRecord");
    return;
  }
  record = stored[rng() % stored.size()];
  GenericKey key;
  Check(table.buildKey(0, record, &key), "buildKey");
  SGenericRecord current;
  Check(table.getRecord(0, key.bytes, &current), "getRecord");
  if (roll < 8) {
    record.refTime = rng();
    if (roll == 7) std::snprintf(record.sname, sizeof record.sname, "renamed-%u", unsigned(rng()));
    Check(table.modifyRecord(&record), "modifyRecord");
  } else {
    Check(table.deleteRecord(), "deleteRecord");
  }
}

struct Pair {
  std::string dat, idx;
};

struct Fixtures {
  std::string dir;
  Pair start, end;  // table A closed after its first and after its third session
  std::string ownLog, laterLog, otherLog, forkedLog;
  std::vector<State> states;  // table A at the start, then after each write of session 2
  State endState;

  Fixtures() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/wz-log-replay-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    dir = pattern;
    for (const char* sub : {"a", "b", "fork", "case"}) std::filesystem::create_directory(dir + "/" + sub);
    const std::string a = dir + "/a/WzScanDB";
    uint32_t serial = 0;
    {
      SmallTable table;
      Check(table.createTable(a), "create");
      std::mt19937 rng(1);
      for (int i = 0; i < kFirstSessionWrites; ++i) Write(table, rng, serial);
      Check(table.close(), "close");
    }
    start = {ReadFile(a + ".dat"), ReadFile(a + ".idx")};
    WriteFile(dir + "/fork/WzScanDB.dat", start.dat);
    WriteFile(dir + "/fork/WzScanDB.idx", start.idx);
    const uint32_t forkSerial = serial;
    ownLog = Session(a, 2, kOwnWrites, serial, &states);
    laterLog = Session(a, 3, kLaterWrites, serial, nullptr);
    end = {ReadFile(a + ".dat"), ReadFile(a + ".idx")};
    {
      SmallTable table;
      Check(table.openTable(a, WZIndexing::kAccessReadOnly), "open");
      endState = Content(table);
    }
    uint32_t other = forkSerial;
    forkedLog = Session(dir + "/fork/WzScanDB", 4, kForkedWrites, other, nullptr);
    const std::string b = dir + "/b/WzScanDB";
    {
      SmallTable table;
      Check(table.createTable(b), "create");
      Check(table.close(), "close");
    }
    uint32_t bSerial = 0;
    otherLog = Session(b, 5, kOwnWrites, bSerial, nullptr);
  }
  ~Fixtures() {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }

  // Opens the table, makes `writes` writes and returns its log as a process
  // killed then would leave it; then closes. `states` receives the table's
  // content before and after each write.
  static std::string Session(const std::string& name, unsigned seed, int writes, uint32_t& serial,
                             std::vector<State>* states) {
    SmallTable table;
    Check(table.openTable(name), "open");
    std::mt19937 rng(seed);
    if (states) states->push_back(Content(table));
    for (int i = 0; i < writes; ++i) {
      Write(table, rng, serial);
      if (states) states->push_back(Content(table));
    }
    std::string log = ReadFile(name + ".log");
    Check(table.close(), "close");
    return log;
  }
};

const Fixtures& TheFixtures() {
  static const Fixtures fixtures;
  return fixtures;
}

// Reads the input a piece at a time; zeros once it is used up.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint8_t byte() { return size_ ? (--size_, *data_++) : 0; }
  size_t number() { return byte() | (size_t(byte()) << 8); }
  std::string bytes(size_t length) {
    length = std::min(length, size_);
    std::string out(reinterpret_cast<const char*>(data_), length);
    data_ += length;
    size_ -= length;
    return out;
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

enum Pairing { kOwn, kOtherTable, kOlderLog, kLaterLog, kForkedHistory, kPairings };

// The log cut into its header area and records; `order` names the original
// record at each place.
struct SplitLog {
  std::string header;
  std::vector<std::string> records;
  std::vector<size_t> order;

  explicit SplitLog(const std::string& log) : header(log.substr(0, kRecordsStart)) {
    for (size_t at = kRecordsStart; at + kRecordHeader <= log.size();) {
      // The log's reserved tail is zeros: the records end at the first
      // header that is all zeros.
      if (log.find_first_not_of('\0', at) >= at + kRecordHeader) break;
      uint32_t length;
      std::memcpy(&length, log.data() + at + 4, sizeof length);
      records.push_back(log.substr(at, kRecordHeader + length));
      at += kRecordHeader + length;
    }
    for (size_t i = 0; i < records.size(); ++i) order.push_back(i);
  }
  std::string Join() const {
    std::string log = header;
    for (size_t i : order) log += records[i];
    return log;
  }
  // Records still at their own place, from the first.
  size_t InOrder() const {
    size_t k = 0;
    while (k < order.size() && order[k] == k) ++k;
    return k;
  }
};

struct Damage {
  std::vector<std::pair<size_t, size_t>> ranges;  // bytes changed: [from, to)
  bool Touches(size_t from, size_t to) const {
    for (const auto& [f, t] : ranges)
      if (f < to && from < t) return true;
    return false;
  }
  size_t FirstRecordByte() const {
    size_t first = SIZE_MAX;
    for (const auto& [f, t] : ranges)
      if (t > kRecordsStart) first = std::min(first, std::max(f, kRecordsStart));
    return first;
  }
};

void MutateRecords(SplitLog& split, Input& in, unsigned kind) {
  std::vector<size_t>& order = split.order;
  if (order.empty()) return;
  const size_t i = in.number() % order.size(), j = in.number() % order.size();
  switch (kind) {
    case 0: order.erase(order.begin() + long(i)); break;
    case 1: order.insert(order.begin() + long(i) + 1, order[i]); break;
    case 2: std::swap(order[i], order[j]); break;
    default: {
      const size_t moved = order[i];
      order.erase(order.begin() + long(i));
      order.push_back(moved);
    }
  }
}

void MutateBytes(std::string& log, Damage& damage, Input& in, unsigned kind) {
  const size_t at = in.number() % (log.size() + 1), length = in.byte() % 64 + 1;
  switch (kind) {
    case 4:
      if (at < log.size()) damage.ranges.push_back({at, SIZE_MAX});
      log.resize(at);
      break;
    case 5:
    case 6: {
      const size_t to = std::min(log.size(), at + length);
      const std::string fill = kind == 5 ? std::string(to - at, '\0') : in.bytes(to - at);
      log.replace(at, fill.size(), fill);
      damage.ranges.push_back({at, at + fill.size()});
      break;
    }
    case 8:  // zeros from `at` on: a file extended but never written
      if (at < log.size()) damage.ranges.push_back({at, SIZE_MAX});
      std::fill(log.begin() + long(at), log.end(), '\0');
      break;
    case 7:
      if (at < log.size()) {
        log[at] = char(log[at] ^ (in.byte() | 1));
        damage.ranges.push_back({at, at + 1});
      }
      break;
    default:
      damage.ranges.push_back({log.size(), SIZE_MAX});
      log += in.bytes(length);
  }
}

// Table and log as a killed process would leave them, in the case directory.
std::string Place(const Fixtures& f, const Pair& files, const std::string& log) {
  const std::string name = f.dir + "/case/WzScanDB";
  WriteFile(name + ".dat", files.dat);
  WriteFile(name + ".idx", files.idx);
  WriteFile(name + ".log", log);
  return name;
}

std::string Describe(const State& state) { return std::to_string(state.size()) + " records"; }

}  // namespace

Verdict RunCase(const uint8_t* data, size_t size) {
  const Fixtures& f = TheFixtures();
  Input in(data, size);
  const Pairing pairing = static_cast<Pairing>(in.byte() % kPairings);
  const std::string* source[] = {&f.ownLog, &f.otherLog, &f.ownLog, &f.laterLog, &f.forkedLog};
  const Pair& files = pairing == kOlderLog || pairing == kForkedHistory ? f.end : f.start;
  const State& before = &files == &f.end ? f.endState : f.states.front();

  SplitLog split(*source[pairing]);
  const unsigned count = in.byte() % 8;
  std::vector<unsigned> kinds;
  for (unsigned m = 0; m < count; ++m) kinds.push_back(in.byte() % 10);
  for (unsigned kind : kinds)
    if (kind < 4) MutateRecords(split, in, kind);
  std::string log = split.Join();
  Damage damage;
  for (unsigned kind : kinds)
    if (kind >= 4) MutateBytes(log, damage, in, kind);

  // What the records allow: every write wholly before the first damaged
  // byte, and none past the first one out of its place.
  const size_t inOrder = split.InOrder();
  size_t intact = 0;
  for (size_t at = kRecordsStart, first = damage.FirstRecordByte();
       intact < inOrder && at + split.records[intact].size() <= first; ++intact)
    at += split.records[intact].size();
  const bool headerHit = damage.Touches(kHeaderSlots[0][0], kHeaderSlots[0][1]) ||
                         damage.Touches(kHeaderSlots[1][0], kHeaderSlots[1][1]);
  // Empty, or zero up to where the records start: a log that a kill cut
  // short while it was being made holds no write.
  const bool noLog = log.size() <= kRecordsStart &&
                     std::all_of(log.begin(), log.end(), [](char c) { return c == 0; });

  const std::string name = Place(f, files, log);
  Verdict verdict;
  auto fail = [&](const std::string& why) {
    if (verdict.failure.empty()) verdict.failure = why;
  };
  SmallTable table;
  const int status = table.openTable(name);
  if (status != TBL_OK) {
    verdict.outcome = "refused " + std::to_string(status);
    const bool expected =
        !noLog && ((pairing == kOtherTable && status == TBL_FILES_MISMATCH) ||
                   ((pairing == kLaterLog || pairing == kForkedHistory || headerHit) &&
                    status == TBL_BAD_FORMAT));
    if (!expected) fail("the open was refused with " + std::to_string(status));
    if (ReadFile(name + ".log") != log) fail("the refused open changed the log");
    SmallTable reader;
    if (reader.openTable(name, WZIndexing::kAccessReadOnly) != TBL_OK)
      fail("a read-only open after the refusal failed");
    else if (Content(reader) != before)
      fail("after the refusal the files read " + Describe(Content(reader)) + ", not the " +
           Describe(before) + " they held");
    return verdict;
  }

  const State after = Content(table);
  if (noLog || pairing == kOlderLog) {
    verdict.outcome = "nothing replayed";
    if (after != before) fail("a log with nothing to replay changed the table");
  } else if (pairing == kOwn) {
    size_t k = intact;
    while (k <= inOrder && f.states[k] != after) ++k;
    verdict.outcome = "replayed " + std::to_string(k) + " of " + std::to_string(split.records.size());
    if (k > inOrder)
      fail("the table holds " + Describe(after) + ", the state after none of writes " +
           std::to_string(intact) + " to " + std::to_string(inOrder));
  } else if (pairing == kForkedHistory) {
    verdict.outcome = "opened";
  } else {
    verdict.outcome = "opened";
    fail("a log that must be refused was accepted");
  }
  std::string report;
  if (table.checkConsistency(&report) != TBL_OK) fail("inconsistent after the open: " + report);
  if (table.numberOfRecords() != int64_t(after.size())) fail("numberOfRecords disagrees");
  if (table.close() != TBL_OK) fail("close failed");
  struct stat st;
  if (::lstat((name + ".log").c_str(), &st) == 0) fail("a clean close left the log");
  SmallTable again;
  if (again.openTable(name) != TBL_OK) fail("the table did not open again");
  else if (Content(again) != after) fail("the table changed between a close and an open");
  return verdict;
}

void WriteSeeds(const std::string& directory) {
  for (uint8_t pairing = 0; pairing < kPairings; ++pairing) {
    // Undamaged, and cut in the middle of the records.
    const uint8_t cut[] = {pairing, 1, 4, 0x00, 0x30, 0};
    std::ofstream(directory + "/pairing-" + std::to_string(pairing), std::ios::binary)
        << std::string(1, char(pairing));
    std::ofstream(directory + "/cut-" + std::to_string(pairing), std::ios::binary)
        << std::string(reinterpret_cast<const char*>(cut), sizeof cut);
  }
}

}  // namespace logreplay
