// Scale benchmark: whether the cost per entry and the memory of the tree
// operations stay flat from a million entries to tens of millions.
//
//   scale_bench run --entries N [--dir DIR] [--seed S] [--run R] [--csv raw.csv]
//   scale_bench summarize raw.csv summary.csv
//
// `run` builds a /usr-shaped tree of N entries (UsrShapedTree) in a fresh
// database below DIR and times, one after the other:
//   build     addFolder/addFile of every entry
//   rescan    the same adds again with a later reference time (each an update)
//   walk      getFirstItem/getNextItem over the whole tree
//   children  getChildren of every folder
//   validate  validateTree
//   open      close, evict both table files from the page cache
//             (posix_fadvise DONTNEED), initialize again
//   rename    renameFolder of folders holding a tenth of the entries
//   remove    removeFolder of folders holding another tenth
// For each phase it prints the microseconds per entry handled, the own
// memory the phase held at most beyond what was there before it (RssAnon
// peak minus start; mapped table pages are not own memory) and the sizes of
// the two table files after it, and appends one CSV row per phase. It first
// checks that DIR has room for the tables (about 400 bytes per entry, with a
// margin) and skips the size with a message when it has not.
//
// `summarize` reads the rows of any number of runs and sizes and prints, per
// size and phase, the minimum and median microseconds per entry, the median
// and largest own memory and the median file sizes; it writes the medians
// per size (one column per phase) for plot.gp.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/make_shared.hpp>

#include "OwnMemory.h"
#include "UsrShapedTree.h"
#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

constexpr double kBytesPerEntry = 400;  // tables on disk, with the margin below
constexpr double kRoomFactor = 1.5;

struct Row {
  std::string phase;
  uint64_t items = 0;
  double seconds = 0;
  double ownMb = 0;
  double datMb = 0;
  double idxMb = 0;
  double usPerItem() const { return items ? seconds * 1e6 / items : 0; }
};

void Check(const CKoError& err, const char* what) {
  if (err.IsError()) {
    std::fprintf(stderr, "%s failed:\n%s\n", what, err.AsString().c_str());
    std::exit(1);
  }
}

double FileMb(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_size / 1048576.0 : 0;
}

// Drops the file's pages from the page cache (they are clean once the table
// is closed).
void Evict(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  ::fdatasync(fd);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  ::close(fd);
}

