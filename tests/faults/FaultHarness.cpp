#include "faults/FaultHarness.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

#include <boost/make_shared.hpp>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "runtime/LogWriter.h"

extern char** environ;

namespace faults {

namespace {

// The writer's lines (B, A, F, E, L) and the shim's (Y, Z, S) in one stream.
void parse(WriterRun& run) {
  std::istringstream lines(run.output);
  std::string line;
  std::map<long, size_t> logSyncs;  // sync id -> operations acknowledged when it began
  size_t begun = 0, acked = 0, durable = 0;
  while (std::getline(lines, line)) {
    std::istringstream f(line.size() > 2 ? line.substr(2) : "");
    long id = 0, t = 0;
    int rc = 0;
    std::string file;
    switch (line[0]) {
      case 'B':
        run.ops.emplace_back();
        f >> run.ops.back().key >> run.ops.back().value;
        ++begun;
        break;
      case 'A':
        run.ops.back().acked = true;
        ++acked;
        break;
      case 'F':
        f >> run.ops.back().failed;
        --begun;
        [[fallthrough]];
      case 'E':
        f >> rc;  // (E -1: a call that answers no status, suspendIndexing)
        if (!run.firstFailure && rc != -1) run.firstFailure = line[0] == 'F' ? run.ops.back().failed : rc;
        run.failed = true;
        break;
      case 'L':
        run.logged.push_back(line.substr(2));
        break;
      case 'Y':
        // Records reach the log through a mapping before their call returns:
        // a sync of it covers every operation acknowledged before it began.
        if (f >> id >> t >> file && file.size() > 4 && file.compare(file.size() - 4, 4, ".log") == 0)
          logSyncs[id] = acked;
        break;
      case 'Z':
        if (f >> id >> rc && rc == 0 && logSyncs.count(id)) durable = std::max(durable, logSyncs[id]);
        break;
      case 'S':
        f >> id;
        run.snapshots.push_back({id, begun, acked, std::min(durable, acked)});
        break;
    }
  }
}

void applyOne(State& s, const Operation& op) {
  if (op.value < 0) s.erase(op.key);
  else s[op.key] = op.value;
}

}  // namespace

WriterRun runWriter(const RunOptions& options) {
  const std::string settings = "/tmp/wzfault-settings-" + std::to_string(::getpid());
  std::ofstream(settings) << "[~FileSystemAgent]\nnWzScanDBSyncIntervalMs = " << options.syncIntervalMs
                          << "\nnWzScanDBLogLimitMiB = " << options.logLimitMiB << "\n";
  std::vector<std::string> args{FAULT_WRITER}, env{"WZ_SETTINGS_FILE=" + settings};
  args.insert(args.end(), options.args.begin(), options.args.end());
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "WZF_", 4) && std::strncmp(*e, "LD_PRELOAD=", 11) && std::strncmp(*e, "WZ_SETTINGS_FILE=", 17))
      env.push_back(*e);
  // (An asan build checks that its runtime comes first; the shim does.)
  if (options.env.count("WZF_DIR"))
    env.insert(env.end(), {std::string("LD_PRELOAD=") + FAULT_SHIM, "ASAN_OPTIONS=verify_asan_link_order=0", "WZF_EVENT_FD=1"});
  for (const auto& [k, v] : options.env) env.push_back(k + "=" + v);
  std::vector<char*> argv, envp;
  for (auto& a : args) argv.push_back(a.data());
  for (auto& e : env) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    ::dup2(out[1], STDOUT_FILENO);
    if (!std::getenv("WZF_VERBOSE")) ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
    ::execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  ::close(out[1]);
  WriterRun run;
  char buf[65536];
  for (ssize_t n; (n = ::read(out[0], buf, sizeof buf)) != 0;)
    if (n > 0) run.output.append(buf, size_t(n));
    else if (errno != EINTR) break;
  ::close(out[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  ::unlink(settings.c_str());
  if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
  parse(run);
  return run;
}

WriterRun runOnCopy(const std::string& start, const std::string& dir, RunOptions options) {
  fs::remove_all(dir);
  copyDir(start, dir);
  options.env["WZF_DIR"] = dir;
  return runWriter(options);
}

std::vector<TracedCall> countCalls(const std::string& start, const std::string& dir, RunOptions options,
                                   const std::string& trace) {
  fs::remove(trace);
  options.env["WZF_TRACE"] = trace;
  runOnCopy(start, dir, options);
  std::vector<TracedCall> calls;
  std::ifstream in(trace);
  for (TracedCall c; in >> c.n >> c.klass >> c.call >> c.file >> c.site;) calls.push_back(c);
  return calls;
}

namespace {

Content readTable(const std::string& dir, unsigned keys) {
  Content content;
  std::map<std::string, uint32_t> keyOf;
  for (uint32_t k = 0; k < keys; ++k) keyOf[std::string((const char*)makeRecord(k, 0).guid, 16)] = k;
  g_ptrLogWriter->SetNone();
  GenericSchemaTable table;
  if ((content.status = table.openTable(dir + "/WzScanDB")) != TBL_OK) return content;
  // (checkConsistency also finds a key stored twice: index 0 is unique.)
  if (table.checkConsistency(&content.problem) != TBL_OK && content.problem.empty())
    content.problem = "checkConsistency failed";
  SGenericRecord rec;
  int s = table.firstRecord(-1, &rec);
  for (; s == TBL_OK && content.problem.empty(); s = table.nextRecord(-1, &rec)) {
    auto it = keyOf.find(std::string((const char*)rec.guid, 16));
    const SGenericRecord want = makeRecord(it == keyOf.end() ? 0 : it->second, rec.refTime);
    if (it == keyOf.end() || std::memcmp(&rec, &want, sizeof rec) != 0) content.problem = "a record that fault_writer never wrote";
    else content.state[std::to_string(it->second)] = rec.refTime;
  }
  if (s != TBL_NOT_FOUND && content.problem.empty()) content.problem = "physical walk ended with " + std::to_string(s);
  if ((s = table.close()) != TBL_OK && content.problem.empty()) content.problem = "close answered " + std::to_string(s);
  return content;
}

Content readDatabase(const std::string& dir, const State& base, const std::vector<Operation>& ops) {
  Content content;
  auto problem = [&](const std::string& what) {
    if (content.problem.empty()) content.problem = what;
  };
  auto record = [](const std::string& path, bool folder) { return boost::make_shared<WzScanDBRecord>(path, folder, 0); };
  g_ptrLogWriter->SetNone();
  WzScanDB db(record("", false));
  CKoError err = db.initialize(dir);
  if (err.IsError()) return problem(err.AsString()), content.status = 1, content;
  if (db.checkConsistency(&content.problem) != TBL_OK) problem("checkConsistency failed");
  std::set<std::string> keys;
  for (const auto& [k, v] : base) keys.insert(k);
  for (const Operation& op : ops) keys.insert(op.key);
  for (const std::string& key : keys) {
    const bool folder = key == "/" || key == "/w";
    WzScanDBRecordBasePtr out = record(key, false);
    bool found = false;
    if ((err = db.checkDBRecord(record(key, folder), out, found)).IsError()) problem(key + ": " + err.AsString());
    if (found) content.state[key] = folder ? 1 : (long long)(out->getRefTime());
  }
  bool consistent = false;  // the tree, once it has a root (an empty database has none)
  if (content.state.count("/") && ((err = db.validateTree(consistent)).IsError() || !consistent))
    problem("validateTree: " + (err.IsError() ? err.AsString() : "inconsistent"));
  if (db.numberOfRecords() != int64_t(content.state.size()))
    problem("records that no operation made: " + std::to_string(db.numberOfRecords()) + " stored, " +
            std::to_string(content.state.size()) + " known");
  if ((err = db.close()).IsError()) problem("close: " + err.AsString());
  return content;
}

}  // namespace

Content readEither(bool database, const std::string& dir, unsigned keys, const State& base,
                   const std::vector<Operation>& ops) {
  return database ? readDatabase(dir, base, ops) : readTable(dir, keys);
}

State applyAcked(State base, const std::vector<Operation>& ops) {
  for (const Operation& op : ops)
    if (op.acked) applyOne(base, op);
  return base;
}

std::optional<size_t> matchPrefix(const State& base, const std::vector<Operation>& ops,
                                  const State& actual, size_t lo, size_t hi) {
  State model = base;
  std::optional<size_t> found;
  size_t p = 0;  // successful operations applied to the model
  auto check = [&] {
    if (p >= lo && p <= hi && model == actual) found = p;
  };
  for (const Operation& op : ops)
    if (!op.failed && p < hi) check(), applyOne(model, op), ++p;
  check();
  return found;
}

void copyDir(const std::string& from, const std::string& to) {
  fs::create_directories(to);
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}

std::string describe(const State& s, size_t max) {
  std::string out = std::to_string(s.size()) + " keys:";
  for (const auto& [k, v] : s) {
    if (max-- == 0) return out + " ...";
    out += " " + k + "=" + std::to_string(v);
  }
  return out;
}

}  // namespace faults
