// Crash test: fault_writer (tests/faults) writes a generic table or a scan
// database and acknowledges each operation, and dies by SIGKILL at a random
// moment (FAULT_KILL_US: between calls too, in the middle of a record's copy
// into the log's map). The directory must then open consistent and hold the
// state after every acknowledged operation, the one in flight done or not.
//
// Rounds alternate the table and the database, each in a directory of its
// own carried from round to round, and draw the log's sync interval (0, a
// few ms, a second; a 1 MiB log limit, so checkpoints come every few
// thousand writes). Half the rounds read a copy, leaving the log for the
// next writer to replay (and perhaps be killed replaying); the table writer
// also closes and reopens, and suspends and rebuilds its indexes (in small
// sort runs for odd seeds), so kills land during appends, replays,
// checkpoints, rebuilds and closes.
//
// Environment: WZ_CRASH_ROUNDS, WZ_CRASH_SEED, WZ_CRASH_KEYS,
// WZ_CRASH_MAX_DELAY_US change the run (scripts/table-crash-soak.sh).
#include <signal.h>

#include <random>

#include <gtest/gtest.h>

#include "faults/FaultHarness.h"

namespace faults {
namespace {

TEST(TableCrash, KilledWriterLosesNoAcknowledgedOperation) {
  const uint64_t seed = envOr("WZ_CRASH_SEED", 20261122), maxDelayUs = envOr("WZ_CRASH_MAX_DELAY_US", 60000);
  const unsigned keys = unsigned(envOr("WZ_CRASH_KEYS", 3000)), rounds = unsigned(envOr("WZ_CRASH_ROUNDS", 40));
  std::mt19937_64 rng(seed);
  TempDir dir;
  State base[2];
  size_t acked[2] = {0, 0}, killed = 0;
  for (unsigned round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
    const bool database = round % 2;
    const std::string work = dir / (database ? "db" : "table"), probe = dir / "probe";
    auto args = [&](const std::string& writerSeed, const std::string& ops) {
      return database ? std::vector<std::string>{"db", work, writerSeed, ops}
                      : std::vector<std::string>{"table", work, writerSeed, ops, std::to_string(keys)};
    };
    if (fs::create_directories(work))  // made by a writer that is not killed
      base[database] = applyAcked({}, runWriter({args("1", "0")}).ops);
    RunOptions options;
    options.syncIntervalMs = std::vector<int>{0, 2, 20, 1000}[rng() % 4];
    options.logLimitMiB = 1;
    // Mostly spread over the whole window, sometimes very early (during the
    // open, its replay and its possible index rebuild).
    const uint64_t delay = rng() % 8 == 0 ? rng() % 2000 : 500 + rng() % maxDelayUs;
    options.env["FAULT_KILL_US"] = std::to_string(delay);
    const std::string writerSeed = std::to_string(uint64_t(round) << 32 | (rng() & 0xffffffff));  // (its paths unique)
    options.args = args(writerSeed, "100000000");
    SCOPED_TRACE("round " + std::to_string(round) + " seed " + std::to_string(seed) + ": " + options.args[0] + " seed " +
                 writerSeed + ", killed after " + std::to_string(delay) + " us, interval " +
                 std::to_string(options.syncIntervalMs) + " ms");
    const WriterRun run = runWriter(options);
    killed += run.signal == SIGKILL;
    ASSERT_TRUE(run.signal == SIGKILL || run.exitCode == 0) << "the writer died otherwise: " << run.signal;
    ASSERT_FALSE(run.failed) << run.output.substr(run.output.size() > 2000 ? run.output.size() - 2000 : 0);
    std::string read = work;
    if (rng() % 2) {
      fs::remove_all(probe);
      copyDir(work, read = probe);
    }
    const Content content = readEither(database, read, keys, base[database], run.ops);
    ASSERT_EQ(content.status, 0) << "does not open: " << content.problem;
    ASSERT_EQ(content.problem, "");
    ASSERT_TRUE(matchPrefix(base[database], run.ops, content.state, run.acked(), run.ops.size()))
        << "lost an acknowledged operation or holds a state that never existed (" << run.acked() << " of "
        << run.ops.size() << " acknowledged): " << describe(content.state);
    base[database] = content.state;
    acked[database] += run.acked();
    if (database && base[1].size() > keys) fs::remove_all(work);  // a new database now and then: reads stay quick
  }
  EXPECT_GT(killed, rounds / 2) << "the writers were hardly ever killed";
  EXPECT_GE(acked[0], rounds / 2) << "the table writer barely ran";
  EXPECT_GE(acked[1], rounds / 2) << "the database writer barely ran";
}

}  // namespace
}  // namespace faults
