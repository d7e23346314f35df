#!/usr/bin/env bash
# Long power-loss soak of the table engine (tests/faults): ROUNDS rounds of
# random writes under the fault shim, each with SNAPS snapshots, and from
# each snapshot eight simulated power losses (durable state only, everything,
# meta pages only, all but them, a random subset, an ascending write-back
# cut short, a torn log, the log behind the tables). Every image must open,
# hold a state that existed and keep every write acknowledged before the last
# completed flush of the log. Prints the seed and the number of images.
#
# usage: scripts/powerloss-soak.sh [ROUNDS [SNAPS [SEED]]]
#   ROUNDS  rounds (default 40; every third one on the scan database)
#   SNAPS   snapshots per table round (default 12; half on database rounds)
#   SEED    seed (default: the current time; printed)
# Environment: BUILD_DIR (default build/release).
set -euo pipefail
cd "$(dirname "$0")/.."

rounds=${1:-40}
snaps=${2:-12}
seed=${3:-$(date +%s)}
build=${BUILD_DIR:-build/release}

if [[ ! -f $build/build.ninja && -z ${BUILD_DIR:-} ]]; then
  cmake --preset release
fi
cmake --build "$build" --target faults_test -j2

echo "power-loss soak: $rounds rounds, $snaps snapshots a round, seed $seed"
WZ_POWERLOSS_ROUNDS=$rounds WZ_POWERLOSS_SNAPS=$snaps WZ_POWERLOSS_SEED=$seed \
  "$build/tests/faults/faults_test" --gtest_filter='PowerLoss.*'
