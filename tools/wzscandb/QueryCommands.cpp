// ls, walk, path, changed, validate, stats and csv: reading a scan database.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>
#include <mutex>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "ScanDatabase.h"
#include "ToolError.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/LogWriter.h"

namespace {

// Records per batch when clearing visited marks; the library's own bound.
constexpr int kClearBatch = 10000;

const std::vector<RecordType> kAllTypes = {RecordType::kGeneric, RecordType::kLustre,
                                           RecordType::kBackupTime};

struct DatabaseArguments {
  std::string directory;
  std::string path = "/";
  RecordType type = RecordType::kGeneric;
  unsigned long long since = 0;
};

CLI::App* AddDatabaseCommand(CLI::App& app, const char* name, const char* description,
                             DatabaseArguments& args) {
  CLI::App* command = app.add_subcommand(name, description);
  command->add_option("DBDIR", args.directory, "Directory of the scan database")->required();
  AddTypeOption(command, args.type, kAllTypes);
  return command;
}

void RequireTree(RecordType type) {
  if (!HasTree(type))
    throw ToolError(kExitNotFound, std::string("a ") + RecordTypeName(type) +
                                       " database has no folders to walk");
}

std::string UtcTime(time_t seconds) {
  struct tm parts;
  char text[32];
  gmtime_r(&seconds, &parts);
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

// "d       4096 2026-11-22 03:12:00 ref 1763781120 name": kind, size,
// modification time (UTC), reference time, name.
void PrintEntry(RecordType type, WzScanDBRecordBase& record, const std::string& name) {
  struct stat st = GetStat(type, record);
  std::printf("%c %12lld %s ref %llu %s\n", record.isDir() ? 'd' : 'f',
              static_cast<long long>(st.st_size), UtcTime(st.st_mtim.tv_sec).c_str(),
              record.getRefTime(), name.c_str());
}

int RunLs(const DatabaseArguments& args) {
  RequireTree(args.type);
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kExisting);
  WzScanDBRecordBasePtr folder = database.FindPath(args.path);
  std::vector<WzScanDBRecordBasePtr> children;
  ThrowIfError(database.db().getChildren(folder, children), "cannot list " + args.path);
  for (const WzScanDBRecordBasePtr& child : children) PrintEntry(args.type, *child, child->getName());
  database.Close();
  return kExitOk;
}

// Every record below PATH, breadth-first, by its path relative to PATH;
// folders end in "/".
int RunWalk(const DatabaseArguments& args) {
  RequireTree(args.type);
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kExisting);
  WzScanDB& db = database.db();
  WzScanDBRecordBasePtr start = database.FindPath(args.path);
  // The item walk is defined only for a folder with at least one child.
  std::vector<WzScanDBRecordBasePtr> children;
  ThrowIfError(db.getChildren(start, children), "cannot list " + args.path);
  if (!children.empty()) {
    WzScanDBRecordBasePtr item;
    std::string path;
    ThrowIfError(db.getFirstItem(start, item, path), "cannot walk " + args.path);
    for (;;) {
      std::printf("%s%s\n", path.c_str(), item->isDir() ? "/" : "");
      CKoError error = db.getNextItem(item, path);
      if (error.IsError() && error.GetKind() == EKoErrorKind::kWin32 &&
          error.GetCode() == kWin32NoMoreFiles)
        break;
      ThrowIfError(error, "cannot walk " + args.path);
    }
  }
  database.Close();
  return kExitOk;
}

int RunPath(const DatabaseArguments& args) {
  RequireTree(args.type);
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kExisting);
  WzScanDBRecordBasePtr record = database.FindPath(args.path);
  std::string path;
  ThrowIfError(database.db().getPathFromRecord(record, path),
               "cannot rebuild the path of " + args.path);
  std::printf("%s\n", path.empty() ? "/" : path.c_str());
  database.Close();
  return kExitOk;
}

// Records touched at or after --since: "<refTime> <full path>" sorted by
// path, or the record's text for a database without paths.
int RunChanged(const DatabaseArguments& args) {
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kExisting);
  WzScanDB& db = database.db();
  std::vector<WzScanDBRecordBasePtr> records;
  ThrowIfError(db.getUpdatedRecords(&records, args.since), "cannot list updated records");
  std::vector<std::pair<std::string, unsigned long long>> lines;
  lines.reserve(records.size());
  for (const WzScanDBRecordBasePtr& record : records) {
    std::string text;
    if (HasTree(args.type)) {
      CKoError error = db.getPathFromRecord(record, text);
      if (error.IsError()) text = record->getName() + " (path unknown: " + ErrorLine(error) + ")";
      if (text.empty()) text = "/";
      if (record->isDir() && text != "/") text += "/";
    } else {
      text = record->toString();
    }
    lines.emplace_back(std::move(text), record->getRefTime());
  }
  std::sort(lines.begin(), lines.end());
  for (const auto& line : lines) std::printf("%llu %s\n", line.second, line.first.c_str());
  database.Close();
  return kExitOk;
}

// Keeps the text of the library's "disconnected node" lines.
class DisconnectedNodes : public CLogSink {
 public:
  void Write(const CLogEntry& entry) override {
    static const std::string kPrefix = "Found a disconnected node : ";
    if (entry.message.compare(0, kPrefix.size(), kPrefix) != 0) return;
    std::string node = entry.message.substr(kPrefix.size());
    while (!node.empty() && node.back() == '\n') node.pop_back();
    std::lock_guard<std::mutex> lock(mutex_);
    nodes_.push_back(node);
  }
  std::vector<std::string> nodes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return nodes_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> nodes_;
};

