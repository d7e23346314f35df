// scan: records a directory tree into a scan database and reports the changes
// since the last scan of the same tree.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "ChangeReport.h"
#include "Commands.h"
#include "ScanDatabase.h"
#include "ScanProgress.h"
#include "ToolError.h"
#include "TreeScanner.h"
#include "lustre/GetFIDFromPath.h"

namespace {

struct ScanArguments {
  std::string dir;
  std::string database;
  RecordType type = RecordType::kGeneric;
  unsigned long long refTime = 0;
  bool refTimeGiven = false;
  uint64_t listLimit = 50;
};

std::string RealPath(const std::string& path) {
  char* real = ::realpath(path.c_str(), nullptr);
  if (!real) throw ToolError(kExitNotFound, "cannot scan " + path + ": " + std::strerror(errno));
  std::string text(real);
  std::free(real);
  return text;
}

// The reference time of this scan. Records below DIR older than it are the
// ones this scan did not meet, so it must be above the previous scan's.
unsigned long long ChooseRefTime(ScanDatabase& database, const std::string& dir,
                                 const ScanArguments& args) {
  unsigned long long previous = 0;
  WzScanDBRecordBasePtr stored = database.Lookup(MakeEntryRecord(database.type(), dir, true, 0));
  if (stored) previous = stored->getRefTime();
  if (args.refTimeGiven) {
    if (args.refTime > UINT32_MAX)
      throw ToolError(kExitNotFound, "--ref-time " + std::to_string(args.refTime) +
                                         " does not fit the records' 32-bit reference time");
    if (stored && args.refTime <= previous)
      throw ToolError(kExitNotFound, "--ref-time " + std::to_string(args.refTime) +
                                         " is not above " + std::to_string(previous) +
                                         ", the reference time of the last scan of " + dir);
    return args.refTime;
  }
  unsigned long long now = static_cast<unsigned long long>(std::time(nullptr));
  return stored && now <= previous ? previous + 1 : now;
}

int RunScan(const ScanArguments& args) {
  std::string dir = RealPath(args.dir);
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    throw ToolError(kExitNotFound, "cannot scan " + dir + ": not a directory");
  if (args.type == RecordType::kLustre) {
    LustreAPI::CLustreFID fid;
    int status = LustreAPI::GetFIDFromPath(dir, fid);
    if (status != 0)
      throw ToolError(kExitNotFound, "cannot scan " + dir + " as lustre: no FID (" +
                                         std::strerror(-status) + ")");
  }
  auto started = std::chrono::steady_clock::now();
  ScanDatabase database(args.database, args.type, ScanDatabase::Mode::kCreate);
  unsigned long long refTime = ChooseRefTime(database, dir, args);
  database.db().setRefTime(refTime);

  ChangeReport report(args.listLimit);
  ScanProgress progress(::isatty(STDERR_FILENO) == 1);
  TreeScanner scanner(database, report, progress);
  scanner.Exclude(RealPath(args.database));
  scanner.Run(dir);
  progress.Finish();
  database.Close();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  const ScanTotals& totals = scanner.totals();
  std::cout << "scanned " << dir << " into " << args.database << " at reference time " << refTime
            << "\n";
  report.Print(std::cout);
  char line[512];
  std::snprintf(line, sizeof(line),
                "summary: entries %llu, folders %llu, files %llu, new %llu, changed %llu, "
                "removed %llu, unreadable %llu, seconds %.2f, entries/s %.0f",
                static_cast<unsigned long long>(totals.entries),
                static_cast<unsigned long long>(totals.folders),
                static_cast<unsigned long long>(totals.files),
                static_cast<unsigned long long>(report.Count(ChangeReport::kNew)),
                static_cast<unsigned long long>(report.Count(ChangeReport::kChanged)),
                static_cast<unsigned long long>(report.Count(ChangeReport::kRemoved)),
                static_cast<unsigned long long>(totals.unreadable), seconds,
                seconds > 0 ? totals.entries / seconds : 0.0);
  std::cout << line << std::endl;
  return kExitOk;
}

}  // namespace

void AddScanCommand(CLI::App& app, CommandTable& table) {
  auto args = std::make_shared<ScanArguments>();
  CLI::App* scan = app.add_subcommand(
      "scan",
      "Record a directory tree into a scan database (created if missing); on a later scan, "
      "report what is new, changed and gone, and remove what is gone");
  scan->add_option("DIR", args->dir, "Directory to scan (symbolic links are recorded, not followed)")
      ->required();
  scan->add_option("--db", args->database, "Directory of the scan database")->required()->type_name("DBDIR");
  AddTypeOption(scan, args->type, {RecordType::kGeneric, RecordType::kLustre});
  scan->add_option_function<unsigned long long>(
          "--ref-time",
          [args](const unsigned long long& value) {
            args->refTime = value;
            args->refTimeGiven = true;
          },
          "Reference time of this scan, above the last scan's (default: now, in seconds since "
          "the epoch)")
      ->type_name("N");
  scan->add_option("--list", args->listLimit,
                   "List at most N paths of each kind of change (default 50; 0 lists none)")
      ->type_name("N");
  table[scan] = [args] { return RunScan(*args); };
}
