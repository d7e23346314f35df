// copy, move, remove and rebuild-index: whole databases and their indexes.
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "ScanDatabase.h"
#include "KeptReport.h"
#include "ToolError.h"

namespace {

const std::vector<RecordType> kAllTypes = {RecordType::kGeneric, RecordType::kLustre,
                                           RecordType::kBackupTime};

struct FileArguments {
  std::string source;
  std::string destination;
  RecordType type = RecordType::kGeneric;
};

// The file operations work on closed databases and do not look for other
// users themselves. Opening the database once shows whether another process
// holds it; files of another record type than --type are tried as the other
// types, since any successful open proves the files free.
void RequireNotInUse(const std::string& directory, RecordType preferred) {
  std::vector<RecordType> order = {preferred};
  for (RecordType type : kAllTypes)
    if (type != preferred) order.push_back(type);
  std::string lastRefusal;
  for (RecordType type : order) {
    try {
      ScanDatabase probe(directory, type, ScanDatabase::Mode::kExisting);
      probe.Close();
      return;
    } catch (const WrongRecordType& e) {
      lastRefusal = e.what();
    }
  }
  throw WrongRecordType(lastRefusal);
}

void RequireNoDatabase(const std::string& directory) {
  struct stat st;
  if (::stat((directory + "/WzScanDB.dat").c_str(), &st) == 0 ||
      ::stat((directory + "/WzScanDB.idx").c_str(), &st) == 0)
    throw ToolError(kExitNotFound, directory + " already holds a scan database (remove it first)");
}

void MakeDirectory(const std::string& directory) {
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  if (ec) throw ToolError(kExitFailed, "cannot create directory " + directory + ": " + ec.message());
}

// The last scan's change report goes with the database files (the library
// moves and copies only those).
void CarryKeptReport(const std::string& from, const std::string& to, bool move) {
  std::error_code error;
  const std::string source = KeptReportPath(from);
  if (!std::filesystem::exists(source, error)) return;
  if (move)
    std::filesystem::rename(source, KeptReportPath(to), error);
  else
    std::filesystem::copy_file(source, KeptReportPath(to),
                               std::filesystem::copy_options::overwrite_existing, error);
  if (error)
    throw ToolError(kExitFailed, "cannot take the change report along to " + to + ": " + error.message());
}

int RunCopy(const FileArguments& args) {
  RequireDatabaseFiles(args.source);
  RequireNotInUse(args.source, args.type);
  RequireNoDatabase(args.destination);
  MakeDirectory(args.destination);
  ThrowIfError(WzScanDB::copy(args.source, args.destination),
               "cannot copy " + args.source + " to " + args.destination);
  CarryKeptReport(args.source, args.destination, false);
  std::printf("copied the database at %s to %s\n", args.source.c_str(), args.destination.c_str());
  return kExitOk;
}

int RunMove(const FileArguments& args) {
  RequireDatabaseFiles(args.source);
  RequireNotInUse(args.source, args.type);
  RequireNoDatabase(args.destination);
  MakeDirectory(args.destination);
  ThrowIfError(WzScanDB::move(args.source, args.destination),
               "cannot move " + args.source + " to " + args.destination);
  CarryKeptReport(args.source, args.destination, true);
  std::printf("moved the database at %s to %s\n", args.source.c_str(), args.destination.c_str());
  return kExitOk;
}

int RunRemove(const FileArguments& args) {
  RequireDatabaseFiles(args.source);
  RequireNotInUse(args.source, args.type);
  ThrowIfError(WzScanDB::remove(args.source), "cannot remove the database at " + args.source);
  std::error_code ignored;
  std::filesystem::remove(KeptReportPath(args.source), ignored);
  std::printf("removed the database at %s\n", args.source.c_str());
  return kExitOk;
}

int RunRebuildIndex(const FileArguments& args) {
  auto start = std::chrono::steady_clock::now();
  ScanDatabase database(args.source, args.type, ScanDatabase::Mode::kExisting);
  ThrowIfError(database.db().suspendIndex(), "cannot suspend indexing");
  ThrowIfError(database.db().rebuildIndex(), "cannot rebuild the index");
  database.Close();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("rebuilt the index of %s in %.2f s\n", args.source.c_str(), seconds);
  return kExitOk;
}

CLI::App* AddCommand(CLI::App& app, const char* name, const char* description,
                     FileArguments& args, bool twoDirectories) {
  CLI::App* command = app.add_subcommand(name, description);
  if (twoDirectories) {
    command->add_option("SRC", args.source, "Directory of the database")->required();
    command->add_option("DST", args.destination,
                        "Directory to receive it (created if missing; must hold no database)")
        ->required();
  } else {
    command->add_option("DBDIR", args.source, "Directory of the database")->required();
  }
  AddTypeOption(command, args.type, kAllTypes);
  return command;
}

}  // namespace

void AddFileCommands(CLI::App& app, CommandTable& table) {
  auto copy = std::make_shared<FileArguments>();
  table[AddCommand(app, "copy", "Copy a closed database's files to another directory", *copy, true)] =
      [copy] { return RunCopy(*copy); };
  auto move = std::make_shared<FileArguments>();
  table[AddCommand(app, "move", "Move a closed database's files to another directory", *move, true)] =
      [move] { return RunMove(*move); };
  auto remove = std::make_shared<FileArguments>();
  table[AddCommand(app, "remove", "Remove a closed database's files", *remove, false)] =
      [remove] { return RunRemove(*remove); };
  auto rebuild = std::make_shared<FileArguments>();
  table[AddCommand(app, "rebuild-index", "Suspend indexing, then rebuild every index", *rebuild,
                   false)] = [rebuild] { return RunRebuildIndex(*rebuild); };
}
