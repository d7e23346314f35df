// ls, walk and path: one folder, everything below a folder, one entry.
#include <cstdio>
#include <memory>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "DatabaseCommand.h"
#include "EntryJson.h"
#include "PathResolver.h"
#include "TableReader.h"
#include "ToolError.h"
#include "TreeWalker.h"

namespace {

const std::vector<RecordType> kTreeTypes = {RecordType::kGeneric, RecordType::kLustre};

struct ListArguments : DatabaseArguments {
  std::string path = "/";
};

// "d       4096 2026-11-22 03:12:00 ref 1763781120 name": kind, size,
// modification time (UTC), reference time, name.
std::string EntryLine(const ImageView& entry, const std::string& name) {
  struct stat st = entry.stat();
  char head[96];
  std::snprintf(head, sizeof(head), "%c %12lld %s ref %u ", KindLetter(st, entry.isDir()),
                static_cast<long long>(st.st_size), UtcTime(st.st_mtim.tv_sec).c_str(), entry.ref());
  return head + name;
}

// The text form, the bare path (or name) with -0, the entry's fields with --json.
void PrintEntry(OutputMode mode, const ImageView& entry, const std::string& text,
                const std::string& path) {
  if (mode == OutputMode::kJson)
    OutputLine(mode, JsonLine(EntryJson(path, entry.stat(), entry.isDir(), entry.ref())));
  else
    OutputLine(mode, mode == OutputMode::kNull ? path : text);
}

int RunLs(const ListArguments& args) {
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kReadOnly);
  TableReader reader(database);
  std::vector<char> folder = FindFolderImage(database, args.path);
  ImageList children;
  reader.ReadChildren(folder.data(), children);
  for (size_t i = 0; i < children.size(); ++i) {
    ImageView child(reader.layout(), children.at(i));
    if (child.name().empty()) {  // "/" below a Lustre root: list its children instead
      ImageList more;
      reader.ReadChildren(children.at(i), more);
      for (size_t j = 0; j < more.size(); ++j) {
        ImageView entry(reader.layout(), more.at(j));
        std::string name(entry.name());
        PrintEntry(args.output, entry, EntryLine(entry, name), name);
      }
      continue;
    }
    std::string name(child.name());
    PrintEntry(args.output, child, EntryLine(child, name), name);
  }
  database.Close();
  return kExitOk;
}

// Relative paths below the start; folders end in "/" in the text forms.
class WalkPrinter : public TreeVisitor {
 public:
  explicit WalkPrinter(OutputMode mode) : mode_(mode) {}
  bool Entry(const std::string& path, const ImageView& entry, int) override {
    PrintEntry(mode_, entry, entry.isDir() ? path + "/" : path, path);
    return true;
  }

 private:
  OutputMode mode_;
};

int RunWalk(const ListArguments& args) {
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kReadOnly);
  TableReader reader(database);
  std::vector<char> start = FindFolderImage(database, args.path);
  WalkPrinter printer(args.output);
  WalkTree(reader, start.data(), printer);
  database.Close();
  return kExitOk;
}

int RunPath(const ListArguments& args) {
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kReadOnly);
  TableReader reader(database);
  std::vector<char> image = FindImage(database, args.path);
  PathResolver resolver(reader);
  std::string path;
  if (!resolver.PathOf(image.data(), path))
    throw ToolError(kExitFailed, NormalizeEntryPath(args.path) +
                                     " is in the database, but a folder above it is missing (" +
                                     path + ")");
  ImageView entry(reader.layout(), image.data());
  PrintEntry(args.output, entry, path, path);
  database.Close();
  return kExitOk;
}

}  // namespace

void AddListCommands(CLI::App& app, CommandTable& table) {
  auto ls = std::make_shared<ListArguments>();
  CLI::App* lsCommand = AddDatabaseCommand(
      app, "ls",
      "List a folder's children: kind (d f l c b p s), size, modification time (UTC), "
      "reference time, name",
      *ls, kTreeTypes);
  lsCommand->add_option("PATH", ls->path, "Folder to list (default /)");
  AddOutputOptions(lsCommand, ls->output);
  table[lsCommand] = [ls] { return RunLs(*ls); };

  auto walk = std::make_shared<ListArguments>();
  CLI::App* walkCommand = AddDatabaseCommand(
      app, "walk",
      "Print everything below a folder by relative path (folders end in /): a folder's "
      "children in name order, then the contents of each sub-folder",
      *walk, kTreeTypes);
  walkCommand->add_option("PATH", walk->path, "Folder to walk (default /)");
  AddOutputOptions(walkCommand, walk->output);
  table[walkCommand] = [walk] { return RunWalk(*walk); };

  auto path = std::make_shared<ListArguments>();
  CLI::App* pathCommand = AddDatabaseCommand(
      app, "path", "Look a path up and rebuild its full path from the parent links", *path,
      kTreeTypes);
  pathCommand->add_option("PATH", path->path, "Path of the entry")->required();
  AddOutputOptions(pathCommand, path->output);
  table[pathCommand] = [path] { return RunPath(*path); };
}