int RunValidate(const DatabaseArguments& args) {
  RequireTree(args.type);
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kExisting);
  // The library names the first disconnected record only in an error-level
  // log line; listen for it even when the log is silenced.
  auto listener = std::make_shared<DisconnectedNodes>();
  int level = g_ptrLogWriter->GetLevel();
  g_ptrLogWriter->AddSink(listener);
  g_ptrLogWriter->SetLevel(std::max(level, -1));
  bool consistent = false;
  CKoError error = database.db().validateTree(consistent);
  g_ptrLogWriter->SetLevel(level);
  g_ptrLogWriter->RemoveSink(listener);
  ThrowIfError(error, "cannot validate the database at " + args.directory);
  database.Close();
  if (consistent) {
    std::printf("consistent: every record is reachable from the root\n");
    return kExitOk;
  }
  std::printf("NOT consistent: a record is not reachable from the root\n");
  for (const std::string& node : listener->nodes()) std::printf("disconnected: %s\n", node.c_str());
  return kExitInconsistent;
}

long long FileSize(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

int RunStats(const DatabaseArguments& args) {
  RequireTree(args.type);
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kExisting);
  WzScanDB& db = database.db();
  std::fflush(stdout);
  ThrowIfError(db.printStats(), "cannot count the records");
  // printStats leaves every reachable record marked visited; clear the marks
  // so that the database is as it was and a later validate sees true marks.
  WzScanDBRecordBasePtr root = db.getRoot();
  std::vector<WzScanDBRecordBasePtr> batch;
  bool more = false;
  do {
    ThrowIfError(db.getSubTree(root, batch, false, kClearBatch, more), "cannot clear the visited marks");
    more = true;
  } while (!batch.empty());
  std::printf("data file %lld bytes, index file %lld bytes\n",
              FileSize(args.directory + "/WzScanDB.dat"), FileSize(args.directory + "/WzScanDB.idx"));
  database.Close();
  return kExitOk;
}

// The CSV header, then every record of the table in the engine's physical
// order, read one by one into a single record buffer.
int RunCsv(const DatabaseArguments& args) {
  if (args.type == RecordType::kLustre)
    throw ToolError(kExitNotFound, "lustre records have no CSV form (use ls or walk)");
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kExisting);
  WzScanDB& db = database.db();
  WzScanDBRecordBasePtr record = database.NewRecord();
  std::printf("%s\n", record->toCSVHeader().c_str());
  void* buffer = record->getStructure();
  for (int status = db.firstRecord(-1, buffer); status == 0; status = db.nextRecord(-1, buffer)) {
    record->setStructure(buffer);
    std::printf("%s\n", record->toCSV().c_str());
  }
  database.Close();
  return kExitOk;
}

}  // namespace

void AddQueryCommands(CLI::App& app, CommandTable& table) {
  auto ls = std::make_shared<DatabaseArguments>();
  CLI::App* lsCommand = AddDatabaseCommand(
      app, "ls", "List a folder's children: kind, size, modification time, reference time, name", *ls);
  lsCommand->add_option("PATH", ls->path, "Folder to list (default /)");
  table[lsCommand] = [ls] { return RunLs(*ls); };

  auto walk = std::make_shared<DatabaseArguments>();
  CLI::App* walkCommand = AddDatabaseCommand(
      app, "walk", "Walk everything below a folder, item by item, by relative path", *walk);
  walkCommand->add_option("PATH", walk->path, "Folder to walk (default /)");
  table[walkCommand] = [walk] { return RunWalk(*walk); };

  auto path = std::make_shared<DatabaseArguments>();
  CLI::App* pathCommand = AddDatabaseCommand(
      app, "path", "Look a path up and rebuild its full path from the parent links", *path);
  pathCommand->add_option("PATH", path->path, "Path of the entry")->required();
  table[pathCommand] = [path] { return RunPath(*path); };

  auto changed = std::make_shared<DatabaseArguments>();
  CLI::App* changedCommand = AddDatabaseCommand(
      app, "changed", "List the records whose reference time is at least --since", *changed);
  changedCommand->add_option("--since", changed->since, "Reference time")->required()->type_name("N");
  table[changedCommand] = [changed] { return RunChanged(*changed); };

  auto validate = std::make_shared<DatabaseArguments>();
  CLI::App* validateCommand = AddDatabaseCommand(
      app, "validate",
      "Check that every record is reachable from the root (exit status 1 when not)", *validate);
  table[validateCommand] = [validate] { return RunValidate(*validate); };

  auto stats = std::make_shared<DatabaseArguments>();
  CLI::App* statsCommand = AddDatabaseCommand(
      app, "stats", "Count the records, folders and files reachable from the root", *stats);
  table[statsCommand] = [stats] { return RunStats(*stats); };

  auto csv = std::make_shared<DatabaseArguments>();
  CLI::App* csvCommand = AddDatabaseCommand(
      app, "csv", "Print every record in its CSV form, with the header first", *csv);
  table[csvCommand] = [csv] { return RunCsv(*csv); };
}
