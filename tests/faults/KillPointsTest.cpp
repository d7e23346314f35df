// Kill points: the writer is killed with SIGKILL at each file call (counted
// by the shim) of a create, an open that replays a log, map growth,
// checkpoints, a close, and WzScanDB::copy; after each kill a fresh open of
// the directory must succeed and hold a state that existed with every
// acknowledged write. WZ_FAULT_ALL=1 kills at every call where the suite
// samples at most WZ_FAULT_POINTS (default 60) calls of a scenario
// (scripts/fault-soak.sh).
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

#include "faults/FaultHarness.h"
#include "support/TempDir.h"

namespace faults {
namespace {
namespace fs = std::filesystem;

unsigned long envOr(const char* name, unsigned long fallback) {
  const char* v = std::getenv(name);
  return v && *v ? std::strtoul(v, nullptr, 10) : fallback;
}

struct KillScenario {
  Subject subject;
  // Makes the starting state; answers the operations it ran (their keys).
  std::function<std::vector<Operation>(const std::string& dir)> prepare;
  std::function<std::vector<std::string>(const std::string& dir)> args;
  std::string calls;             // classes counted ("" all)
  int syncIntervalMs = 60000;    // no flusher: the calls come in one order
  int logLimitMiB = 64;
  // Directories the fresh process opens afterwards (relative to the run's).
  std::vector<std::string> opened{""};
};

// Kills the scenario's writer at its calls; returns the number of kills.
size_t killEverywhere(const KillScenario& s) {
  TempDir root;
  const std::string start = root / "start", run = root / "run", probe = root / "probe";
  fs::create_directories(start);
  const std::vector<Operation> setup = s.prepare(start);
  // The starting content of each opened directory, read on a copy.
  std::vector<State> bases;
  for (const std::string& sub : s.opened) {
    fs::remove_all(probe);
    copyDir(start, probe);
    const bool exists = fs::exists(fs::path(probe) / sub / "WzScanDB.dat");
    bases.push_back(exists ? s.subject.read(probe + "/" + sub, {}, setup).state : State{});
  }
  RunOptions options;
  options.args = s.args(run);
  options.syncIntervalMs = s.syncIntervalMs;
  options.logLimitMiB = s.logLimitMiB;
  if (!s.calls.empty()) options.env["WZF_CALLS"] = s.calls;
  options.env["WZF_NOSYNC"] = "1";  // a kill keeps what the page cache holds
  const auto calls = countCalls(start, run, options, root / "trace");
  EXPECT_GT(calls.size(), 3u);
  const size_t limit = envOr("WZ_FAULT_ALL", 0) ? calls.size() : envOr("WZ_FAULT_POINTS", 60);
  const size_t stride = calls.size() > limit ? calls.size() / limit : 1;
  size_t kills = 0;
  for (size_t n = 1 + size_t(std::rand()) % stride; n <= calls.size(); n += stride) {
    const TracedCall& call = calls[n - 1];
    SCOPED_TRACE("killed at call " + std::to_string(n) + ": " + call.call + " " + call.file + " " + call.site);
    fs::remove_all(run);
    fs::create_directories(run);
    copyDir(start, run);
    options.env["WZF_DIR"] = run;
    options.env["WZF_KILL_AT"] = std::to_string(n);
    const WriterRun killed = runWriter(options);
    if (killed.signal == SIGKILL) ++kills;
    else EXPECT_EQ(killed.exitCode, 0) << "the writer died otherwise: signal " << killed.signal;
    size_t acked = 0;
    for (const Operation& op : killed.ops) acked += op.acked;
    for (size_t i = 0; i < s.opened.size(); ++i) {
      const std::string dir = run + "/" + s.opened[i];
      std::vector<Operation> known = setup;
      known.insert(known.end(), killed.ops.begin(), killed.ops.end());
      const Content content = s.subject.read(dir, bases[i], known);
      EXPECT_EQ(content.status, 0) << dir << " does not open: " << content.problem;
      EXPECT_EQ(content.problem, "") << dir;
      // One directory: a state of its writes with every acknowledged one.
      // A copy: the source unchanged, the target as it was or the source.
      const bool ok = s.opened.size() == 1
                          ? matchPrefix(bases[0], killed.ops, content.state, acked, killed.ops.size()).has_value()
                          : content.state == bases[0] || (i > 0 && content.state == bases[i]);
      EXPECT_TRUE(content.status != 0 || ok)
          << dir << " lost an acknowledged write or holds a state that never existed: "
          << describe(content.state);
    }
    if (::testing::Test::HasFailure()) break;
  }
  std::printf("kill points: %zu calls, %zu killed runs checked\n", calls.size(), kills);
  return kills;
}

std::vector<std::string> dbArgs(const std::string& dir, const char* seed, const char* ops) {
  return {"db", dir, seed, ops};
}

TEST(KillPoints, CreateAndFirstWrites) {
  KillScenario s;
  s.subject.database = true;
  s.prepare = [](const std::string&) { return std::vector<Operation>{}; };
  s.args = [](const std::string& dir) { return dbArgs(dir, "11", "3"); };
  EXPECT_GT(killEverywhere(s), 10u);
}

TEST(KillPoints, OpenThatReplaysTheLogOfAKilledWriter) {
  KillScenario s;
  s.subject.database = true;
  s.prepare = [](const std::string& dir) {
    // A writer killed after its writes: the log holds them.
    RunOptions killed;
    killed.args = dbArgs(dir, "5", "60");
    killed.env = {{"FAULT_KILL_AFTER", "40"}};
    const WriterRun run = runWriter(killed);
    EXPECT_EQ(run.signal, SIGKILL);
    EXPECT_TRUE(fs::exists(dir + "/WzScanDB.log"));
    return run.ops;
  };
  s.args = [](const std::string& dir) { return dbArgs(dir, "12", "3"); };
  EXPECT_GT(killEverywhere(s), 10u);
}

TEST(KillPoints, MapGrowthCheckpointsAndCloseOfATable) {
  KillScenario s;
  s.subject.keys = 3000;
  s.prepare = [](const std::string& dir) { return runPlain({"table", dir, "7", "300", "3000"}).ops; };
  // Every call but the log's appends (a kill before one is a kill between
  // operations): growth, checkpoints at the 1 MiB log limit, reopens, rebuilds.
  s.calls = "open,sync,trunc,alloc,rename,unlink,mmap,close";
  s.logLimitMiB = 1;
  s.args = [](const std::string& dir) {
    return std::vector<std::string>{"table", dir, "13", "2600", "3000"};
  };
  EXPECT_GT(killEverywhere(s), 10u);
}

TEST(KillPoints, CopyOfADatabase) {
  KillScenario s;
  s.subject.database = true;
  s.prepare = [](const std::string& dir) {
    fs::create_directories(dir + "/src");
    fs::create_directories(dir + "/dst");
    std::vector<Operation> ops = runPlain(dbArgs(dir + "/src", "3", "40")).ops;
    const std::vector<Operation> old = runPlain(dbArgs(dir + "/dst", "4", "10")).ops;  // replaced
    ops.insert(ops.end(), old.begin(), old.end());
    return ops;
  };
  s.args = [](const std::string& dir) {
    return std::vector<std::string>{"copy", dir + "/src", dir + "/dst"};
  };
  s.opened = {"src", "dst"};
  EXPECT_GT(killEverywhere(s), 5u);
}

}  // namespace
}  // namespace faults
