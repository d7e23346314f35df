// stats: counts and sizes of a database, streamed (no list of records).
//
// Without PATH it counts every record of the table in its physical order,
// the root and the folders above the scanned trees included. With PATH it
// counts PATH and everything below it, as the summary of a scan of PATH does.
// Then the sizes of the two table files: on disk (allocated blocks) and as
// their length.
#include <sys/stat.h>

#include <cstdio>
#include <memory>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "DatabaseCommand.h"
#include "EntryJson.h"
#include "TableReader.h"
#include "ToolError.h"
#include "TreeWalker.h"

namespace {

struct StatsArguments : DatabaseArguments {
  std::string path;
};

struct Counts {
  uint64_t entries = 0, folders = 0, files = 0, symlinks = 0, other = 0, bytes = 0;
  uint32_t oldest = UINT32_MAX, newest = 0;

  void Add(const ImageView& entry) {
    struct stat st = entry.stat();
    ++entries;
    if (entry.isDir()) {
      ++folders;
    } else {
      ++files;
      if (S_ISLNK(st.st_mode)) ++symlinks;
      else if ((st.st_mode & S_IFMT) != 0 && !S_ISREG(st.st_mode)) ++other;
      bytes += static_cast<uint64_t>(st.st_size);
    }
    if (entry.ref() < oldest) oldest = entry.ref();
    if (entry.ref() > newest) newest = entry.ref();
  }
};

class Counter : public TreeVisitor {
 public:
  explicit Counter(Counts& counts) : counts_(counts) {}
  bool Entry(const std::string&, const ImageView& entry, int) override {
    counts_.Add(entry);
    return true;
  }

 private:
  Counts& counts_;
};

struct FileSize {
  long long length = -1, onDisk = -1;
};

FileSize SizeOf(const std::string& path) {
  FileSize size;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) {
    size.length = st.st_size;
    size.onDisk = static_cast<long long>(st.st_blocks) * 512;
  }
  return size;
}

int RunStats(const StatsArguments& args) {
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kReadOnly);
  Counts counts;
  if (!HasTree(args.type)) {
    if (!args.path.empty())
      throw ToolError(kExitNotFound, "a backup-time database has no paths to count below");
    int64_t records = database.db().numberOfRecords();
    if (records < 0)
      throw ToolError(kExitFailed, "cannot count the records: engine status " + std::to_string(-records));
    counts.entries = static_cast<uint64_t>(records);
  } else if (args.path.empty()) {
    TableReader reader(database);
    reader.ForEachRecord([&](const char* image) { counts.Add(ImageView(reader.layout(), image)); });
  } else {
    TableReader reader(database);
    std::vector<char> start = FindImage(database, args.path);
    ImageView top(reader.layout(), start.data());
    counts.Add(top);
    if (top.isDir() || top.isTop()) {
      Counter counter(counts);
      WalkTree(reader, start.data(), counter);
    }
  }
  database.Close();

  FileSize data = SizeOf(args.directory + "/WzScanDB.dat");
  FileSize index = SizeOf(args.directory + "/WzScanDB.idx");
  if (args.output == OutputMode::kJson) {
    nlohmann::json object{{"entries", counts.entries},
                          {"folders", counts.folders},
                          {"files", counts.files},
                          {"symlinks", counts.symlinks},
                          {"other", counts.other},
                          {"bytes", counts.bytes},
                          {"data_file_bytes", data.length},
                          {"data_file_disk_bytes", data.onDisk},
                          {"index_file_bytes", index.length},
                          {"index_file_disk_bytes", index.onDisk}};
    if (counts.entries && HasTree(args.type)) {
      object["oldest_ref"] = counts.oldest;
      object["newest_ref"] = counts.newest;
    }
    if (!args.path.empty()) PutPath(object, "path", NormalizeEntryPath(args.path));
    OutputLine(args.output, JsonLine(object));
    return kExitOk;
  }
  if (!args.path.empty()) std::printf("below and including %s\n", NormalizeEntryPath(args.path).c_str());
  std::printf("entries %llu, folders %llu, files %llu (symlinks %llu, other %llu), bytes %llu\n",
              static_cast<unsigned long long>(counts.entries),
              static_cast<unsigned long long>(counts.folders),
              static_cast<unsigned long long>(counts.files),
              static_cast<unsigned long long>(counts.symlinks),
              static_cast<unsigned long long>(counts.other),
              static_cast<unsigned long long>(counts.bytes));
  if (counts.entries && HasTree(args.type))
    std::printf("reference times %u to %u\n", counts.oldest, counts.newest);
  std::printf("data file %lld bytes on disk (length %lld), index file %lld bytes on disk (length %lld)\n",
              data.onDisk, data.length, index.onDisk, index.length);
  return kExitOk;
}

}  // namespace

void AddStatsCommand(CLI::App& app, CommandTable& table) {
  auto stats = std::make_shared<StatsArguments>();
  CLI::App* command = AddDatabaseCommand(
      app, "stats",
      "Count entries, folders and files: every record of the table, or PATH and everything "
      "below it (as a scan of PATH counts them); sizes of the table files",
      *stats);
  command->add_option("PATH", stats->path, "Count this entry and everything below it");
  command->add_flag_callback("--json", [stats] { stats->output = OutputMode::kJson; },
                             "Write one JSON object");
  table[command] = [stats] { return RunStats(*stats); };
}
