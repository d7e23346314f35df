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
#include <memory>

#include <CLI/CLI.hpp>

#include "ChangeReport.h"
#include "Commands.h"
#include "EntryFilter.h"
#include "EntryJson.h"
#include "KeptReport.h"
#include "ListingSource.h"
#include "Numbers.h"
#include "ScanDatabase.h"
#include "ScanProgress.h"
#include "ScanWriter.h"
#include "ToolError.h"
#include "TreeScanner.h"
#include "lustre/GetFIDFromPath.h"

namespace {

constexpr uint64_t kLargestRefTime = UINT32_MAX;  // records keep 32 bits
constexpr uint64_t kMostThreads = 64;

struct ScanArguments {
  std::string dir;
  std::string database;
  RecordType type = RecordType::kGeneric;
  uint64_t refTime = 0;
  bool refTimeGiven = false;
  uint64_t listLimit = 50;
  bool listGiven = false;
  std::string reportFile;
  OutputMode output = OutputMode::kText;
  bool oneFileSystem = false;
  std::vector<std::string> excludes;
  bool dryRun = false;
  uint64_t threads = 1;
};

std::string RealPath(const std::string& path, const char* what) {
  char* real = ::realpath(path.c_str(), nullptr);
  if (!real) throw ToolError(kExitNotFound, std::string(what) + " " + path + ": " + std::strerror(errno));
  std::string text(real);
  std::free(real);
  return text;
}

// The reference time of this scan: above the last scan's of DIR, and within
// the 32 bits the records keep.
uint32_t ChooseRefTime(ScanDatabase* database, const std::string& dir, const ScanArguments& args,
                       bool& firstScan) {
  uint64_t previous = 0;
  WzScanDBRecordBasePtr stored;
  if (database) stored = database->Lookup(MakeEntryRecord(database->type(), dir, true, 0));
  if (stored) previous = stored->getRefTime();
  firstScan = !stored;
  if (args.refTimeGiven) {
    if (stored && args.refTime <= previous)
      throw ToolError(kExitNotFound, "--ref-time " + std::to_string(args.refTime) +
                                         " is not above " + std::to_string(previous) +
                                         ", the reference time of the last scan of " + dir);
    return static_cast<uint32_t>(args.refTime);
  }
  uint64_t now = static_cast<uint64_t>(std::time(nullptr));
  uint64_t chosen = stored && now <= previous ? previous + 1 : now;
  if (chosen > kLargestRefTime)
    throw ToolError(kExitNotFound,
                    "no reference time above " + std::to_string(previous) + " (the last scan of " +
                        dir + ") fits in the records' 32 bits; the database cannot take another scan");
  return static_cast<uint32_t>(chosen);
}

nlohmann::json SummaryJson(const ScanTotals& totals, const ChangeReport& report, double seconds) {
  return {{"entries", totals.entries},
          {"folders", totals.folders},
          {"files", totals.files},
          {"new", report.Count(ChangeKind::kNew)},
          {"changed", report.Count(ChangeKind::kChanged)},
          {"renamed", report.Count(ChangeKind::kRenamed)},
          {"removed", report.Count(ChangeKind::kRemoved)},
          {"unreadable", totals.unreadable},
          {"seconds", seconds}};
}

std::string SummaryLine(const ScanTotals& totals, const ChangeReport& report, double seconds) {
  char line[512];
  std::snprintf(line, sizeof(line),
                "summary: entries %llu, folders %llu, files %llu, new %llu, changed %llu, "
                "renamed %llu, removed %llu, unreadable %llu, seconds %.2f, entries/s %.0f",
                static_cast<unsigned long long>(totals.entries),
                static_cast<unsigned long long>(totals.folders),
                static_cast<unsigned long long>(totals.files),
                static_cast<unsigned long long>(report.Count(ChangeKind::kNew)),
                static_cast<unsigned long long>(report.Count(ChangeKind::kChanged)),
                static_cast<unsigned long long>(report.Count(ChangeKind::kRenamed)),
                static_cast<unsigned long long>(report.Count(ChangeKind::kRemoved)),
                static_cast<unsigned long long>(totals.unreadable), seconds,
                seconds > 0 ? totals.entries / seconds : 0.0);
  return line;
}

bool HasDatabaseFiles(const std::string& directory) {
  struct stat st;
  return ::stat((directory + "/WzScanDB.dat").c_str(), &st) == 0;
}

int RunScan(const ScanArguments& args) {
  std::string dir = RealPath(args.dir, "cannot scan");
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

  // A dry run reads the database, if there is one, and writes nothing.
  std::unique_ptr<ScanDatabase> database;
  if (!args.dryRun)
    database.reset(new ScanDatabase(args.database, args.type, ScanDatabase::Mode::kCreate));
  else if (HasDatabaseFiles(args.database))
    database.reset(new ScanDatabase(args.database, args.type, ScanDatabase::Mode::kReadOnly));
  bool firstScan = false;
  const uint32_t refTime = ChooseRefTime(database.get(), dir, args, firstScan);
  if (database && !args.dryRun) database->db().setRefTime(refTime);

  std::string databaseDirectory;
  if (database) databaseDirectory = RealPath(args.database, "cannot find the database directory");
  EntryFilter filter(dir, st.st_dev, args.excludes, databaseDirectory, args.oneFileSystem);

  FILE* reportFile = nullptr;
  if (!args.reportFile.empty()) {
    reportFile = std::fopen(args.reportFile.c_str(), "w");
    if (!reportFile)
      throw ToolError(kExitNotFound, "cannot write the report to " + args.reportFile + ": " +
                                         std::strerror(errno));
  }
  std::unique_ptr<FILE, int (*)(FILE*)> reportCloser(reportFile, [](FILE* f) {
    return f ? std::fclose(f) : 0;
  });

  nlohmann::json header;
  PutPath(header, "dir", dir);
  header["type"] = RecordTypeName(args.type);
  header["ref"] = refTime;
  header["first_scan"] = firstScan;
  std::unique_ptr<KeptReportWriter> kept;
  if (!args.dryRun) kept.reset(new KeptReportWriter(args.database, header));

  uint64_t streamLimit = args.listGiven ? args.listLimit : UINT64_MAX;
  ChangeReport report(args.output, args.listLimit, streamLimit);
  if (reportFile) report.SetReportFile(reportFile, args.output);
  report.SetKeptReport(kept.get(), !firstScan);
  ScanProgress progress(::isatty(STDERR_FILENO) == 1);
  ScanWriter writer(database.get(), args.dryRun);
  ListingSource listings(filter, args.type, static_cast<unsigned>(args.threads));
  TreeScanner scanner(database.get(), args.type, writer, listings, filter, refTime, report, progress);
  scanner.Run(dir);
  progress.Finish();
  if (database) database->Close();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  const ScanTotals& totals = scanner.totals();
  nlohmann::json summary = SummaryJson(totals, report, seconds);
  if (kept) kept->Finish(summary);
  std::string line = SummaryLine(totals, report, seconds);
  if (reportFile) {
    if (args.output == OutputMode::kJson) OutputLine(args.output, JsonLine({{"summary", summary}}), reportFile);
    else if (args.output == OutputMode::kText) OutputLine(args.output, line, reportFile);
    if (std::fflush(reportFile) != 0)
      throw ToolError(kExitFailed, "cannot write the report to " + args.reportFile);
  }
  if (args.output == OutputMode::kText) {
    std::printf("%s %s into %s at reference time %u\n", args.dryRun ? "dry run: would scan" : "scanned",
                dir.c_str(), args.database.c_str(), refTime);
    report.PrintListing(stdout);
    OutputLine(args.output, line);
  } else if (args.output == OutputMode::kJson) {
    OutputLine(args.output, JsonLine({{"summary", summary}}));
  } else {
    std::fflush(stdout);
    std::fprintf(stderr, "wzscandb: %s\n", line.c_str());
  }
  return totals.unreadable ? kExitPartial : kExitOk;
}

}  // namespace

