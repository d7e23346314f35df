#include "faults/FaultHarness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "WzScanDB/WzScanDBExports.h"
#include "support/GenericSchemaTable.h"
#include "support/OpenGenericDatabase.h"
#include "table_crash/CrashWriter.h"

extern char** environ;

namespace faults {
namespace fs = std::filesystem;

namespace {

void parse(WriterRun& run) {
  std::istringstream lines(run.output);
  std::string line;
  std::map<unsigned long, size_t> bySeq;
  // Sync id -> (of the log, operations whose log records it covers: those
  // whose record was written, past the header slots, before it began).
  std::map<long, std::pair<bool, size_t>> syncs;
  size_t begun = 0, acked = 0, durable = 0, recorded = 0;
  auto isLog = [](const std::string& file) {
    return file.size() > 4 && file.compare(file.size() - 4, 4, ".log") == 0;
  };
  while (std::getline(lines, line)) {
    std::istringstream f(line);
    char kind = 0;
    f >> kind;
    if (kind == 'B') {
      Operation op;
      f >> op.seq >> op.key >> op.value;
      bySeq[op.seq] = run.ops.size();
      run.ops.push_back(op);
      ++begun;
    } else if (kind == 'A' || kind == 'F') {
      unsigned long seq = 0;
      f >> seq;
      Operation& op = run.ops.at(bySeq.at(seq));
      if (kind == 'A') {
        op.acked = true;
        f >> op.ackUs;
        ++acked;
      } else {
        f >> op.failed;
        run.failed = true;
        if (!run.firstFailure) run.firstFailure = op.failed;
        --begun;
      }
    } else if (kind == 'Y') {
      long id = 0, us = 0;
      std::string file;
      f >> id >> us >> file;
      syncs[id] = {isLog(file), recorded};
    } else if (kind == 'W') {
      long long offset = 0, length = 0;
      std::string file;
      f >> offset >> length >> file;
      if (isLog(file) && offset >= 4096) recorded = begun;
    } else if (kind == 'Z') {
      long id = 0;
      int rc = -1;
      f >> id >> rc;
      auto it = syncs.find(id);
      if (it != syncs.end() && it->second.first && rc == 0) {
        if (it->second.second > durable) durable = it->second.second;
        ++run.logSyncs;
      }
    } else if (kind == 'S') {
      Snapshot s;
      f >> s.id >> s.us;
      s.begun = begun;
      s.acked = acked;
      s.durable = std::min(durable, acked);
      run.snapshots.push_back(s);
    } else if (kind == 'E') {
      run.errors.push_back(line.substr(2));
      run.failed = true;
      // (-1: a call that answers no status, suspendIndexing)
      const int status = std::atoi(line.c_str() + 2);
      if (!run.firstFailure && status != -1) run.firstFailure = status;
    } else if (kind == 'L') {
      run.logged.push_back(line.substr(2));
    }
  }
}

}  // namespace

WriterRun runWriter(const RunOptions& options) {
  char settings[] = "/tmp/wzfault-settings-XXXXXX";
  const int sfd = mkstemp(settings);
  if (sfd < 0) throw std::runtime_error("mkstemp");
  const std::string text = "[~FileSystemAgent]\nnWzScanDBSyncIntervalMs = " +
                           std::to_string(options.syncIntervalMs) + "\nnWzScanDBLogLimitMiB = " +
                           std::to_string(options.logLimitMiB) + "\n";
  if (::write(sfd, text.data(), text.size()) != ssize_t(text.size())) throw std::runtime_error("settings");
  ::close(sfd);

  std::vector<std::string> env;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "WZF_", 4) != 0 && std::strncmp(*e, "LD_PRELOAD=", 11) != 0 &&
        std::strncmp(*e, "WZ_SETTINGS_FILE=", 17) != 0)
      env.push_back(*e);
  env.push_back(std::string("WZ_SETTINGS_FILE=") + settings);
  if (options.shim) {
    env.push_back(std::string("LD_PRELOAD=") + FAULT_SHIM);
    // An asan build checks that its runtime comes first; the shim does.
    env.push_back("ASAN_OPTIONS=verify_asan_link_order=0");
    env.push_back("WZF_EVENT_FD=1");
  }
  for (const auto& [k, v] : options.env) env.push_back(k + "=" + v);
  std::vector<std::string> args{FAULT_WRITER};
  args.insert(args.end(), options.args.begin(), options.args.end());
  std::vector<char*> argv, envp;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);

  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    ::dup2(out[1], STDOUT_FILENO);
    const int null = ::open("/dev/null", O_WRONLY);
    if (!std::getenv("WZF_VERBOSE")) ::dup2(null, STDERR_FILENO);
    if (!options.limitAs.empty()) {
      const rlim_t bytes = rlim_t(std::stoull(options.limitAs)) * 1024;
      rlimit lim{bytes, bytes};
      ::setrlimit(RLIMIT_AS, &lim);
    }
    ::execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  ::close(out[1]);
  WriterRun run;
  char buf[65536];
  for (ssize_t n; (n = ::read(out[0], buf, sizeof buf)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    run.output.append(buf, size_t(n));
  }
  ::close(out[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  ::unlink(settings);
  if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
  parse(run);
  return run;
}

std::vector<TracedCall> readTrace(const std::string& path) {
  std::vector<TracedCall> calls;
  std::ifstream in(path);
  TracedCall c;
  while (in >> c.n >> c.klass >> c.call >> c.file >> c.site) calls.push_back(c);
  return calls;
}

Content readTable(const std::string& dir, unsigned keys) {
  Content content;
  std::map<std::string, uint32_t> keyOf;
  for (uint32_t k = 0; k < keys; ++k)
    keyOf[std::string(reinterpret_cast<const char*>(crashtest::makeRecord(k, 0).guid), 16)] = k;
  g_ptrLogWriter->SetNone();
  GenericSchemaTable table;
  content.status = table.openTable(dir + "/WzScanDB");
  if (content.status != TBL_OK) return content;
  if (table.checkConsistency(&content.problem) != TBL_OK && content.problem.empty())
    content.problem = "checkConsistency failed";
  SGenericRecord rec;
  int s = table.firstRecord(-1, &rec);
  for (; s == TBL_OK && content.problem.empty(); s = table.nextRecord(-1, &rec)) {
    auto it = keyOf.find(std::string(reinterpret_cast<const char*>(rec.guid), 16));
    const SGenericRecord want = crashtest::makeRecord(it == keyOf.end() ? 0 : it->second, rec.refTime);
    if (it == keyOf.end() || std::memcmp(&rec, &want, sizeof rec) != 0)
      content.problem = "a record that fault_writer never wrote";
    else if (!content.state.emplace(std::to_string(it->second), rec.refTime).second)
      content.problem = "key " + std::to_string(it->second) + " stored twice";
  }
  if (s != TBL_NOT_FOUND && content.problem.empty())
    content.problem = "physical walk ended with " + std::to_string(s);
  const int closed = table.close();
  if (closed != TBL_OK && content.problem.empty()) content.problem = "close answered " + std::to_string(closed);
  return content;
}

Content readDatabase(const std::string& dir, const std::vector<std::string>& keys) {
  Content content;
  CKoError err;
  WzScanDBPtr db = OpenGenericDatabase(dir, err);
  if (err.IsError()) {
    content.status = 1;
    content.problem = err.AsString();
    DestroyWzScanDBObject(db);
    return content;
  }
  if (db->checkConsistency(&content.problem) != 0 && content.problem.empty())
    content.problem = "checkConsistency failed";
  for (const std::string& key : std::set<std::string>(keys.begin(), keys.end())) {
    WzScanDBRecordPtr in, out;
    std::string path = key;
    CreateGlusterRecordObject(in, path, key == "/" || key == "/w", 0);
    CreateGlusterRecordObject(out, path, false, 0);
    bool found = false;
    CKoError e;
    WzScanDBObjectCheckDBRecord(db, in, out, found, e);
    if (e.IsError() && content.problem.empty()) content.problem = key + ": " + e.AsString();
    if (found) content.state[key] = (key == "/" || key == "/w") ? 1 : (long long)(out->getRefTime());
  }
  // The tree, once it has a root (an empty database has none to walk).
  bool consistent = false;
  if (content.state.count("/")) WzScanDBObjectValidateTree(db, consistent, err);
  if (content.problem.empty() && content.state.count("/") && (err.IsError() || !consistent))
    content.problem = "validateTree: " + (err.IsError() ? err.AsString() : std::string("inconsistent"));
  if (content.problem.empty() && db->numberOfRecords() != int64_t(content.state.size()))
    content.problem = "records that no operation made: " + std::to_string(db->numberOfRecords()) +
                      " stored, " + std::to_string(content.state.size()) + " known";
  WzScanDBObjectClose(db, err);
  if (err.IsError() && content.problem.empty()) content.problem = "close: " + err.AsString();
  DestroyWzScanDBObject(db);
  return content;
}

std::vector<Operation> notFailed(const std::vector<Operation>& ops) {
  std::vector<Operation> out;
  for (const Operation& op : ops)
    if (!op.failed) out.push_back(op);
  return out;
}

namespace {
void applyOne(State& s, const Operation& op) {
  if (op.value < 0) s.erase(op.key);
  else s[op.key] = op.value;
}
}  // namespace

State applyAcked(State base, const std::vector<Operation>& ops) {
  for (const Operation& op : ops)
    if (op.acked) applyOne(base, op);
  return base;
}

std::optional<size_t> matchPrefix(const State& base, const std::vector<Operation>& ops,
                                  const State& actual, size_t lo, size_t hi) {
  const std::vector<Operation> live = notFailed(ops);
  if (hi > live.size()) hi = live.size();
  State model = base;
  for (size_t i = 0; i < lo && i < live.size(); ++i) applyOne(model, live[i]);
  // Keys whose model value differs from the actual one.
  auto differs = [&](const std::string& key) {
    const auto m = model.find(key);
    const auto a = actual.find(key);
    if (m == model.end() || a == actual.end()) return (m == model.end()) != (a == actual.end());
    return m->second != a->second;
  };
  std::set<std::string> wrong;
  for (const auto& [k, v] : model)
    if (differs(k)) wrong.insert(k);
  for (const auto& [k, v] : actual)
    if (differs(k)) wrong.insert(k);
  std::optional<size_t> found;
  for (size_t p = lo;; ++p) {
    if (wrong.empty()) found = p;
    if (p >= hi) break;
    applyOne(model, live[p]);
    if (differs(live[p].key)) wrong.insert(live[p].key);
    else wrong.erase(live[p].key);
  }
  return found;
}

void copyDir(const std::string& from, const std::string& to) {
  fs::create_directories(to);
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}

std::string difference(const State& actual, const State& expected, size_t max) {
  std::set<std::string> keys;
  for (const auto& [k, v] : actual) keys.insert(k);
  for (const auto& [k, v] : expected) keys.insert(k);
  std::string out;
  size_t count = 0;
  for (const std::string& k : keys) {
    const auto a = actual.find(k);
    const auto e = expected.find(k);
    const std::string av = a == actual.end() ? "-" : std::to_string(a->second);
    const std::string ev = e == expected.end() ? "-" : std::to_string(e->second);
    if (av == ev) continue;
    if (count++ < max) out += " " + k + ": " + av + "/" + ev;
  }
  return std::to_string(count) + " keys differ (actual/expected):" + out;
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

namespace faults {

Content Subject::read(const std::string& dir, const State& base,
                      const std::vector<Operation>& ops) const {
  if (!database) return readTable(dir, keys);
  std::vector<std::string> all;
  for (const auto& [k, v] : base) all.push_back(k);
  for (const Operation& op : ops) all.push_back(op.key);
  return readDatabase(dir, all);
}

WriterRun runPlain(const std::vector<std::string>& args, int syncIntervalMs) {
  RunOptions options;
  options.shim = false;
  options.args = args;
  options.syncIntervalMs = syncIntervalMs;
  return runWriter(options);
}

std::vector<TracedCall> countCalls(const std::string& start, const std::string& dir,
                                   RunOptions options, const std::string& trace) {
  fs::remove_all(dir);
  fs::create_directories(dir);
  copyDir(start, dir);
  fs::remove(trace);
  options.env["WZF_DIR"] = dir;
  options.env["WZF_TRACE"] = trace;
  runWriter(options);
  return readTrace(trace);
}

}  // namespace faults
