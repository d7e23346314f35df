// fault_writer: the process the fault and crash tests run (under the shim,
// FaultShim.c) and then kill, fail or cut the power of. It reports on
// standard output, one write(2) per line, in one ordered stream with the
// shim's events:
//   B key value    an operation begins (value -1: a delete)
//   A              it returned success
//   F status       it failed (never done: it must not appear later)
//   E status what  another call failed (open, close, copy)
//   L text         a line the library logged at level -1
//
// Modes:
//   table DIR SEED OPS KEYS  the generic table DIR/WzScanDB (created when
//       missing) with a 1 MiB growth step: OPS random adds, modifies and
//       deletes of KEYS keys (images: makeRecord), now and then a close and
//       reopen or an index suspend and rebuild (both checkpoint; odd seeds
//       rebuild in small sort runs), then a close. Keys are key ids, values
//       versions.
//   db DIR SEED OPS  the scan database in DIR (initialized: created or
//       opened, replaying a log): folders / and /w, then OPS random adds,
//       updates and deletes of files in /w, then a close. Keys are paths,
//       values reference times (folders: 1).
//   copy FROM TO  WzScanDB::copy of a closed database.
// Environment: FAULT_KILL_AFTER=n raises SIGKILL once n operations were
// acknowledged; FAULT_KILL_US=t raises SIGKILL t µs after the start,
// whatever the writer is doing; FAULT_AS_HEADROOM_KB=k (table mode) limits
// the address space (RLIMIT_AS) to k KiB above what the open table uses.
// After a failed operation the writer goes on (twenty failures in a row end
// the operations) and exits 0 whatever the statuses were.
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <thread>

#include <boost/make_shared.hpp>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "faults/FaultHarness.h"
#include "runtime/LogWriter.h"

