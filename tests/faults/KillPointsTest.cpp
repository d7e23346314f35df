// Kill points: the writer is killed with SIGKILL at each file call (counted
// by the shim) of a create, an open that replays a log, map growth,
// checkpoints, a close, and WzScanDB::copy; after each kill a fresh open of
// the directory must succeed and hold a state that existed with every
// acknowledged write. A scenario samples at most WZ_FAULT_POINTS (default
// 60) of its calls; WZ_FAULT_ALL=1 kills at every one
// (scripts/fault-soak.sh). Kills at random moments, between calls too:
// tests/table_crash.
#include <signal.h>

#include <functional>

#include <gtest/gtest.h>

#include "faults/FaultHarness.h"

namespace faults {
namespace {

struct KillScenario {
  const char* name;
  bool database;
  // Makes the starting state in `dir`; answers the operations it ran.
  std::function<std::vector<Operation>(const std::string& dir)> prepare;
  std::vector<std::string> args;  // "RUN" standing for the run's directory
  std::string calls;              // classes counted ("": all)
  int logLimitMiB;
  // Directories the fresh process opens afterwards (under the run's): one,
  // or a copy's source and target.
  std::vector<std::string> opened;
  size_t minKills;
};

// Kills the scenario's writer at its calls; answers the number of kills.
size_t killEverywhere(const KillScenario& s) {
  TempDir root;
  const std::string start = root / "start", run = root / "run";
  fs::create_directories(start);
  const std::vector<Operation> setup = s.prepare(start);
  // The starting content of each opened directory, read on a copy.
  std::vector<State> bases;
  for (const std::string& sub : s.opened) {
    copyDir(start, root / "probe");
    const bool exists = fs::exists(root / "probe" + "/" + sub + "/WzScanDB.dat");
    bases.push_back(exists ? readEither(s.database, root / "probe" + "/" + sub, 3000, {}, setup).state : State{});
    fs::remove_all(root / "probe");
  }
  RunOptions options({}, {{"WZF_CALLS", s.calls}, {"WZF_NOSYNC", "1"}});  // a kill keeps the page cache
  for (const std::string& a : s.args) options.args.push_back(a.rfind("RUN", 0) == 0 ? run + a.substr(3) : a);
  options.logLimitMiB = s.logLimitMiB;
  const auto calls = countCalls(start, run, options, root / "trace");
  EXPECT_GT(calls.size(), 3u);
  const size_t limit = envOr("WZ_FAULT_ALL", 0) ? calls.size() : envOr("WZ_FAULT_POINTS", 60);
  const size_t stride = calls.size() > limit ? calls.size() / limit : 1;
  size_t kills = 0;
  for (size_t n = 1 + size_t(std::rand()) % stride; n <= calls.size() && !::testing::Test::HasFailure(); n += stride) {
    const TracedCall& call = calls[n - 1];
    SCOPED_TRACE("killed at call " + std::to_string(n) + ": " + call.call + " " + call.file + " " + call.site);
    options.env["WZF_KILL_AT"] = std::to_string(n);
    const WriterRun killed = runOnCopy(start, run, options);
    if (killed.signal == SIGKILL) ++kills;
    else EXPECT_EQ(killed.exitCode, 0) << "the writer died otherwise: signal " << killed.signal;
    std::vector<Operation> known = setup;
    known.insert(known.end(), killed.ops.begin(), killed.ops.end());
    for (size_t i = 0; i < s.opened.size(); ++i) {
      const std::string dir = run + "/" + s.opened[i];
      const Content content = readEither(s.database, dir, 3000, bases[i], known);
      EXPECT_EQ(content.status, 0) << dir << " does not open: " << content.problem;
      EXPECT_EQ(content.problem, "") << dir;
      // One directory: a state of its writes with every acknowledged one.
      // A copy: the source unchanged, the target as it was or the source.
      const bool ok = s.opened.size() == 1
                          ? matchPrefix(bases[0], killed.ops, content.state, killed.acked(), killed.ops.size()).has_value()
                          : content.state == bases[0] || (i > 0 && content.state == bases[i]);
      EXPECT_TRUE(content.status != 0 || ok)
          << dir << " lost an acknowledged write or holds a state that never existed: " << describe(content.state);
    }
  }
  return kills;
}

TEST(KillPoints, CreateReplayGrowthCheckpointsCloseAndCopyLeaveAnOpenableDatabase) {
  auto nothing = [](const std::string&) { return std::vector<Operation>{}; };
  // A writer killed after its writes: the log holds them for the open to replay.
  auto killedWriter = [](const std::string& dir) {
    const WriterRun run = runWriter({{"db", dir, "5", "60"}, {{"FAULT_KILL_AFTER", "40"}}});
    EXPECT_EQ(run.signal, SIGKILL);
    EXPECT_TRUE(fs::exists(dir + "/WzScanDB.log"));
    return run.ops;
  };
  auto table = [](const std::string& dir) { return runWriter({{"table", dir, "7", "300", "3000"}}).ops; };
  auto copySourceAndTarget = [](const std::string& dir) {
    fs::create_directories(dir + "/src");
    fs::create_directories(dir + "/dst");
    std::vector<Operation> ops = runWriter({{"db", dir + "/src", "3", "40"}}).ops;
    const std::vector<Operation> old = runWriter({{"db", dir + "/dst", "4", "10"}}).ops;  // replaced
    ops.insert(ops.end(), old.begin(), old.end());
    return ops;
  };
  // The table's calls but the log's appends (a kill before one is a kill
  // between operations): growth, checkpoints at the 1 MiB log limit,
  // reopens, rebuilds, the close.
  const KillScenario scenarios[] = {
      {"create and first writes", true, nothing, {"db", "RUN", "11", "3"}, "", 64, {""}, 10},
      {"open replaying a log", true, killedWriter, {"db", "RUN", "12", "3"}, "", 64, {""}, 10},
      {"table growth, checkpoints, close", false, table, {"table", "RUN", "13", "2600", "3000"},
       "open,sync,trunc,alloc,rename,unlink,mmap,close", 1, {""}, 10},
      {"copy of a database", true, copySourceAndTarget, {"copy", "RUN/src", "RUN/dst"}, "", 64, {"src", "dst"}, 5},
  };
  for (const KillScenario& s : scenarios) {
    SCOPED_TRACE(s.name);
    EXPECT_GT(killEverywhere(s), s.minKills);
  }
}

}  // namespace
}  // namespace faults
