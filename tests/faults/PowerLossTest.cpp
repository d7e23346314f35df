// Simulated power losses during random writes, with the log flushed on its
// interval, checkpoints (log limit, close and reopen, index rebuilds) and
// map growth in play: every image opens, holds a state that existed, and
// keeps every write acknowledged before the last completed flush of the log.
//
// The shim snapshots, at random calls, each file's durable image (what its
// last successful sync covered) and its current content, under the
// directory's durable and current names. A loss image keeps the durable
// image and adds any subset of what was written since: table pages (4 KiB),
// log sectors (512 bytes), torn bytes of the last one, under either set of
// names, with either file size. WZ_POWERLOSS_ROUNDS, WZ_POWERLOSS_SNAPS (per
// round) and WZ_POWERLOSS_SEED lengthen the run (scripts/powerloss-soak.sh).
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>

#include <gtest/gtest.h>

#include "faults/FaultHarness.h"

namespace faults {
namespace {

// The kinds of loss: nothing written since the syncs; all of it (what a kill
// leaves); of the table files only their meta pages (0 and 1); everything
// but them; any subset, either size; a write-back in ascending order, cut
// short; everything, the log's last new sector torn; the table files' new
// pages, the log as last synced.
enum Loss { kDurable, kEverything, kMetaOnly, kAllButMeta, kRandom, kAscendingCut, kTornLog, kLogBehind, kLossKinds };

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A file of a snapshot: its durable and current bytes (padded to the same
// length, sizes kept), and the units (4 KiB pages, 512-byte log sectors)
// whose bytes differ.
struct SnapFile {
  std::string name, base, current;
  size_t sizes[2] = {0, 0};  // durable, current
  size_t unit = 4096;
  std::vector<size_t> units;
};

// Writes into `dir` the files a power loss at the snapshot in `snap` could
// have left.
void buildLossImage(const std::string& snap, Loss loss, std::mt19937_64& rng, const std::string& dir) {
  const bool durableNames = loss == kDurable || (loss != kEverything && rng() % 2);
  std::ifstream names(snap + (durableNames ? "/names.durable" : "/names.current"));
  std::vector<SnapFile> files;
  size_t total = 0;
  for (std::string name, ino; names >> name >> ino;) {
    SnapFile f{name, readFile(snap + "/d-" + ino), readFile(snap + "/c-" + ino), {0, 0}, 4096, {}};
    if (!fs::exists(snap + "/c-" + ino)) f.current = f.base;
    f.sizes[0] = f.base.size();
    f.sizes[1] = f.current.size();
    const size_t len = std::max(f.sizes[0], f.sizes[1]);
    f.base.resize(len, '\0');
    f.current.resize(len, '\0');
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".log") == 0) f.unit = 512;
    for (size_t u = 0; u * f.unit < len; ++u)
      if (f.base.compare(u * f.unit, f.unit, f.current, u * f.unit, f.unit) != 0) f.units.push_back(u);
    total += f.units.size();
    files.push_back(std::move(f));
  }
  if (loss == kAscendingCut) std::shuffle(files.begin(), files.end(), rng);
  size_t left = total ? size_t(rng() % (total + 1)) : 0;  // units an ascending write-back got to
  fs::create_directories(dir);
  for (const SnapFile& f : files) {
    const bool log = f.unit == 512;
    bool current = rng() % 2, take = false;  // the current size; the last unit taken
    std::string image = f.base;
    for (size_t i = 0; i < f.units.size(); ++i) {
      const size_t at = f.units[i] * f.unit;
      const bool meta = !log && f.units[i] < 2;
      switch (loss) {
        case kDurable: take = false; break;
        case kEverything: take = true; break;
        case kMetaOnly: take = meta; break;
        case kAllButMeta: take = !meta; break;
        case kRandom: take = rng() % 2; break;
        case kAscendingCut: take = left > 0 && left--; break;
        case kTornLog: take = !log || i + 1 < f.units.size(); break;
        default: take = !log;  // the log behind
      }
      if (take) image.replace(at, f.unit, f.current, at, f.unit);
      const size_t torn = loss == kTornLog && !take ? rng() % f.unit : 0;  // bytes of the last log sector
      image.replace(at, torn, f.current, at, torn);
    }
    if (loss == kDurable || loss == kMetaOnly) current = false;
    if (loss == kEverything || loss == kAllButMeta || loss == kTornLog) current = true;
    if (loss == kAscendingCut && take) current = true;
    if (loss == kLogBehind) current = !log;
    image.resize(f.sizes[current]);
    std::ofstream(dir + "/" + f.name, std::ios::binary).write(image.data(), std::streamsize(image.size()));
  }
}

// Rounds of each kind: table rounds (every record compared), a database
// round (validateTree), sync intervals of 0 and a few milliseconds, and
// snapshots at any call or only at syncs, truncations and allocations. Each
// runs the writer once on a directory carried from round to round, then
// builds and judges every kind of loss at every snapshot.
TEST(PowerLoss, EveryImageOpensWithAStateThatExistedAndNoDurableWriteLost) {
  const unsigned long seed = envOr("WZ_POWERLOSS_SEED", 20261123);
#if defined(__SANITIZE_ADDRESS__)
  const unsigned long rounds = envOr("WZ_POWERLOSS_ROUNDS", 2);  // a table round of each sync interval
#else
  const unsigned long rounds = envOr("WZ_POWERLOSS_ROUNDS", 3);  // and a database round
#endif
  std::printf("WZ_POWERLOSS_SEED=%lu\n", seed);
  std::mt19937_64 rng(seed);
  TempDir work[2], scratch;
  State bases[2];
  size_t images = 0, durable = 0, largestLoss = 0;  // durable: acknowledged writes the images had to keep, summed
  const std::string snaps = scratch / "snaps", image = scratch / "image";
  for (unsigned long r = 0; r < rounds; ++r) {
    const bool database = r % 3 == 2;
    const unsigned keys = 300;
    const long ops = database ? 150 : long(300 + rng() % 500);
    const std::string dir = work[database].path(), writerSeed = std::to_string(rng() % 1000000000);
    State& base = bases[database];
    auto args = [&](const std::string& at, long count) {
      return database ? std::vector<std::string>{"db", at, writerSeed, std::to_string(count)}
                      : std::vector<std::string>{"table", at, writerSeed, std::to_string(count), std::to_string(keys)};
    };
    // The losses cut into writes to an existing table (create has its own
    // kill points): made and closed by a writer without the shim.
    if (fs::is_empty(dir)) base = applyAcked({}, runWriter({args(dir, 0)}).ops);
    fs::remove_all(snaps);
    fs::remove_all(scratch / "durable");
    fs::create_directories(snaps);
    RunOptions options;
    options.syncIntervalMs = r % 2 ? 0 : int(1 + rng() % 20);
    options.logLimitMiB = 1;
    if (rng() % 2) options.env["WZF_CALLS"] = "sync,trunc,alloc,mmap,rename,unlink";
    options.env["WZF_NOSYNC"] = "1";
    // The calls of the same run on a copy, to spread the snapshots over them.
    options.args = args(scratch / "count", ops);
    const size_t snapMax = envOr("WZ_POWERLOSS_SNAPS", 4) / (database ? 2 : 1);
    const size_t calls = countCalls(dir, scratch / "count", options, scratch / "count.trace").size();
    options.args = args(dir, ops);
    options.env.insert({{"WZF_DIR", dir}, {"WZF_DURABLE", scratch / "durable"}, {"WZF_SNAP_DIR", snaps},
                        {"WZF_SNAP_EVERY", std::to_string(calls / snapMax + 1)},
                        {"WZF_SNAP_MAX", std::to_string(snapMax)}, {"WZF_SEED", writerSeed}});
    const WriterRun run = runWriter(options);
    SCOPED_TRACE("round " + std::to_string(r) + ", writer seed " + writerSeed + ", interval " +
                 std::to_string(options.syncIntervalMs) + " ms");
    ASSERT_TRUE(run.exitCode == 0 && !run.failed && run.logged.empty())
        << "the writer failed: " << run.output.substr(run.output.size() > 2000 ? run.output.size() - 2000 : 0);
    for (const Snapshot& snap : run.snapshots) {
      // A flush of every write before it returns: each acknowledged table
      // write but the last is covered by a completed one.
      const bool flushesEach = options.syncIntervalMs == 0 && !database;
      ASSERT_TRUE(!flushesEach || snap.acked <= snap.durable + 1) << snap.acked << " acknowledged, " << snap.durable << " flushed";
      durable += snap.durable;
      for (int kind = 0; kind < int(kLossKinds); ++kind) {
        SCOPED_TRACE("snapshot " + std::to_string(snap.id) + ", loss " + std::to_string(kind));
        fs::remove_all(image);
        buildLossImage(snaps + "/" + std::to_string(snap.id), Loss(kind), rng, image);
        const Content content = readEither(database, image, keys, base, run.ops);
        ++images;
        ASSERT_EQ(content.status, 0) << "refused: " << content.problem;
        ASSERT_EQ(content.problem, "");
        const auto at = matchPrefix(base, run.ops, content.state, 0, snap.begun);
        ASSERT_TRUE(at) << "a state that never existed: " << describe(content.state);
        ASSERT_GE(*at, snap.durable) << "lost acknowledged writes that a completed flush covered";
        if (snap.acked > *at) largestLoss = std::max(largestLoss, snap.acked - *at);
      }
    }
    base = applyAcked(base, run.ops);
  }
  std::printf("power loss: %lu rounds, %zu images, at most %zu acknowledged writes lost\n", rounds,
              images, largestLoss);
  EXPECT_GT(images, 8 * rounds) << "too few snapshots to judge";
  EXPECT_GT(durable, 0u) << "no snapshot followed a completed flush of the log";
}

}  // namespace
}  // namespace faults
