#include "DatabaseCommand.h"

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "EntryJson.h"
#include "ToolError.h"

CLI::App* AddDatabaseCommand(CLI::App& app, const char* name, const char* description,
                             DatabaseArguments& args, const std::vector<RecordType>& types) {
  CLI::App* command = app.add_subcommand(name, description);
  command->add_option("DBDIR", args.directory, "Directory of the scan database")->required();
  AddTypeOption(command, args.type, types);
  return command;
}

std::vector<char> FindImage(ScanDatabase& database, const std::string& path) {
  const RecordLayout& layout = RecordLayout::Of(database.type());
  WzScanDBRecordBasePtr record = database.FindPath(path);
  const char* image = static_cast<const char*>(record->getStructure());
  return std::vector<char>(image, image + layout.size);
}

std::vector<char> FindFolderImage(ScanDatabase& database, const std::string& path) {
  std::vector<char> image = FindImage(database, path);
  ImageView view(RecordLayout::Of(database.type()), image.data());
  if (!view.isDir() && !view.isTop())
    throw ToolError(kExitNotFound, NormalizeEntryPath(path) + " is a " +
                                       KindName(view.stat(), false) + ", not a folder");
  return image;
}
