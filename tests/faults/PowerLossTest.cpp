// Simulated power losses during random writes, with the log flushed on its
// interval, checkpoints (log limit, close and reopen, index rebuilds) and
// map growth in play: every image opens, holds a state that existed, and
// keeps every write acknowledged before the last completed flush of the log.
// WZ_POWERLOSS_ROUNDS, WZ_POWERLOSS_SNAPS (per round) and WZ_POWERLOSS_SEED
// lengthen the run (scripts/powerloss-soak.sh).
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include "faults/PowerLoss.h"
#include "support/TempDir.h"

namespace faults {
namespace {

unsigned long envOr(const char* name, unsigned long fallback) {
  const char* v = std::getenv(name);
  return v && *v ? std::strtoul(v, nullptr, 10) : fallback;
}

void report(const char* what, const LossTally& t) {
  std::printf("%s: %zu rounds, %zu losses, %zu refused, %zu damaged, %zu acknowledged writes, "
              "largest loss %zu writes / %.3f s\n",
              what, t.rounds, t.images, t.refused, t.damaged, t.acknowledged, t.maxLostOps,
              double(t.maxLostUs) / 1e6);
}

// Rounds of each kind: table rounds (every record compared), a database
// round (validateTree), sync intervals of 0 and a few milliseconds, and
// snapshots at any call or only at syncs, truncations and allocations.
TEST(PowerLoss, EveryImageOpensWithAStateThatExistedAndNoDurableWriteLost) {
  const unsigned long seed = envOr("WZ_POWERLOSS_SEED", 20261123);
#if defined(__SANITIZE_ADDRESS__)
  const unsigned long defaultRounds = 2;  // a table round of each sync interval
#else
  const unsigned long defaultRounds = 3;  // and a database round
#endif
  const unsigned long rounds = envOr("WZ_POWERLOSS_ROUNDS", defaultRounds);
  std::printf("WZ_POWERLOSS_SEED=%lu\n", seed);
  std::mt19937_64 rng(seed);
  TempDir work, dbWork, scratch;
  State tableBase, dbBase;
  LossTally tally;
  for (unsigned long r = 0; r < rounds && tally.firstProblem.empty(); ++r) {
    PowerLossRound round;
    round.database = r % 3 == 2;
    round.ops = round.database ? 150 : long(300 + rng() % 500);
    round.syncIntervalMs = r % 2 ? 0 : int(1 + rng() % 20);
    round.calls = rng() % 2 ? "" : "sync,trunc,alloc,mmap,rename,unlink";
    round.snapMax = long(envOr("WZ_POWERLOSS_SNAPS", 4)) / (round.database ? 2 : 1);
    runPowerLossRound(round.database ? dbWork.path() : work.path(), scratch.path(), round, rng,
                      round.database ? dbBase : tableBase, tally);
  }
  report("power loss", tally);
  EXPECT_EQ(tally.firstProblem, "");
  EXPECT_EQ(tally.refused, 0u);
  EXPECT_EQ(tally.damaged, 0u);
  EXPECT_GT(tally.images, 8 * rounds) << "too few snapshots to judge";
}

}  // namespace
}  // namespace faults
