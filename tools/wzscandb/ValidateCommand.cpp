// validate (also `check`): is every record of the table reachable from the
// root through its parent links?
//
// By default a read-only check: a depth-first walk from the root counts the
// records it reaches and compares the count with the table's; when they
// differ, one pass over the table names the records whose parent is missing.
// With --visited-bits the library's own validateTree runs instead: it opens
// the database for writing, marks every reachable record visited, looks for
// an unmarked one and clears the marks again.
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

int RunReadOnlyCheck(const ValidateArguments& args) {
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kReadOnly);
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
  command->alias("check");
  command->add_flag("--visited-bits", validate->visitedBits,
                    "Run the library's validateTree instead: opens the database for writing, "
                    "marks every reachable record visited and clears the marks again");
  table[command] = [validate] {
    return validate->visitedBits ? RunVisitedBitsCheck(*validate) : RunReadOnlyCheck(*validate);
  };
}
