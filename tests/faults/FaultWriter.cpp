// fault_writer: the process the fault tests run under the shim (FaultShim.c)
// and then kill, fail or cut the power of. It reports on standard output,
// one write(2) per line, in one ordered stream with the shim's events:
//   B seq key value    an operation begins (value -1: a delete)
//   A seq t            it returned success (t: CLOCK_MONOTONIC, µs)
//   F seq status       it failed (never done: it must not appear later)
//   E status what      another call failed (open, close, copy)
//   L text             a line the library logged at level -1
//
// Modes:
//   table DIR SEED OPS KEYS  the generic table DIR/WzScanDB (created when
//       missing) with a 1 MiB growth step: OPS random adds, modifies and
//       deletes over KEYS keys (images from tests/table_crash), now and then
//       a close and reopen or an index suspend and rebuild (both checkpoint),
//       then a close. Keys are key ids, values versions.
//   db DIR SEED OPS  the scan database in DIR (initialized: created or
//       opened, replaying a log): folder /w, then OPS random adds, updates
//       and deletes of files in it, then a close. Keys are paths, values
//       reference times (folders: 1).
//   copy FROM TO  WzScanDB::copy of a closed database.
// FAULT_AS_HEADROOM_KB=k: table mode limits its address space (RLIMIT_AS,
// as ulimit -v does) to k KiB above what it uses once the table is open.
// After a failed operation the writer goes on (the next ones show whether
// the table still works; twenty failures in a row end the operations) and
// exits 0 whatever the statuses were.
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "WzScanDB/WzScanDBExports.h"
#include "runtime/LogWriter.h"
#include "support/GenericSchemaTable.h"
#include "table_crash/CrashWriter.h"

namespace {

long nowUs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000000L + ts.tv_nsec / 1000;
}

void line(const std::string& text) {
  const std::string out = text + "\n";
  if (::write(STDOUT_FILENO, out.data(), out.size()) != static_cast<ssize_t>(out.size())) _exit(5);
}

// Passes the library's error lines (level -1) on to the stream.
class ErrorLines : public CLogSink {
 public:
  void Write(const CLogEntry& entry) override {
    if (entry.level <= -1) line("L " + entry.message.substr(0, 300));
  }
};

class Reporter {
 public:
  // Runs `call` as operation (key, value): B, the call, then A or F.
  template <typename Call>
  bool run(const std::string& key, long long value, Call call) {
    const unsigned long seq = ++seq_;
    line("B " + std::to_string(seq) + " " + key + " " + std::to_string(value));
    const int status = call();
    line(status == 0 ? "A " + std::to_string(seq) + " " + std::to_string(nowUs())
                     : "F " + std::to_string(seq) + " " + std::to_string(status));
    failedInARow_ = status == 0 ? 0 : failedInARow_ + 1;
    // FAULT_KILL_AFTER=N: killed once N operations were acknowledged (the
    // table's writes reach its log through a mapping, without a call to
    // count).
    static const long killAfter = std::getenv("FAULT_KILL_AFTER") ? std::atol(std::getenv("FAULT_KILL_AFTER")) : 0;
    if (status == 0 && killAfter > 0 && ++acknowledged_ >= killAfter) ::raise(SIGKILL);
    return status == 0;
  }
  // Twenty failures in a row: the table refuses writes; the run goes to its close.
  bool refused() const { return failedInARow_ >= 20; }

 private:
  unsigned long seq_ = 0;
  int failedInARow_ = 0;
  long acknowledged_ = 0;
};

// The generic table with a small growth step, so that a short run grows its
// maps several times.
class SmallStepTable : public GenericSchemaTable {
 public:
  int hugeFileIncr() override { return 1; }
};

