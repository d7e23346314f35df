// touched and changed: what the scans did to a database. `touched` lists the
// records whose reference time is at least N, that is every record a scan
// at N or later met; `changed` shows the change report the last scan kept.
#include <cstdio>
#include <cstring>
#include <memory>

#include <CLI/CLI.hpp>

#include "ChangeFormat.h"
#include "Commands.h"
#include "DatabaseCommand.h"
#include "EntryJson.h"
#include "KeptReport.h"
#include "Numbers.h"
#include "PathResolver.h"
#include "PathJoin.h"
#include "TableReader.h"
#include "TreeWalker.h"
#include "ToolError.h"
#include "WzScanDB/records/BackupTimeRecord.h"

namespace {

struct TouchedArguments : DatabaseArguments {
  uint64_t since = 0;
};

// Backup-time records: their ctime stands in for the reference time.
void PrintBackupTimeRecords(ScanDatabase& database, const TouchedArguments& args) {
  WzScanDBRecordBasePtr record = database.NewRecord();
  ForEachTableRecord(database.db(), sizeof(SBackupTimeRecordStructure), [&](const char* image) {
    SBackupTimeRecordStructure fields;
    std::memcpy(&fields, image, sizeof(fields));
    if (fields.ctime < args.since) return;
    if (args.output == OutputMode::kJson) {
      OutputLine(args.output, JsonLine({{"inode", fields.inode}, {"ctime", fields.ctime}}));
      return;
    }
    std::memcpy(record->getStructure(), image, sizeof(fields));
    std::string text = record->toString();
    OutputLine(args.output, args.output == OutputMode::kNull
                                ? text
                                : std::to_string(fields.ctime) + " " + text);
  });
}

// "<ref> <full path>" (folders end in "/") in the table's physical order.
int RunTouched(const TouchedArguments& args) {
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kReadOnly);
  if (!HasTree(args.type)) {
    PrintBackupTimeRecords(database, args);
    database.Close();
    return kExitOk;
  }
  TableReader reader(database);
  PathResolver resolver(reader);
  std::string path;
  reader.ForEachRecord([&](const char* image) {
    ImageView record(reader.layout(), image);
    if (record.ref() < args.since) return;
    // The Lustre root has no entry of its own: "/" has a record of its own.
    if (args.type == RecordType::kLustre && record.keyIsEmpty()) return;
    resolver.PathOf(image, path);
    if (args.output == OutputMode::kJson) {
      OutputLine(args.output, JsonLine(EntryJson(path, record.stat(), record.isDir(), record.ref())));
    } else if (args.output == OutputMode::kNull) {
      OutputLine(args.output, path);
    } else {
      bool slash = record.isDir() && path.back() != '/';
      OutputLine(args.output, std::to_string(record.ref()) + " " + path + (slash ? "/" : ""));
    }
  });
  database.Close();
  return kExitOk;
}

struct ChangedArguments {
  std::string directory;
  OutputMode output = OutputMode::kText;
};

// Lists the entries a first scan found, from the database: `dir` and
// everything below it, in the scan's order.
class FirstScanLister : public TreeVisitor {
 public:
  FirstScanLister(OutputMode mode, const std::string& dir) : mode_(mode), dir_(dir) {}
  void Top(const ImageView& entry) { Print(dir_, entry); }
  bool Entry(const std::string& path, const ImageView& entry, int) override {
    Print(JoinPath(dir_, path), entry);
    return true;
  }

 private:
  void Print(const std::string& path, const ImageView& entry) {
    change_.path = path;
    change_.st = entry.stat();
    change_.isDir = entry.isDir();
    WriteChange(stdout, mode_, change_);
  }
  OutputMode mode_;
  std::string dir_;
  Change change_;
};

void ListFirstScan(const ChangedArguments& args, const std::string& dir, RecordType type) {
  ScanDatabase database(args.directory, type, ScanDatabase::Mode::kReadOnly);
  TableReader reader(database);
  std::vector<char> top = FindImage(database, dir);
  FirstScanLister lister(args.output, dir);
  lister.Top(ImageView(reader.layout(), top.data()));
  WalkTree(reader, top.data(), lister);
  database.Close();
}

// The kept report, and for a first scan the entries it recorded.
int RunChanged(const ChangedArguments& args) {
  RequireDatabaseFiles(args.directory);
  nlohmann::json header, summary;
  bool started = false;
  auto start = [&] {
    if (started) return;
    started = true;
    const std::string dir = GetPath(header, "dir");
    if (args.output == OutputMode::kText)
      std::printf("last scan: %s at reference time %llu\n", dir.c_str(), header.value("ref", 0ULL));
    RecordType type = RecordType::kGeneric;
    if (header.value("type", "") == RecordTypeName(RecordType::kLustre)) type = RecordType::kLustre;
    if (header.value("first_scan", false)) ListFirstScan(args, dir, type);
  };
  ReadKeptReport(
      args.directory, header,
      [&](const Change& change) {
        start();
        WriteChange(stdout, args.output, change);
      },
      summary);
  start();
  if (args.output == OutputMode::kJson) {
    OutputLine(args.output, JsonLine({{"summary", summary}}));
  } else if (args.output == OutputMode::kText) {
    std::string line = "summary:";
    const char* separator = " ";
    for (const char* key : {"entries", "folders", "files", "new", "changed", "renamed", "removed",
                            "unreadable", "seconds"}) {
      if (!summary.contains(key)) continue;
      line += separator + std::string(key) + " " + summary[key].dump();
      separator = ", ";
    }
    OutputLine(args.output, line);
  }
  return kExitOk;
}

}  // namespace

void AddScanHistoryCommands(CLI::App& app, CommandTable& table) {
  auto touched = std::make_shared<TouchedArguments>();
  CLI::App* touchedCommand = AddDatabaseCommand(
      app, "touched",
      "List every record whose reference time is at least --since: all that a scan at that "
      "reference time or later met, changed or not (\"<ref> <path>\", in the table's order)",
      *touched);
  AddCountOption(touchedCommand, "--since", touched->since, "Reference time")->required();
  AddOutputOptions(touchedCommand, touched->output);
  table[touchedCommand] = [touched] { return RunTouched(*touched); };

  auto changed = std::make_shared<ChangedArguments>();
  CLI::App* changedCommand = app.add_subcommand(
      "changed",
      "Show the change report of the last scan into the database again: new, changed, "
      "renamed, removed and unreadable entries, and the summary");
  changedCommand->add_option("DBDIR", changed->directory, "Directory of the scan database")
      ->required();
  AddOutputOptions(changedCommand, changed->output);
  table[changedCommand] = [changed] { return RunChanged(*changed); };
}