void AddScanCommand(CLI::App& app, CommandTable& table) {
  auto args = std::make_shared<ScanArguments>();
  CLI::App* scan = app.add_subcommand(
      "scan",
      "Record a directory tree into a scan database (created if missing); on a later scan, "
      "report what is new, changed, renamed, removed and unreadable, and store the tree as "
      "it is now");
  scan->add_option("DIR", args->dir, "Directory to scan (symbolic links are recorded, not followed)")
      ->required();
  scan->add_option("--db", args->database, "Directory of the scan database")->required()->type_name("DBDIR");
  AddTypeOption(scan, args->type, {RecordType::kGeneric, RecordType::kLustre});
  AddCountOption(scan, "--ref-time", args->refTime,
                 "Reference time of this scan, above the last scan's and at most 4294967295 "
                 "(default: now, in seconds since the epoch)",
                 &args->refTimeGiven, kLargestRefTime);
  AddCountOption(scan, "--list", args->listLimit,
                 "List at most N entries of each kind of change (default: 50 in the text form, "
                 "all with -0 or --json)",
                 &args->listGiven);
  scan->add_option("--report", args->reportFile,
                   "Write the full report (every change, in the output form chosen) to FILE")
      ->type_name("FILE");
  AddOutputOptions(scan, args->output);
  scan->add_flag("-x,--one-file-system", args->oneFileSystem,
                 "Do not descend into folders on other file systems (they are recorded, their "
                 "contents are not)");
  scan->add_option("--exclude", args->excludes,
                   "Leave out entries matching GLOB (repeatable): a glob without / matches "
                   "names, /... absolute paths, others paths below DIR")
      ->type_name("GLOB")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  scan->add_flag("--dry-run", args->dryRun,
                 "Report what the scan would change, without writing the database");
  AddCountOption(scan, "--threads", args->threads,
                 "Read and stat directories with N threads; one thread writes (default 1)",
                 nullptr, kMostThreads)
      ->check([](const std::string& text) {
        return text == "0" ? std::string("--threads takes 1 or more") : std::string();
      });
  table[scan] = [args] { return RunScan(*args); };
}
