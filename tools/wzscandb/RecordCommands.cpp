// guid, record and fid: what the library makes of a path, without a database.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "RecordTypes.h"
#include "ToolError.h"
#include "WzScanDB/records/WzScanDBKeyGUID.h"
#include "lustre/GetFIDFromPath.h"

namespace {

struct PathArguments {
  std::string path;
  bool isDir = false;
  unsigned long long refTime = 0;
};

int RunGuid(const PathArguments& args) {
  std::cout << WzScanDBKeyGUID(args.path).toString() << "\n";
  return kExitOk;
}

// The generic record of the path as a scan would make it: when the entry
// exists, its status and (unless --dir says so) its kind come from lstat.
int RunRecord(const PathArguments& args) {
  struct stat st;
  bool exists = ::lstat(args.path.c_str(), &st) == 0;
  bool isDir = args.isDir || (exists && S_ISDIR(st.st_mode));
  WzScanDBRecordBasePtr record = MakeEntryRecord(RecordType::kGeneric, args.path, isDir, args.refTime);
  if (exists) SetStat(RecordType::kGeneric, *record, st);
  std::cout << record->toString() << "\n" << record->toCSVHeader() << "\n" << record->toCSV() << "\n";
  return kExitOk;
}

int RunFid(const PathArguments& args) {
  LustreAPI::CLustreFID fid;
  int status = LustreAPI::GetFIDFromPath(args.path, fid);
  if (status == -ENOTTY)
    throw ToolError(kExitNotFound, args.path + " is not on a Lustre file system (no FID)");
  if (status == -ENOENT)
    throw ToolError(kExitNotFound, "cannot get the FID of " + args.path + ": " + std::strerror(-status));
  if (status != 0)
    throw ToolError(kExitFailed, "cannot get the FID of " + args.path + ": " + std::strerror(-status));
  std::cout << fid.toString() << "\n";
  return kExitOk;
}

}  // namespace

void AddRecordCommands(CLI::App& app, CommandTable& table) {
  auto guidArgs = std::make_shared<PathArguments>();
  CLI::App* guid = app.add_subcommand("guid", "Print the GUID of a path (MD5 of its text, as given)");
  guid->add_option("PATH", guidArgs->path, "The path text")->required();
  table[guid] = [guidArgs] { return RunGuid(*guidArgs); };

  auto recordArgs = std::make_shared<PathArguments>();
  CLI::App* record = app.add_subcommand(
      "record", "Print the generic record of a path: its text form, CSV header and CSV line");
  record->add_option("PATH", recordArgs->path, "The path (its status is read when it exists)")
      ->required();
  record->add_flag("--dir", recordArgs->isDir, "Mark the record as a folder");
  record->add_option("--ref-time", recordArgs->refTime, "Reference time to store (default 0)")
      ->type_name("N");
  table[record] = [recordArgs] { return RunRecord(*recordArgs); };

  auto fidArgs = std::make_shared<PathArguments>();
  CLI::App* fid = app.add_subcommand("fid", "Print the Lustre FID of a path");
  fid->add_option("PATH", fidArgs->path, "A path on a Lustre file system")->required();
  table[fid] = [fidArgs] { return RunFid(*fidArgs); };
}
