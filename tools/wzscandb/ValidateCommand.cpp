// validate: is every record of the table reachable from the root through its
// parent links? check: that, after every page of both table files and every
// index entry were checked.
//
// By default validate is a read-only check: a depth-first walk from the root
// counts the records it reaches and compares the count with the table's;
// when they differ, one pass over the table names the records whose parent
// is missing. With --visited-bits the library's own validateTree runs
// instead: it opens the database for writing, marks every reachable record
// visited, looks for an unmarked one and clears the marks again.
//
// check opens the database read-only with the engine's full page check (the
// structure of every page LMDB could follow), runs the engine's index check
// (every record in every index under its key, no other entry), then the
// reachability check.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "DatabaseCommand.h"
#include "PathResolver.h"
#include "TableReader.h"
#include "ToolError.h"
#include "TreeWalker.h"
#include "runtime/LogWriter.h"
#include "table/TableStatus.h"

namespace {

// Records named when the table is not consistent; the rest are counted.
constexpr uint64_t kNamedRecords = 20;

struct ValidateArguments : DatabaseArguments {
  bool visitedBits = false;
};

class ReachCounter : public TreeVisitor {
 public:
  bool Entry(const std::string&, const ImageView&, int) override {
    ++reached;
    return true;
  }
  void Alias(const ImageView&) override { ++reached; }
  uint64_t reached = 0;
};

int CheckReachability(ScanDatabase& database, const ValidateArguments& args) {
  TableReader reader(database);
  const RecordLayout& layout = reader.layout();
  int64_t total = database.db().numberOfRecords();
  if (total < 0)
    throw ToolError(kExitFailed, "cannot count the records: engine status " + std::to_string(-total));

  ReachCounter counter;
  std::vector<char> root(layout.size);
  WzScanDBRecordBasePtr rootRecord = database.Lookup(database.db().getRoot());
  if (rootRecord) {
    std::memcpy(root.data(), rootRecord->getStructure(), layout.size);
    counter.reached = 1;
    WalkTree(reader, root.data(), counter);
  }
  if (counter.reached == static_cast<uint64_t>(total)) {
    database.Close();
    std::printf("consistent: all %llu records are reachable from the root\n",
                static_cast<unsigned long long>(total));
    return kExitOk;
  }

  std::printf("NOT consistent: %llu of %llu records are reachable from the root\n",
              static_cast<unsigned long long>(counter.reached),
              static_cast<unsigned long long>(total));
  if (!rootRecord) std::printf("the root record is missing\n");
  // The records whose parent is not in the table; the rest of the unreachable
  // ones hang below them.
  PathResolver resolver(reader);
  std::vector<char> parent(layout.size);
  std::string path;
  uint64_t orphans = 0;
  reader.ForEachRecord([&](const char* image) {
    ImageView record(layout, image);
    bool isRoot = rootRecord && record.key() == ImageView(layout, root.data()).key();
    if (isRoot) return;
    bool orphan = record.isTop() ? args.type == RecordType::kGeneric
                                 : !reader.ReadByKey(record.parentKey(), parent.data());
    if (!orphan) return;
    if (++orphans > kNamedRecords) return;
    resolver.PathOf(image, path);
    std::printf("disconnected: %s (its parent is not in the database)\n", path.c_str());
  });
  if (orphans > kNamedRecords)
    std::printf("...          and %llu more disconnected records\n",
                static_cast<unsigned long long>(orphans - kNamedRecords));
  database.Close();
  return kExitInconsistent;
}

int RunReadOnlyCheck(const ValidateArguments& args) {
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kReadOnly);
  return CheckReachability(database, args);
}

// Keeps the text of the library's log lines that contain `marker`.
class LinesContaining : public CLogSink {
 public:
  explicit LinesContaining(std::string marker) : marker_(std::move(marker)) {}
  void Write(const CLogEntry& entry) override {
    if (entry.message.find(marker_) == std::string::npos) return;
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(entry.message);
  }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  std::string marker_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

int RunFullCheck(const ValidateArguments& args) {
  // The engine names a damaged file and its damage only in an error-level
  // log line; listen for it even when the log is silenced.
  auto damage = std::make_shared<LinesContaining>("is damaged");
  const int level = g_ptrLogWriter->GetLevel();
  g_ptrLogWriter->AddSink(damage);
  g_ptrLogWriter->SetLevel(std::max(level, -1));
  std::unique_ptr<ScanDatabase> database;
  try {
    database.reset(new ScanDatabase(args.directory, args.type, ScanDatabase::Mode::kCheckPages));
  } catch (const ToolError&) {
    g_ptrLogWriter->SetLevel(level);
    g_ptrLogWriter->RemoveSink(damage);
    const auto lines = damage->lines();
    if (lines.empty()) throw;
    std::printf("NOT consistent: a table file is damaged\n");
    for (const std::string& line : lines) std::printf("damaged: %s\n", line.c_str());
    return kExitInconsistent;
  }
  g_ptrLogWriter->SetLevel(level);
  g_ptrLogWriter->RemoveSink(damage);
  std::printf("pages: every page of both table files is sound\n");
  std::string report;
  const int status = database->db().checkConsistency(&report);
  if (status == TBL_INDEX_SUSPENDED) {
    std::printf("indexes: not checked (%s)\n", report.c_str());
  } else if (status != TBL_OK) {
    std::printf("NOT consistent: indexes: %s\n",
                report.empty() ? TCtreeTable::errToString(status) : report.c_str());
    database->Close();
    return kExitInconsistent;
  } else {
    std::printf("indexes: every record is in every index under its own key\n");
  }
  return CheckReachability(*database, args);
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

int RunVisitedBitsCheck(const ValidateArguments& args) {
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

}  // namespace

void AddValidateCommand(CLI::App& app, CommandTable& table) {
  auto validate = std::make_shared<ValidateArguments>();
  CLI::App* command = AddDatabaseCommand(
      app, "validate",
      "Check that every record is reachable from the root, read-only (exit status 1 when "
      "not; names the records whose parent is missing)",
      *validate, {RecordType::kGeneric, RecordType::kLustre});
  command->add_flag("--visited-bits", validate->visitedBits,
                    "Run the library's validateTree instead: opens the database for writing, "
                    "marks every reachable record visited and clears the marks again");
  table[command] = [validate] {
    return validate->visitedBits ? RunVisitedBitsCheck(*validate) : RunReadOnlyCheck(*validate);
  };

  auto check = std::make_shared<ValidateArguments>();
  CLI::App* checkCommand = AddDatabaseCommand(
      app, "check",
      "Check every page of both table files, every index entry against its record, and that "
      "every record is reachable from the root; read-only (exit status 1 when anything is wrong)",
      *check, {RecordType::kGeneric, RecordType::kLustre});
  table[checkCommand] = [check] { return RunFullCheck(*check); };
}