int Run(uint64_t entries, const std::string& base, uint32_t seed, int run,
        const std::string& csv) {
  struct statvfs fs;
  if (statvfs(base.c_str(), &fs) != 0) {
    std::perror(base.c_str());
    return 1;
  }
  const double free = static_cast<double>(fs.f_bavail) * fs.f_frsize;
  const double needed = entries * kBytesPerEntry * kRoomFactor;
  if (free < needed) {
    std::printf("skipping %llu entries: the tables need about %.1f GB in %s, %.1f GB are free\n",
                static_cast<unsigned long long>(entries), needed / 1e9, base.c_str(), free / 1e9);
    return 0;
  }
  std::string pattern = base + "/wz-scale-XXXXXX";
  if (!mkdtemp(&pattern[0])) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string dir = pattern;
  const std::string dat = dir + "/WzScanDB.dat", idx = dir + "/WzScanDB.idx";

  OwnMemory memory;
  const UsrShapedTree tree(entries, seed);
  std::printf("scale benchmark run %d: %llu entries (%zu folders), database in %s\n", run,
              static_cast<unsigned long long>(entries), tree.folders(), dir.c_str());
  std::printf("%-9s %11s %9s %10s %12s %9s %9s\n", "phase", "entries", "seconds", "us/entry",
              "own MB", "dat MB", "idx MB");

  std::vector<Row> rows;
  auto phase = [&](const char* name, const std::function<uint64_t()>& body) {
    memory.start();
    const auto start = std::chrono::steady_clock::now();
    Row row;
    row.phase = name;
    row.items = body();
    row.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    row.ownMb = (memory.peakSinceStart() - memory.atStart()) / 1024.0;
    row.datMb = FileMb(dat);
    row.idxMb = FileMb(idx);
    std::printf("%-9s %11llu %9.2f %10.3f %12.1f %9.1f %9.1f\n", name,
                static_cast<unsigned long long>(row.items), row.seconds, row.usPerItem(),
                row.ownMb, row.datMb, row.idxMb);
    std::fflush(stdout);
    rows.push_back(row);
  };

  auto db = boost::make_shared<WzScanDB>(boost::make_shared<WzScanDBRecord>());
  Check(db->initialize(dir), "initialize");
  const unsigned long long kScanTime = 1700000000ULL;
  db->setRefTime(kScanTime);
  WzScanDBRecordBasePtr root = db->getRoot()->Clone();
  Check(db->addFolder(root), "addFolder(/)");

  auto addAll = [&]() -> uint64_t {
    uint64_t added = 0;
    tree.forEachEntry([&](const std::string& path, bool isDir) {
      auto record = boost::make_shared<WzScanDBRecord>(path, isDir, 0);
      Check(isDir ? db->addFolder(record) : db->addFile(record), "add");
      ++added;
    });
    return added;
  };
  phase("build", addAll);
  db->setRefTime(kScanTime + 86400);
  phase("rescan", addAll);
  phase("walk", [&]() -> uint64_t {
    WzScanDBRecordBasePtr item;
    std::string path;
    uint64_t items = 0;
    CKoError err = db->getFirstItem(root, item, path);
    for (; err.IsSuccess(); err = db->getNextItem(item, path)) ++items;
    if (items != entries) std::fprintf(stderr, "the walk gave %llu items\n",
                                       static_cast<unsigned long long>(items));
    return items;
  });
  phase("children", [&]() -> uint64_t {
    std::vector<WzScanDBRecordBasePtr> children;
    uint64_t listed = 0;
    for (size_t f = 0; f < tree.folders(); ++f) {
      Check(db->getChildren(boost::make_shared<WzScanDBRecord>(tree.folderPath(f)), children),
            "getChildren");
      listed += children.size();
    }
    return listed;
  });
  phase("validate", [&]() -> uint64_t {
    bool consistent = false;
    Check(db->validateTree(consistent), "validateTree");
    if (!consistent) std::fprintf(stderr, "validateTree found the tree not consistent\n");
    return entries + 1;
  });
  Check(db->close(), "close");
  Evict(dat);
  Evict(idx);
  phase("open", [&]() -> uint64_t {
    Check(db->initialize(dir), "initialize (reopen)");
    return entries + 1;
  });
  std::vector<bool> taken;
  phase("rename", [&]() -> uint64_t {
    uint64_t moved = 0;
    size_t k = 0;
    for (size_t f : tree.chooseFolders(entries / 10, taken)) {
      const std::string from = tree.folderPath(f), to = "/renamed-" + std::to_string(k++);
      Check(db->renameFolder(boost::make_shared<WzScanDBRecord>(from),
                             boost::make_shared<WzScanDBRecord>(to, true, 0), from, to),
            "renameFolder");
      moved += tree.below(f) + 1;
    }
    return moved;
  });
  phase("remove", [&]() -> uint64_t {
    uint64_t removed = 0;
    for (size_t f : tree.chooseFolders(entries / 10, taken)) {
      Check(db->removeFolder(boost::make_shared<WzScanDBRecord>(tree.folderPath(f))),
            "removeFolder");
      removed += tree.below(f) + 1;
    }
    return removed;
  });
  Check(db->close(), "close");
  // Closing cuts the files back to the pages in use: the sizes measured
  // right after the reopen are those of the whole tree.
  std::printf("bytes per entry on disk (closed tables of the whole tree): %.0f\n",
              (rows[5].datMb + rows[5].idxMb) * 1048576.0 / (entries + 1));

  if (!csv.empty()) {
    const bool fresh = !std::filesystem::exists(csv);
    std::ofstream out(csv, std::ios::app);
    if (fresh) out << "entries,run,phase,items,seconds,us_per_entry,own_mb,dat_mb,idx_mb\n";
    for (const Row& r : rows)
      out << entries << ',' << run << ',' << r.phase << ',' << r.items << ',' << r.seconds << ','
          << r.usPerItem() << ',' << r.ownMb << ',' << r.datMb << ',' << r.idxMb << '\n';
  }
  db.reset();
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return 0;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

int Summarize(const std::string& rawPath, const std::string& summaryPath) {
  std::ifstream raw(rawPath);
  if (!raw) {
    std::perror(rawPath.c_str());
    return 1;
  }
  struct Samples {
    std::vector<double> us, own, dat, idx;
  };
  std::map<uint64_t, std::map<std::string, Samples>> bySize;
  std::vector<std::string> phases;  // in the order first met
  std::string line;
  std::getline(raw, line);  // header
  while (std::getline(raw, line)) {
    std::stringstream fields(line);
    std::string entries, run, phase, items, seconds, us, own, dat, idx;
    std::getline(fields, entries, ',');
    std::getline(fields, run, ',');
    std::getline(fields, phase, ',');
    std::getline(fields, items, ',');
    std::getline(fields, seconds, ',');
    std::getline(fields, us, ',');
    std::getline(fields, own, ',');
    std::getline(fields, dat, ',');
    std::getline(fields, idx, ',');
    if (phase.empty() || entries == "entries") continue;
    if (std::find(phases.begin(), phases.end(), phase) == phases.end()) phases.push_back(phase);
    Samples& s = bySize[std::stoull(entries)][phase];
    s.us.push_back(std::stod(us));
    s.own.push_back(std::stod(own));
    s.dat.push_back(std::stod(dat));
    s.idx.push_back(std::stod(idx));
  }
  std::printf("%11s %-9s %5s %12s %12s %11s %11s %9s %9s\n", "entries", "phase", "runs",
              "min us/ent", "median us", "own MB med", "own MB max", "dat MB", "idx MB");
  std::ofstream summary(summaryPath);
  summary << "entries";
  for (const std::string& phase : phases) summary << ',' << phase;
  summary << '\n';
  for (const auto& [entries, byPhase] : bySize) {
    summary << entries;
    for (const std::string& phase : phases) {
      auto it = byPhase.find(phase);
      if (it == byPhase.end()) {
        summary << ",NaN";
        continue;
      }
      const Samples& s = it->second;
      std::printf("%11llu %-9s %5zu %12.3f %12.3f %11.1f %11.1f %9.0f %9.0f\n",
                  static_cast<unsigned long long>(entries), phase.c_str(), s.us.size(),
                  *std::min_element(s.us.begin(), s.us.end()), Median(s.us), Median(s.own),
                  *std::max_element(s.own.begin(), s.own.end()), Median(s.dat), Median(s.idx));
      summary << ',' << Median(s.us);
    }
    summary << '\n';
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Scale benchmark of the scan database's tree operations"};
  app.require_subcommand(1);
  uint64_t entries = 1000000;
  std::string dir = "/tmp", csv;
  uint32_t seed = 42;
  int run = 1;
  CLI::App* runCommand = app.add_subcommand("run", "build a tree and time every phase");
  runCommand->add_option("--entries", entries, "entries in the tree");
  runCommand->add_option("--dir", dir, "directory to make the database in");
  runCommand->add_option("--seed", seed, "seed of the tree's shape");
  runCommand->add_option("--run", run, "number of this run, for the CSV");
  runCommand->add_option("--csv", csv, "CSV file to append one row per phase to");
  std::string raw, summary;
  CLI::App* summarize =
      app.add_subcommand("summarize", "minimum and median of every phase over the runs");
  summarize->add_option("raw", raw, "rows appended by run")->required();
  summarize->add_option("summary", summary, "medians per size, for plot.gp")->required();
  CLI11_PARSE(app, argc, argv);
  if (*summarize) return Summarize(raw, summary);
  return Run(entries, dir, seed, run, csv);
}
