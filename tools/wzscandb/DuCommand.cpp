// du: sizes and counts per folder from the database, like du(1): each folder
// after everything below it, with the size of its whole sub-tree (itself
// included). Streams through a depth-first walk: memory grows with the depth
// of the tree, not its size. A file with several hard links counts once per
// link.
#include <cstdio>
#include <memory>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "DatabaseCommand.h"
#include "EntryJson.h"
#include "Numbers.h"
#include "PathJoin.h"
#include "TableReader.h"
#include "ToolError.h"
#include "TreeWalker.h"

namespace {

struct DuArguments : DatabaseArguments {
  std::string path = "/";
  uint64_t maxDepth = 0;
  bool depthGiven = false;
  bool summarize = false;
  bool apparent = false;
};

struct Totals {
  uint64_t bytes = 0, entries = 0, folders = 0, files = 0;
  void Add(const Totals& other) {
    bytes += other.bytes;
    entries += other.entries;
    folders += other.folders;
    files += other.files;
  }
};

class DuPrinter : public TreeVisitor {
 public:
  DuPrinter(const DuArguments& args, const std::string& start, int printDepth)
      : args_(args), start_(start), printDepth_(printDepth) {}

  bool Entry(const std::string&, const ImageView& entry, int depth) override {
    // A folder counts itself when it is done, with everything below it.
    if (!entry.isDir()) Count(entry, depth - 1);
    return true;
  }

  void FolderDone(const std::string& path, const ImageView& folder, int depth) override {
    Count(folder, depth);
    Totals done = Level(depth);
    levels_[depth] = Totals();
    if (depth > 0) Level(depth - 1).Add(done);
    if (printDepth_ >= 0 && depth > printDepth_) return;
    Print(JoinPath(start_, path), done);
  }

 private:
  Totals& Level(int depth) {
    if (levels_.size() <= static_cast<size_t>(depth)) levels_.resize(depth + 1);
    return levels_[depth];
  }
  // Adds `entry` to the totals of the folder at `depth`.
  void Count(const ImageView& entry, int depth) {
    struct stat st = entry.stat();
    Totals& level = Level(depth);
    level.bytes += args_.apparent ? static_cast<uint64_t>(st.st_size)
                                  : static_cast<uint64_t>(st.st_blocks) * 512;
    ++level.entries;
    if (entry.isDir())
      ++level.folders;
    else
      ++level.files;
  }
  void Print(const std::string& path, const Totals& totals) {
    if (args_.output == OutputMode::kJson) {
      nlohmann::json object;
      PutPath(object, "path", path);
      object["size"] = totals.bytes;
      object["entries"] = totals.entries;
      object["folders"] = totals.folders;
      object["files"] = totals.files;
      OutputLine(args_.output, JsonLine(object));
    } else {
      OutputLine(args_.output, std::to_string(totals.bytes) + "\t" +
                                   std::to_string(totals.entries) + "\t" + path);
    }
  }

  const DuArguments& args_;
  std::string start_;
  int printDepth_;
  std::vector<Totals> levels_;
};

int RunDu(const DuArguments& args) {
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kReadOnly);
  TableReader reader(database);
  std::vector<char> start = FindImage(database, args.path);
  ImageView top(reader.layout(), start.data());
  int printDepth = args.summarize ? 0 : args.depthGiven ? static_cast<int>(args.maxDepth) : -1;
  DuPrinter printer(args, NormalizeEntryPath(args.path), printDepth);
  if (top.isDir() || top.isTop())
    WalkTree(reader, start.data(), printer);
  else
    printer.FolderDone("", top, 0);
  database.Close();
  return kExitOk;
}

}  // namespace

void AddDuCommand(CLI::App& app, CommandTable& table) {
  auto du = std::make_shared<DuArguments>();
  CLI::App* command = AddDatabaseCommand(
      app, "du",
      "Disk usage per folder from the database, like du: \"<bytes>\\t<entries>\\t<path>\", "
      "each folder after its contents, sizes of whole sub-trees",
      *du, {RecordType::kGeneric, RecordType::kLustre});
  command->add_option("PATH", du->path, "Folder to sum up (default /)");
  auto depth = AddCountOption(command, "-d,--max-depth", du->maxDepth,
                              "Print only folders at most N levels below PATH", &du->depthGiven,
                              1 << 20);
  command->add_flag("-s,--summarize", du->summarize, "Print PATH only (same as -d 0)")->excludes(depth);
  command->add_flag("--apparent-size", du->apparent,
                    "Sum the sizes of the entries instead of the disk blocks they use");
  AddOutputOptions(command, du->output);
  table[command] = [du] { return RunDu(*du); };
}