int tableMode(const std::string& dir, uint64_t seed, long ops, uint32_t keys) {
  using crashtest::makeRecord;
  const std::string name = dir + "/WzScanDB";
  std::mt19937_64 rng(seed);
  SmallStepTable table;
  int status = table.openTable(name);
  if (status == TBL_FILE_MISSING) status = table.create();
  if (status != TBL_OK) {
    line("E " + std::to_string(status) + " open");
    return 0;
  }
  if (const char* headroom = std::getenv("FAULT_AS_HEADROOM_KB")) {
    // A real address-space limit (ulimit -v) a little above what the
    // process uses now: the maps' growth runs into it.
    std::ifstream status("/proc/self/status");
    std::string field;
    unsigned long long kb = 0;
    while (status >> field && field != "VmSize:") {
    }
    status >> kb;
    const rlim_t bytes = rlim_t(kb + std::strtoull(headroom, nullptr, 10)) * 1024;
    const rlimit limit{bytes, bytes};
    if (setrlimit(RLIMIT_AS, &limit) != 0) line("E -1 setrlimit");
  }
  // The table's content as it is now: key -> version (-1: absent).
  std::vector<long long> state(keys, -1);
  std::map<std::string, uint32_t> keyOf;
  for (uint32_t k = 0; k < keys; ++k)
    keyOf[std::string(reinterpret_cast<const char*>(makeRecord(k, 0).guid), 16)] = k;
  SGenericRecord rec;
  for (int s = table.firstRecord(-1, &rec); s == TBL_OK; s = table.nextRecord(-1, &rec)) {
    auto it = keyOf.find(std::string(reinterpret_cast<const char*>(rec.guid), 16));
    if (it != keyOf.end()) state[it->second] = rec.refTime;
  }
  Reporter report;
  for (long i = 0; i < ops && !report.refused(); ++i) {
    const unsigned dice = unsigned(rng() % 1000);
    if (dice < 3) {
      // A close and a reopen: a clean checkpoint, the log removed and made anew.
      status = table.close();
      if (status == TBL_OK) status = table.openTable(name);
      if (status != TBL_OK) line("E " + std::to_string(status) + " reopen");
      continue;
    }
    if (dice < 5) {
      if (table.suspendIndexing() == -1) line("E -1 suspend");
      status = table.resumeIndexingAndRebuild();
      if (status != TBL_OK) line("E " + std::to_string(status) + " rebuild");
      continue;
    }
    const uint32_t key = uint32_t(rng() % keys);
    const std::string k = std::to_string(key);
    const uint32_t version = uint32_t(nowUs() & 0x7fffffff);
    if (state[key] < 0) {
      rec = makeRecord(key, version);
      if (report.run(k, version, [&] { return table.addRecord(&rec); })) state[key] = version;
      continue;
    }
    GenericKey gk;
    table.buildKey(0, makeRecord(key, 0), &gk);
    const bool erase = dice < 400;
    if (erase) {
      if (report.run(k, -1, [&] {
            int s = table.getRecord(0, gk.bytes, &rec);
            return s != TBL_OK ? s : table.deleteRecord();
          }))
        state[key] = -1;
    } else {
      SGenericRecord next = makeRecord(key, version);
      if (report.run(k, version, [&] {
            int s = table.getRecord(0, gk.bytes, &rec);
            return s != TBL_OK ? s : table.modifyRecord(&next);
          }))
        state[key] = version;
    }
  }
  status = table.close();
  if (status != TBL_OK) line("E " + std::to_string(status) + " close");
  return 0;
}

WzScanDBRecordBasePtr record(const std::string& path, bool isDir, unsigned long long refTime) {
  WzScanDBRecordPtr r;
  std::string text = path;
  CreateGlusterRecordObject(r, text, isDir, refTime);
  return r;
}

int errorCode(const CKoError& err) { return err.IsError() ? 1 : 0; }

int dbMode(const std::string& dir, uint64_t seed, long ops) {
  std::mt19937_64 rng(seed);
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr db;
  CreateWzScanDBObject(db, prototype);
  CKoError err;
  std::string text = dir;
  WzScanDBObjectInitialize(db, text, err);
  if (err.IsError()) {
    line("E 1 initialize " + err.AsString().substr(0, 200));
    return 0;
  }
  // Added records take the database's reference time; updates keep theirs.
  const unsigned long long added = 1000 + seed % 1000;
  WzScanDBObjectSetRefTime(db, added);
  Reporter report;
  for (const char* folder : {"/", "/w"}) {
    report.run(folder, 1, [&] {
      WzScanDBObjectAddFolder(db, record(folder, true, 1), err);
      return errorCode(err);
    });
  }
  std::vector<std::string> live;
  for (long i = 0; i < ops && !report.refused(); ++i) {
    const unsigned roll = unsigned(rng() % 4);
    const unsigned long long refTime = 1000 + rng() % 1000000;
    if (live.empty() || roll < 2) {
      const std::string path = "/w/f" + std::to_string(seed % 100000) + "-" + std::to_string(i);
      if (report.run(path, added, [&] {
            WzScanDBObjectAddFile(db, record(path, false, refTime), err);
            return errorCode(err);
          }))
        live.push_back(path);
      continue;
    }
    const size_t at = size_t(rng() % live.size());
    const std::string path = live[at];
    if (roll == 2) {
      report.run(path, refTime, [&] {
        WzScanDBObjectUpdateDBRecord(db, record(path, false, refTime), err);
        return errorCode(err);
      });
    } else if (report.run(path, -1, [&] {
                 WzScanDBObjectRemoveFile(db, record(path, false, 0), err);
                 return errorCode(err);
               })) {
      live[at] = live.back();
      live.pop_back();
    }
  }
  WzScanDBObjectClose(db, err);
  if (err.IsError()) line("E 1 close " + err.AsString().substr(0, 200));
  DestroyWzScanDBObject(db);
  return 0;
}

int copyMode(const std::string& from, const std::string& to) {
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr db;
  CreateWzScanDBObject(db, prototype);
  CKoError err;
  WzScanDBObjectCopy(db, from, to, err);
  if (err.IsError()) line("E 1 copy");
  DestroyWzScanDBObject(db);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  g_ptrLogWriter->SetNone();
  g_ptrLogWriter->SetLevel(-1);
  const auto errors = std::make_shared<ErrorLines>();
  g_ptrLogWriter->AddSink(errors);
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "table" && argc == 6)
    return tableMode(argv[2], std::strtoull(argv[3], nullptr, 10), std::atol(argv[4]),
                     uint32_t(std::atol(argv[5])));
  if (mode == "db" && argc == 5) return dbMode(argv[2], std::strtoull(argv[3], nullptr, 10), std::atol(argv[4]));
  if (mode == "copy" && argc == 4) return copyMode(argv[2], argv[3]);
  std::fprintf(stderr,
               "usage: fault_writer table DIR SEED OPS KEYS | db DIR SEED OPS | copy FROM TO\n");
  return 2;
}
