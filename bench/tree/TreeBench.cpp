// Tree benchmark: generates a file-system-like tree of generic records and
// times the tree operations on it, one phase after the other:
//   build     addFolder/addFile of every entry
//   scan      baseline: the engine's firstRecord/nextRecord over the table
//   walk      getFirstItem/getNextItem over the whole tree
//   children  getChildren of every folder
//   runs      baseline: the engine alone reading every folder's children
//             (readRun into one buffer, no records made)
//   validate  validateTree of the whole table
//   updated   getUpdatedRecords of the last tenth added (read of the table)
//   rename    renameFolder of folders holding a tenth of the entries
//   remove    removeFolder of folders holding another tenth
//   raw-add   baseline: addRecordWithoutCheck of as many records into a
//             second database
// For each phase it prints the entries handled per second, the peak of the
// process's own memory (RssAnon, sampled) and the peak resident size with the
// mapped table files (VmHWM, reset before each phase), and appends
// one row of throughputs to a CSV file for plotting, then the ratio of each
// operation to its baseline (reads to scan, writes to raw-add): the ratios
// hold when the machine is shared, the absolute rates do not.
//
//   tree_bench --entries 1000000 [--dir /tmp] [--csv results.csv] [--seed 42]
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

struct Options {
  size_t entries = 100000;
  std::string dir = "/tmp";
  std::string csv;
  unsigned seed = 42;
};

struct Folder {
  std::string path;
  int parent;            // index in the folder list; -1 for the root
  size_t descendants;    // entries below this folder
  bool chosen = false;   // moved or removed as a whole
  bool hasChosenBelow = false;
};

// The generated tree: every folder in the order made, and the file count.
struct Tree {
  std::vector<Folder> folders;
  size_t files = 0;
};

// Bytes of the parent identifier that lead the generic record's
// parent-and-name key.
constexpr int kParentIdBytes = 16;

const char* const kWords[] = {"report", "photo",   "backup", "invoice", "src",    "build",
                              "notes",  "draft",   "archive", "music",  "video",  "project",
                              "data",   "release", "config", "customer", "summary", "thumbnail"};
const char* const kExtensions[] = {".txt", ".jpg", ".pdf", ".dat", ".log", ".cpp",
                                   ".h",   ".xml", ".docx", ".mp3", ".tar.gz", ""};

// A name of realistic length (about 6 to 40 bytes), unique within its
// folder through `index`.
std::string MakeName(std::mt19937& rng, size_t index, bool isDir) {
  std::uniform_int_distribution<int> word(0, sizeof kWords / sizeof *kWords - 1);
  std::uniform_int_distribution<int> words(1, 3);
  std::string name = kWords[word(rng)];
  for (int i = words(rng); i > 1; --i) {
    name += (rng() & 1) ? '_' : '-';
    name += kWords[word(rng)];
  }
  name += '-';
  name += std::to_string(index);
  if (!isDir) {
    std::uniform_int_distribution<int> ext(0, sizeof kExtensions / sizeof *kExtensions - 1);
    name += kExtensions[ext(rng)];
  }
  return name;
}

std::string Join(const std::string& folder, const std::string& name) {
  return folder == "/" ? "/" + name : folder + "/" + name;
}

long ReadStatusKb(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const size_t length = std::strlen(field);
  while (std::getline(status, line))
    if (line.compare(0, length, field) == 0) return std::atol(line.c_str() + length + 1);
  return -1;
}

// Resets the peak resident size so that VmHWM measures one phase.
void ResetPeak() {
  std::ofstream clearRefs("/proc/self/clear_refs");
  clearRefs << "5";
}

// The resident size counts the pages of the memory-mapped table files that a
// phase touches. The process's own memory (records, buffers, queues) is the
// anonymous part, RssAnon, which has no peak counter: a thread samples it.
class AnonSampler {
 public:
  AnonSampler() : thread_([this] { Run(); }) {}
  ~AnonSampler() {
    stop_ = true;
    thread_.join();
  }
  // Starts a new peak at the current value; returns that value.
  long Reset() {
    const long now = ReadStatusKb("RssAnon:");
    peak_ = now;
    return now;
  }
  long Peak() {
    Sample();
    return peak_;
  }

