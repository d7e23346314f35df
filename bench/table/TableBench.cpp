// table_bench: the table engine against plain LMDB (the floor) and SQLite
// (the peer) on the generic scan record, every write its own committed
// transaction in all three.
//
//   table_bench [--records N] [--dir PATH] [--seed S] [--no-sqlite] [--keep]
//
// Each phase runs on every backend before the next phase starts, so a change
// in the machine's load touches all three alike. Every answer is checked; a
// wrong one stops the program. After the adds it also times the engine's
// open of the closed table against one read of its files.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <algorithm>
#include <string>
#include <vector>

#include "BenchBackend.h"
#include "BenchWorkload.h"

namespace {

enum class Kind { kWrite, kRead, kMaintenance };

struct Phase {
  std::string name;
  Kind kind;
  uint64_t count = 0;           // operations timed
  std::vector<double> seconds;  // per backend
};

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void report(const Phase& phase, const std::vector<std::unique_ptr<BenchBackend>>& backends) {
  for (size_t i = 0; i < backends.size(); ++i)
    std::fprintf(stderr, "  %-8s %-8s %8.2f s\n", phase.name.c_str(), backends[i]->name(),
                 phase.seconds[i]);
}

// Runs operations 0..count-1 on every backend, in slices that take turns, so
// that a change in the machine's load falls on all backends alike.
template <typename Op>
void sliced(Phase& phase, std::vector<std::unique_ptr<BenchBackend>>& backends, uint64_t count,
            Op op) {
  phase.seconds.assign(backends.size(), 0);
  const uint64_t slice = std::max<uint64_t>(1000, count / 50);
  for (uint64_t from = 0; from < count; from += slice) {
    const uint64_t to = std::min(count, from + slice);
    for (size_t i = 0; i < backends.size(); ++i) {
      const auto start = Clock::now();
      for (uint64_t k = from; k < to; ++k) op(*backends[i], i, k);
      phase.seconds[i] += since(start);
    }
  }
  report(phase, backends);
}

// Runs a whole-table operation `rounds` times on every backend, taking
// turns, and keeps each backend's best time.
template <typename Body>
void whole(Phase& phase, std::vector<std::unique_ptr<BenchBackend>>& backends, int rounds,
           Body body) {
  phase.seconds.assign(backends.size(), 1e300);
  for (int r = 0; r < rounds; ++r)
    for (size_t i = 0; i < backends.size(); ++i) {
      const auto start = Clock::now();
      body(*backends[i]);
      phase.seconds[i] = std::min(phase.seconds[i], since(start));
    }
  report(phase, backends);
}

void expectEqual(const BenchBackend& b, const SGenericRecord& got, const SGenericRecord& want,
                 const char* what) {
  if (std::memcmp(&got, &want, sizeof got) != 0) benchFail(b.name(), what, 0);
}

// Reads a file from start to end; returns the bytes read.
uint64_t readWhole(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  std::vector<char> buffer(1 << 20);
  uint64_t total = 0;
  for (ssize_t n; (n = ::read(fd, buffer.data(), buffer.size())) > 0;) total += uint64_t(n);
  ::close(fd);
  return total;
}

std::string rate(double opsPerSecond) {
  char buf[32];
  if (opsPerSecond >= 1e6)
    std::snprintf(buf, sizeof buf, "%.2fM", opsPerSecond / 1e6);
  else
    std::snprintf(buf, sizeof buf, "%.1fk", opsPerSecond / 1e3);
  return buf;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Table engine benchmark against plain LMDB and SQLite"};
  uint32_t records = 1000000;
  std::string base = getenv("TMPDIR") && *getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
  uint64_t seed = 42;
  bool noSqlite = false, keep = false;
  app.add_option("--records", records, "records in the table")->check(CLI::Range(100u, 200000000u));
  app.add_option("--dir", base, "directory for the files (a fresh sub-directory is made)");
  app.add_option("--seed", seed, "workload seed");
  app.add_flag("--no-sqlite", noSqlite, "skip SQLite");
  app.add_flag("--keep", keep, "keep the files");
  CLI11_PARSE(app, argc, argv);

  std::string root = base + "/table-bench-XXXXXX";
  if (!mkdtemp(root.data())) {
    std::perror("mkdtemp");
    return 1;
  }
  std::vector<std::unique_ptr<BenchBackend>> backends;
  backends.push_back(makeEngineBackend());
  backends.push_back(makeLmdbBackend());
  if (!noSqlite) backends.push_back(makeSqliteBackend());
  for (auto& b : backends) {
    const std::string dir = root + "/" + b->name();
    std::filesystem::create_directory(dir);
    b->create(dir);
  }

  const BenchWorkload work(records, seed);
  const uint32_t changed = records / 10;  // records modified, and as many deleted
  const std::vector<uint32_t> order = work.shuffled(records, 1);
  std::fprintf(stderr, "table_bench: %u records, %zu folders, files under %s\n", records,
               work.folders().size(), root.c_str());

  std::vector<Phase> phases;
  phases.reserve(8);
  auto phase = [&](const char* name, Kind kind, uint64_t count) -> Phase& {
    phases.push_back(Phase{name, kind, count, {}});
    return phases.back();
  };

  sliced(phase("add", Kind::kWrite, records), backends, records,
         [&](BenchBackend& b, size_t, uint64_t i) { b.add(work.record(uint32_t(i))); });

  std::vector<uint64_t> bytes;
  for (auto& b : backends) {
    b->close();
    bytes.push_back(b->bytesOnDisk());
    b->reopen();
  }

  // Open of the closed table: the engine checks every page in use before
  // LMDB maps a file. Baseline: one sequential read of the same two files
  // (both warm in the page cache). Best of three.
  const std::string engineName = root + "/engine/WzScanDB";
  double openSeconds = 1e300, readSeconds = 1e300;
  for (int round = 0; round < 3; ++round) {
    backends[0]->close();  // cuts the files back to the pages in use
    auto start = Clock::now();
    const uint64_t read = readWhole(engineName + ".dat") + readWhole(engineName + ".idx");
    readSeconds = std::min(readSeconds, since(start));
    if (read != bytes[0]) benchFail("engine", "open: files changed size", int64_t(read));
    start = Clock::now();
    backends[0]->reopen();
    openSeconds = std::min(openSeconds, since(start));
  }
  std::fprintf(stderr, "  open     engine   %8.3f s (reading the files: %.3f s)\n", openSeconds,
               readSeconds);

  sliced(phase("read", Kind::kRead, records), backends, records,
         [&](BenchBackend& b, size_t, uint64_t k) {
           SGenericRecord got;
           uint8_t guid[16];
           work.guid(order[k], guid);
           if (!b.read(guid, &got)) benchFail(b.name(), "read: record missing", order[k]);
           if (got.refTime != 1700000000u || std::memcmp(got.guid, guid, 16) != 0)
             benchFail(b.name(), "read: wrong record", order[k]);
         });

  // Every folder's children, folders in random order; counted per record.
  const std::vector<uint32_t> folderOrder = work.shuffled(uint32_t(work.folders().size()), 2);
  uint64_t childRecords = 0;
  for (uint32_t i = 0; i < records; ++i) childRecords += work.hasParent(i);
  std::vector<uint64_t> seen(backends.size(), 0);
  sliced(phase("children", Kind::kRead, childRecords), backends, folderOrder.size(),
         [&](BenchBackend& b, size_t which, uint64_t k) {
           uint8_t guid[16];
           work.guid(work.folders()[folderOrder[k]], guid);
           seen[which] += b.children(guid);
         });
  for (size_t i = 0; i < backends.size(); ++i)
    if (seen[i] != childRecords)
      benchFail(backends[i]->name(), "children: wrong count", int64_t(seen[i]));

  sliced(phase("modify", Kind::kWrite, changed), backends, changed,
         [&](BenchBackend& b, size_t, uint64_t k) {
           b.modify(work.record(order[k], k % 4 == 0 ? 2 : 1));  // a quarter renamed
         });

  sliced(phase("delete", Kind::kWrite, changed), backends, changed,
         [&](BenchBackend& b, size_t, uint64_t k) {
           uint8_t guid[16];
           work.guid(order[changed + k], guid);
           b.remove(guid);
         });

  const uint64_t remaining = records - changed;
  whole(phase("walk", Kind::kRead, remaining), backends, 3, [&](BenchBackend& b) {
    const uint64_t n = b.walk();
    if (n != remaining) benchFail(b.name(), "walk: wrong count", int64_t(n));
  });

  whole(phase("rebuild", Kind::kMaintenance, remaining), backends, 2,
        [&](BenchBackend& b) { b.rebuild(); });

  // The indexes after all of it: modified, deleted and untouched records.
  for (auto& b : backends) {
    SGenericRecord got;
    uint8_t guid[16];
    for (uint32_t k = 0; k < std::min<uint32_t>(changed, 2000); ++k) {
      const uint32_t i = order[k];
      if (!b->read(work.record(i).guid, &got)) benchFail(b->name(), "check: modified missing", i);
      expectEqual(*b, got, work.record(i, k % 4 == 0 ? 2 : 1), "check: modified record");
      work.guid(order[changed + k], guid);
      if (b->read(guid, &got)) benchFail(b->name(), "check: deleted record present", i);
    }
    b->close();
  }

  // ---- report ---------------------------------------------------------------
  const bool sqlite = backends.size() == 3;
  std::printf("\nTable benchmark: %u generic records (20-byte names, %zu folders), seed %llu\n",
              records, work.folders().size(), static_cast<unsigned long long>(seed));
  std::printf("Operations per second; ratios are time per operation.\n");
  std::printf("Targets: engine/lmdb <= 1.50; sqlite/engine >= 5.0 on writes, >= 2.5 on reads.\n\n");
  std::printf("%-9s %10s %10s %10s %10s %12s %14s  %s\n", "operation", "count", "engine",
              "lmdb", sqlite ? "sqlite" : "-", "engine/lmdb", "sqlite/engine", "verdict");
  bool allMet = true;
  for (const Phase& p : phases) {
    const double e = p.seconds[0], l = p.seconds[1];
    const double s = sqlite ? p.seconds[2] : 0;
    const double vsLmdb = e / l, vsSqlite = sqlite ? s / e : 0;
    const double sqliteTarget = p.kind == Kind::kWrite ? 5.0 : p.kind == Kind::kRead ? 2.5 : 0;
    bool met = vsLmdb <= 1.5;
    if (sqlite && sqliteTarget > 0) met = met && vsSqlite >= sqliteTarget;
    allMet = allMet && met;
    char sq[16] = "-", ratioSq[16] = "-";
    if (sqlite) {
      std::snprintf(sq, sizeof sq, "%s", rate(double(p.count) / s).c_str());
      std::snprintf(ratioSq, sizeof ratioSq, "%.2f", vsSqlite);
    }
    std::printf("%-9s %10llu %10s %10s %10s %12.2f %14s  %s\n", p.name.c_str(),
                static_cast<unsigned long long>(p.count), rate(double(p.count) / e).c_str(),
                rate(double(p.count) / l).c_str(), sq, vsLmdb, ratioSq, met ? "met" : "MISSED");
  }
  std::printf("\nOn disk after adding %u records, files closed (bytes per record):\n", records);
  for (size_t i = 0; i < backends.size(); ++i)
    std::printf("  %-8s %12llu bytes  %7.1f B/record%s\n", backends[i]->name(),
                static_cast<unsigned long long>(bytes[i]), double(bytes[i]) / records,
                i == 0 ? (double(bytes[0]) / records <= 400 ? "  (target <= 400: met)"
                                                            : "  (target <= 400: MISSED)")
                       : "");
  allMet = allMet && double(bytes[0]) / records <= 400;
  std::printf("\nOpen of the closed table, every page in use checked: %.3f s, %.2fx one read of "
              "its files (%.3f s)\n",
              openSeconds, openSeconds / readSeconds, readSeconds);
  std::printf("\nAll targets %s.\n", allMet ? "met" : "NOT met");

  if (!keep) std::filesystem::remove_all(root);
  return 0;
}