namespace {

using faults::makeRecord;

void line(const std::string& text) {
  const std::string out = text + "\n";
  if (::write(STDOUT_FILENO, out.data(), out.size()) != ssize_t(out.size())) _exit(5);
}

// Passes the library's error lines (level -1) on to the stream.
class ErrorLines : public CLogSink {
 public:
  void Write(const CLogEntry& entry) override {
    if (entry.level <= -1) line("L " + entry.message.substr(0, 300));
  }
};

long g_killAfter = 0, g_acknowledged = 0;  // FAULT_KILL_AFTER
int g_failedInARow = 0;

// Runs `call` as operation (key, value): B, the call, then A or F.
template <typename Call>
bool operation(const std::string& key, long long value, Call call) {
  line("B " + key + " " + std::to_string(value));
  const int status = call();
  line(status == 0 ? "A" : "F " + std::to_string(status));
  g_failedInARow = status == 0 ? 0 : g_failedInARow + 1;
  if (status == 0 && g_killAfter > 0 && ++g_acknowledged >= g_killAfter) ::raise(SIGKILL);
  return status == 0;
}
// Twenty failures in a row: the writes are refused; the run goes to its close.
bool refused() { return g_failedInARow >= 20; }

// The generic table with a 1 MiB growth step: a short run grows its maps
// several times.
class SmallStepTable : public GenericSchemaTable {
 public:
  int hugeFileIncr() override { return 1; }
};

int tableMode(const std::string& dir, uint64_t seed, long ops, uint32_t keys) {
  const std::string name = dir + "/WzScanDB";
  std::mt19937_64 rng(seed);
  SmallStepTable table;
  int status = table.openTable(name);
  if (status == TBL_FILE_MISSING) status = table.create();
  if (status != TBL_OK) return line("E " + std::to_string(status) + " open"), 0;
  if (seed % 2) table.setRebuildMemoryLimit(16 << 10);
  if (const char* headroom = std::getenv("FAULT_AS_HEADROOM_KB")) {
    // A real address-space limit (ulimit -v) a little above what the
    // process uses now: the maps' growth runs into it.
    unsigned long long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t bytes = rlim_t(pages * sysconf(_SC_PAGESIZE) + std::strtoull(headroom, nullptr, 10) * 1024);
    const rlimit limit{bytes, bytes};
    if (setrlimit(RLIMIT_AS, &limit) != 0) line("E -1 setrlimit");
  }
  SGenericRecord rec;
  for (long i = 0; i < ops && !refused(); ++i) {
    const unsigned dice = unsigned(rng() % 1000);
    if (dice < 3) {
      // A close and a reopen: a clean checkpoint, the log removed and made anew.
      if ((status = table.close()) != TBL_OK || (status = table.openTable(name)) != TBL_OK)
        line("E " + std::to_string(status) + " reopen");
      continue;
    }
    if (dice < 5) {
      if (table.suspendIndexing() == -1) line("E -1 suspend");
      if ((status = table.resumeIndexingAndRebuild()) != TBL_OK) line("E " + std::to_string(status) + " rebuild");
      continue;
    }
    // A missing key is added; a stored one deleted (dice < 400) or modified.
    const uint32_t key = uint32_t(rng() % keys);
    const long long version = (long long)(rng() & 0x7fffffff);
    SGenericRecord next = makeRecord(key, uint32_t(version));
    GenericKey gk;
    table.buildKey(0, next, &gk);
    const int found = table.getRecord(0, gk.bytes, &rec);
    const bool erase = found == TBL_OK && dice < 400;
    operation(std::to_string(key), erase ? -1 : version, [&] {
      if (found == TBL_NOT_FOUND) return table.addRecord(&next);
      return found != TBL_OK ? found : erase ? table.deleteRecord() : table.modifyRecord(&next);
    });
  }
  if ((status = table.close()) != TBL_OK) line("E " + std::to_string(status) + " close");
  return 0;
}

WzScanDBRecordBasePtr record(const std::string& path, bool isDir, unsigned long long refTime) {
  return boost::make_shared<WzScanDBRecord>(path, isDir, refTime);
}

int dbMode(const std::string& dir, uint64_t seed, long ops) {
  std::mt19937_64 rng(seed);
  WzScanDB db(record("", false, 0));
  CKoError err = db.initialize(dir);
  if (err.IsError()) return line("E 1 initialize " + err.AsString().substr(0, 200)), 0;
  // Added records take the database's reference time; updates keep theirs.
  const unsigned long long added = 1000 + seed % 1000;
  db.setRefTime(added);
  // Runs one call of the database as an operation.
  auto run = [&](const std::string& key, long long value, auto call) {
    return operation(key, value, [&] { return call().IsError() ? 1 : 0; });
  };
  for (const char* folder : {"/", "/w"}) run(folder, 1, [&] { return db.addFolder(record(folder, true, 1)); });
  std::vector<std::string> live;
  for (long i = 0; i < ops && !refused(); ++i) {
    const unsigned roll = unsigned(rng() % 4);
    const unsigned long long refTime = 1000 + rng() % 1000000;
    if (live.empty() || roll < 2) {
      const std::string path = "/w/f" + std::to_string(seed) + "-" + std::to_string(i);
      if (run(path, added, [&] { return db.addFile(record(path, false, refTime)); })) live.push_back(path);
      continue;
    }
    const size_t at = size_t(rng() % live.size());
    const std::string path = live[at];
    if (roll == 2) {
      run(path, refTime, [&] { return db.updateDBRecord(record(path, false, refTime)); });
    } else if (run(path, -1, [&] { return db.removeFile(record(path, false, 0)); })) {
      live[at] = live.back();
      live.pop_back();
    }
  }
  if ((err = db.close()).IsError()) line("E 1 close " + err.AsString().substr(0, 200));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  g_ptrLogWriter->SetNone();
  g_ptrLogWriter->SetLevel(-1);
  const auto errors = std::make_shared<ErrorLines>();  // (the writer holds it weakly)
  g_ptrLogWriter->AddSink(errors);
  if (const char* us = std::getenv("FAULT_KILL_US"))
    std::thread([t = std::atol(us)] { std::this_thread::sleep_for(std::chrono::microseconds(t)), ::raise(SIGKILL); }).detach();
  g_killAfter = std::getenv("FAULT_KILL_AFTER") ? std::atol(std::getenv("FAULT_KILL_AFTER")) : 0;
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "table" && argc == 6)
    return tableMode(argv[2], std::strtoull(argv[3], nullptr, 10), std::atol(argv[4]), uint32_t(std::atol(argv[5])));
  if (mode == "db" && argc == 5) return dbMode(argv[2], std::strtoull(argv[3], nullptr, 10), std::atol(argv[4]));
  if (mode == "copy" && argc == 4 && WzScanDB::copy(argv[2], argv[3]).IsError()) line("E 1 copy");
  if (mode == "copy" && argc == 4) return 0;
  std::fprintf(stderr, "usage: fault_writer table DIR SEED OPS KEYS | db DIR SEED OPS | copy FROM TO\n");
  return 2;
}