 private:
  void Sample() {
    const long now = ReadStatusKb("RssAnon:");
    long seen = peak_.load();
    while (now > seen && !peak_.compare_exchange_weak(seen, now)) {
    }
  }
  void Run() {
    while (!stop_) {
      Sample();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  std::atomic<bool> stop_{false};
  std::atomic<long> peak_{0};
  std::thread thread_;
};

AnonSampler* g_anon = nullptr;

struct PhaseResult {
  const char* name;
  size_t items;
  double seconds;
  long peakKb;      // resident, mapped table pages included
  long anonBeforeKb;
  long anonPeakKb;  // the process's own memory
  double rate() const { return seconds > 0 ? items / seconds : 0; }
};

class Phase {
 public:
  explicit Phase(const char* name) : name_(name) {
    ResetPeak();
    anonBefore_ = g_anon->Reset();
    start_ = std::chrono::steady_clock::now();
  }
  PhaseResult Finish(size_t items) {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    PhaseResult result{name_, items, seconds, ReadStatusKb("VmHWM:"), anonBefore_,
                       g_anon->Peak()};
    std::printf(
        "%-9s %9zu entries %9.3f s %12.0f entries/s   peak own memory %7.1f MB (+%.1f MB)"
        "   peak RSS %7.1f MB\n",
        result.name, result.items, result.seconds, result.rate(), result.anonPeakKb / 1024.0,
        (result.anonPeakKb - result.anonBeforeKb) / 1024.0, result.peakKb / 1024.0);
    std::fflush(stdout);
    return result;
  }

 private:
  const char* name_;
  long anonBefore_;
  std::chrono::steady_clock::time_point start_;
};

void Check(const CKoError& err, const char* what) {
  if (err.IsError()) {
    std::fprintf(stderr, "%s failed:\n%s\n", what, err.AsString().c_str());
    std::exit(1);
  }
}

// Picks disjoint folders, in breadth-first order, whose sub-trees (the
// folder included) add up to about `target` entries.
std::vector<int> ChooseTenth(Tree& tree, size_t target) {
  std::vector<int> picked;
  size_t total = 0;
  for (size_t i = 1; i < tree.folders.size() && total < target; ++i) {
    Folder& folder = tree.folders[i];
    const size_t size = folder.descendants + 1;
    if (folder.chosen || folder.hasChosenBelow || total + size > target) continue;
    bool underChosen = false;
    for (int up = folder.parent; up >= 0; up = tree.folders[up].parent)
      if (tree.folders[up].chosen) underChosen = true;
    if (underChosen) continue;
    folder.chosen = true;
    for (int up = folder.parent; up >= 0; up = tree.folders[up].parent)
      tree.folders[up].hasChosenBelow = true;
    picked.push_back(static_cast<int>(i));
    total += size;
  }
  return picked;
}

Options Parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    const char* value = argv[i + 1];
    if (flag == "--entries")
      options.entries = std::strtoull(value, nullptr, 10);
    else if (flag == "--dir")
      options.dir = value;
    else if (flag == "--csv")
      options.csv = value;
    else if (flag == "--seed")
      options.seed = static_cast<unsigned>(std::strtoul(value, nullptr, 10));
    else {
      std::fprintf(stderr, "unknown option %s\n", flag.c_str());
      std::exit(2);
    }
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  AnonSampler anon;
  g_anon = &anon;
  const size_t n = options.entries;
  char pattern[4096];
  std::snprintf(pattern, sizeof pattern, "%s/wz-tree-bench-XXXXXX", options.dir.c_str());
  if (!mkdtemp(pattern)) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string dbDir = pattern;
  std::printf("tree benchmark: %zu entries, database in %s\n", n, dbDir.c_str());

  std::vector<PhaseResult> results;
  {
    auto db = boost::make_shared<WzScanDB>(boost::make_shared<WzScanDBRecord>());
    Check(db->initialize(dbDir), "initialize");
    const unsigned long long kScanTime = 1700000000ULL;
    const unsigned long long kLateTime = kScanTime + 3600;
    db->setRefTime(kScanTime);
    WzScanDBRecordBasePtr root = db->getRoot()->Clone();
    Check(db->addFolder(root), "addFolder(root)");

    // build: breadth-first, each folder gets 3..30 files and 0..5 folders.
    Tree tree;
    tree.folders.push_back(Folder{"/", -1, 0});
    std::mt19937 rng(options.seed);
    std::uniform_int_distribution<int> fileCount(3, 30);
    std::uniform_int_distribution<int> folderCount(0, 5);
    std::deque<int> queue{0};
    size_t made = 0;
    Phase build("build");
    while (made < n && !queue.empty()) {
      const int f = queue.front();
      queue.pop_front();
      const int files = fileCount(rng);
      int subFolders = folderCount(rng);
      if (queue.empty() && subFolders == 0) subFolders = 1;  // keep the tree growing
      size_t index = 0;
      for (int i = 0; i < files + subFolders && made < n; ++i, ++index) {
        const bool isDir = i >= files;
        const std::string path = Join(tree.folders[f].path, MakeName(rng, index, isDir));
        if (made == n - n / 10) db->setRefTime(kLateTime);  // the last tenth is "recent"
        auto record = boost::make_shared<WzScanDBRecord>(path, isDir, 0);
        Check(isDir ? db->addFolder(record) : db->addFile(record), "add");
        ++made;
        for (int up = f; up >= 0; up = tree.folders[up].parent) ++tree.folders[up].descendants;
        if (isDir) {
          tree.folders.push_back(Folder{path, f, 0});
          queue.push_back(static_cast<int>(tree.folders.size() - 1));
        } else {
          ++tree.files;
        }
      }
    }
    results.push_back(build.Finish(made));
    db->setRefTime(kScanTime);

    {
      // Baseline for the reads: the engine's own walk over every record.
      Phase scan("scan");
      WzScanDBRecordBasePtr probe = root->Clone();
      size_t scanned = 0;
      for (int status = db->firstRecord(-1, probe->getStructure()); status == 0;
           status = db->nextRecord(-1, probe->getStructure()))
        ++scanned;
      results.push_back(scan.Finish(scanned));
    }

    {
      Phase walk("walk");
      WzScanDBRecordBasePtr item;
      std::string path;
      size_t items = 0;
      CKoError err = db->getFirstItem(root, item, path);
      while (err.IsSuccess()) {
        ++items;
        err = db->getNextItem(item, path);
      }
      results.push_back(walk.Finish(items));
      if (items != made) std::fprintf(stderr, "walk returned %zu of %zu items\n", items, made);
    }
    {
      Phase children("children");
      std::vector<WzScanDBRecordBasePtr> list;
      size_t listed = 0;
      for (const Folder& folder : tree.folders) {
        Check(db->getChildren(boost::make_shared<WzScanDBRecord>(folder.path), list),
              "getChildren");
        listed += list.size();
      }
      results.push_back(children.Finish(listed));
    }
    {
      // Baseline for children and walk: the engine alone reading the children
      // of every folder, one run per folder into one reused buffer.
      struct Counter : TCtreeTable::RunReceiver {
        explicit Counter(void* image) : image(image) {}
        void* buffer() override { return image; }
        bool take() override {
          ++taken;
          return true;
        }
        void* image;
        size_t taken = 0;
      };
      WzScanDBRecordBasePtr probe = root->Clone();
      Counter counter(probe->getStructure());
      std::vector<WzScanDBRecordBasePtr> folders;
      for (const Folder& folder : tree.folders)
        folders.push_back(boost::make_shared<WzScanDBRecord>(folder.path));
      std::vector<char> key(512);
      Phase runs("runs");
      for (const WzScanDBRecordBasePtr& folder : folders) {
        SPrepareIndexKeyStructure request = folder->prepareIndexKeyFromParent();
        Check(db->prepareIndexKey(request, key.data(), static_cast<int>(key.size())), "key");
        db->readRun(folder->parentIndex(), key.data(), kParentIdBytes, counter);
      }
      results.push_back(runs.Finish(counter.taken));
    }
    {
      Phase validate("validate");
      bool consistent = false;
      Check(db->validateTree(consistent), "validateTree");
      results.push_back(validate.Finish(made + 1));
      if (!consistent) std::fprintf(stderr, "validateTree found the tree inconsistent\n");
    }
    {
      Phase updated("updated");
      std::vector<WzScanDBRecordBasePtr> recent;
      Check(db->getUpdatedRecords(&recent, kLateTime), "getUpdatedRecords");
      results.push_back(updated.Finish(made + 1));
      std::printf("          (%zu records updated since the late reference time)\n",
                  recent.size());
    }
    {
      std::vector<int> picked = ChooseTenth(tree, made / 10);
      size_t moved = 0;
      Phase rename("rename");
      for (size_t k = 0; k < picked.size(); ++k) {
        const Folder& folder = tree.folders[picked[k]];
        const std::string newPath = "/renamed-" + std::to_string(k);
        Check(db->renameFolder(boost::make_shared<WzScanDBRecord>(folder.path),
                               boost::make_shared<WzScanDBRecord>(newPath, true, 0), folder.path,
                               newPath),
              "renameFolder");
        moved += folder.descendants + 1;
      }
      results.push_back(rename.Finish(moved));
    }
    {
      std::vector<int> picked = ChooseTenth(tree, made / 10);
      size_t removed = 0;
      Phase remove("remove");
      for (int f : picked) {
        const Folder& folder = tree.folders[f];
        Check(db->removeFolder(boost::make_shared<WzScanDBRecord>(folder.path)), "removeFolder");
        removed += folder.descendants + 1;
      }
      results.push_back(remove.Finish(removed));
    }
    Check(db->close(), "close");
  }
  {
    // Baseline for the writes: the same number of records of the same type,
    // added with addRecordWithoutCheck (no lookup) to a second database.
    const std::string rawDir = dbDir + "/raw";
    std::filesystem::create_directory(rawDir);
    auto raw = boost::make_shared<WzScanDB>(boost::make_shared<WzScanDBRecord>());
    Check(raw->initialize(rawDir), "initialize(raw)");
    std::mt19937 rng(options.seed + 1);
    Phase rawAdd("raw-add");
    for (size_t i = 0; i < n; ++i) {
      const std::string folder = "/raw-" + std::to_string(i / 20);
      auto record = boost::make_shared<WzScanDBRecord>(Join(folder, MakeName(rng, i, false)),
                                                       false, 0);
      Check(raw->addRecordWithoutCheck(record), "addRecordWithoutCheck");
    }
    results.push_back(rawAdd.Finish(n));
    Check(raw->close(), "close(raw)");
  }
  std::error_code ignored;
  std::filesystem::remove_all(dbDir, ignored);

  // Ratios against the baselines of this run, which share the machine's load.
  auto rateOf = [&](const char* name) {
    for (const PhaseResult& r : results)
      if (std::strcmp(r.name, name) == 0) return r.rate();
    return 0.0;
  };
  std::printf("ratios against this run's baselines (engine scan, engine add without lookup):\n");
  for (const char* name : {"walk", "children", "runs", "validate", "updated"})
    std::printf("  %-9s %.3f x scan\n", name, rateOf(name) / rateOf("scan"));
  for (const char* name : {"walk", "children"})
    std::printf("  %-9s %.3f x runs (the engine alone reading every folder's children)\n", name,
                rateOf(name) / rateOf("runs"));
  for (const char* name : {"build", "rename", "remove"})
    std::printf("  %-9s %.3f x raw-add\n", name, rateOf(name) / rateOf("raw-add"));

  if (!options.csv.empty()) {
    const bool fresh = !std::filesystem::exists(options.csv);
    std::ofstream csv(options.csv, std::ios::app);
    if (fresh) {
      csv << "entries";
      for (const PhaseResult& r : results) csv << ',' << r.name;
      csv << ",peak_own_memory_mb\n";
    }
    long peak = 0;
    csv << n;
    for (const PhaseResult& r : results) {
      csv << ',' << static_cast<long long>(r.rate());
      peak = std::max(peak, r.anonPeakKb);
    }
    csv << ',' << peak / 1024 << '\n';
  }
  return 0;
}
