// PowerLoss: simulated power losses built from the shim's snapshots, and the
// rounds that make and judge them (the suite's test and
// scripts/powerloss-soak.sh run the same rounds).
//
// A snapshot holds, for the moment it was taken, each file's durable image
// (what its last successful sync covered) and its current content, under the
// directory's durable and current names. A loss image keeps the durable
// image and adds any subset of what was written since: table pages (4 KiB),
// log sectors (512 bytes), torn bytes of the last one, under either set of
// names, with either file size.
#pragma once

#include <cstddef>
#include <random>
#include <string>

#include "faults/FaultHarness.h"

namespace faults {

enum class Loss {
  kDurable,       // nothing written since the syncs
  kEverything,    // all of it (what a kill leaves)
  kMetaOnly,      // of the table files only their meta pages (0 and 1)
  kAllButMeta,    // everything but the table files' meta pages
  kRandom,        // any subset, either size
  kAscendingCut,  // a write-back in ascending order, cut short
  kTornLog,       // everything, the log's last new sector torn
  kLogBehind,     // the table files' new pages, the log as last synced
  kCount
};
const char* lossName(Loss loss);

// Writes into `dir` the files a power loss at the snapshot in `snapDir`
// could have left.
void buildLossImage(const std::string& snapDir, Loss loss, std::mt19937_64& rng,
                    const std::string& dir);

struct LossTally {
  size_t rounds = 0, images = 0, refused = 0, damaged = 0, acknowledged = 0;
  size_t maxLostOps = 0;  // acknowledged operations lost by one image
  long maxLostUs = 0;     // from the first lost acknowledgement to the loss
  std::string firstProblem;
};

struct PowerLossRound {
  bool database = false;  // db mode (validateTree) instead of table mode
  long ops = 400;
  unsigned keys = 300;
  long snapEvery = 0;     // a snapshot before one counted call in snapEvery, at
                          // random (0: about snapMax over the run, counted first)
  long snapMax = 12;
  std::string calls;      // classes the shim counts ("" all)
  int syncIntervalMs = 5;
};

// Runs the writer once in `workDir` (which carries the table from round to
// round; `base` is its content and is brought forward), then builds and
// judges every kind of loss at every snapshot.
void runPowerLossRound(const std::string& workDir, const std::string& scratch,
                       const PowerLossRound& round, std::mt19937_64& rng, State& base,
                       LossTally& tally);

}  // namespace faults
