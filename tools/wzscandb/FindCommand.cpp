// find: the entries at and below a folder of the database that pass the
// given tests (FindTests.h), by full path in walk order: the start first,
// then each folder's children in name order before the contents of its
// sub-folders. find(1)'s single-dash spellings (-name, -type, -print0, ...)
// are accepted besides the double-dash ones.
#include <ctime>
#include <memory>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "DatabaseCommand.h"
#include "EntryJson.h"
#include "FindTests.h"
#include "Numbers.h"
#include "PathJoin.h"
#include "TableReader.h"
#include "ToolError.h"
#include "TreeWalker.h"

namespace {

struct FindArguments : DatabaseArguments {
  std::string path = "/";
  std::string name, iname, pathGlob, kinds, size, mmin, mtime, newer;
  uint64_t maxDepth = 0, minDepth = 0;
  bool maxDepthGiven = false;
};

class FindPrinter : public TreeVisitor {
 public:
  FindPrinter(const FindArguments& args, const FindTests& tests, const std::string& start)
      : args_(args), tests_(tests), start_(start) {}

  bool Entry(const std::string& path, const ImageView& entry, int depth) override {
    Consider(JoinPath(start_, path), entry, depth);
    return true;
  }
  void Consider(const std::string& full, const ImageView& entry, int depth) {
    if (static_cast<uint64_t>(depth) < args_.minDepth) return;
    struct stat st = entry.stat();
    std::string name = full.substr(full.rfind('/') + 1);
    if (!tests_.Matches(name.empty() ? full : name, full, st, entry.isDir())) return;
    if (args_.output == OutputMode::kJson)
      OutputLine(args_.output, JsonLine(EntryJson(full, st, entry.isDir(), entry.ref())));
    else
      OutputLine(args_.output, full);
  }

 private:
  const FindArguments& args_;
  const FindTests& tests_;
  std::string start_;
};

int RunFind(const FindArguments& args) {
  FindTests tests(std::time(nullptr));
  if (!args.name.empty()) tests.SetName(args.name, false);
  if (!args.iname.empty()) tests.SetName(args.iname, true);
  if (!args.pathGlob.empty()) tests.SetPath(args.pathGlob);
  if (!args.kinds.empty()) tests.SetType(args.kinds);
  if (!args.size.empty()) tests.SetSize(args.size);
  if (!args.mmin.empty()) tests.SetMmin(args.mmin);
  if (!args.mtime.empty()) tests.SetMtime(args.mtime);
  if (!args.newer.empty()) tests.SetNewer(args.newer);

  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kReadOnly);
  TableReader reader(database);
  std::vector<char> start = FindImage(database, args.path);
  ImageView top(reader.layout(), start.data());
  std::string startPath = NormalizeEntryPath(args.path);
  FindPrinter printer(args, tests, startPath);
  printer.Consider(startPath, top, 0);
  bool descend = (top.isDir() || top.isTop()) && !(args.maxDepthGiven && args.maxDepth == 0);
  if (descend)
    WalkTree(reader, start.data(), printer,
             args.maxDepthGiven ? static_cast<int>(args.maxDepth) : -1);
  database.Close();
  return kExitOk;
}

}  // namespace

std::string FindOptionWord(const std::string& word) {
  static const char* const kWords[][2] = {
      {"-name", "--name"},   {"-iname", "--iname"}, {"-path", "--path"},
      {"-type", "--kind"},   {"-size", "--size"},   {"-mmin", "--mmin"},
      {"-mtime", "--mtime"}, {"-newer", "--newer"}, {"-print0", "--print0"},
      {"-maxdepth", "--maxdepth"}, {"-mindepth", "--mindepth"}};
  for (const auto& pair : kWords)
    if (word == pair[0]) return pair[1];
  return word;
}

void AddFindCommand(CLI::App& app, CommandTable& table) {
  auto find = std::make_shared<FindArguments>();
  CLI::App* command = AddDatabaseCommand(
      app, "find",
      "Print the full paths of the entries at and below PATH that pass every test given, "
      "as find(1) does, from the database",
      *find, {RecordType::kGeneric, RecordType::kLustre});
  command->add_option("PATH", find->path, "Where to start (default /)");
  command->add_option("--name", find->name, "Name matches GLOB")->type_name("GLOB");
  command->add_option("--iname", find->iname, "Name matches GLOB, ignoring case")->type_name("GLOB");
  command->add_option("--path", find->pathGlob, "Full path matches GLOB")->type_name("GLOB");
  command->add_option("--kind", find->kinds, "Kind is one of f d l c b p s, comma-separated (find's -type)")
      ->type_name("KINDS");
  command->add_option("--size", find->size,
                      "Size in 512-byte units (suffix c bytes, k KiB, M MiB, G GiB) is more "
                      "than +N, less than -N, or N")
      ->type_name("[+-]N[ckMG]");
  command->add_option("--mmin", find->mmin, "Modified more than +N, less than -N, or N minutes ago")
      ->type_name("[+-]N");
  command->add_option("--mtime", find->mtime, "Modified more than +N, less than -N, or N days ago")
      ->type_name("[+-]N");
  command->add_option("--newer", find->newer, "Modified after FILE (on the file system) was")
      ->type_name("FILE");
  AddCountOption(command, "--maxdepth", find->maxDepth, "Descend at most N levels below PATH",
                 &find->maxDepthGiven, 1 << 20);
  AddCountOption(command, "--mindepth", find->minDepth, "Print nothing above N levels below PATH",
                 nullptr, 1 << 20);
  command->add_flag_callback("-0,--null,--print0", [find] { find->output = OutputMode::kNull; },
                             "End each path with a NUL byte instead of a newline");
  command->add_flag_callback("--json", [find] { find->output = OutputMode::kJson; },
                             "Write one JSON object per line");
  table[command] = [find] { return RunFind(*find); };
}
