#!/usr/bin/env bash
# Long crash soak: a writer process (tests/faults fault_writer) killed with
# SIGKILL at random moments, ROUNDS times, alternately on a table and on a
# scan database, each round reopened and compared with the operations it
# acknowledged (tests/table_crash).
#
# usage: scripts/table-crash-soak.sh [ROUNDS [SEED]]
#   ROUNDS   rounds to run (default 1000)
#   SEED     workload seed (default: the current time; printed, so a failure
#            can be replayed with the same seed)
# Environment:
#   BUILD_DIR              build tree (default build/release, made with the
#                          release preset when missing)
#   WZ_CRASH_KEYS          key space (default 20000 here: larger tables, map growth)
#   WZ_CRASH_MAX_DELAY_US  longest time a writer runs before the kill (default 60000)
set -euo pipefail
cd "$(dirname "$0")/.."

rounds=${1:-1000}
seed=${2:-$(date +%s)}
build=${BUILD_DIR:-build/release}

if [[ ! -f $build/build.ninja && -z ${BUILD_DIR:-} ]]; then
  cmake --preset release
fi
cmake --build "$build" --target table_crash_test -j2

echo "table crash soak: $rounds rounds, seed $seed, keys ${WZ_CRASH_KEYS:-20000}"
WZ_CRASH_ROUNDS=$rounds WZ_CRASH_SEED=$seed WZ_CRASH_KEYS=${WZ_CRASH_KEYS:-20000} \
  "$build/tests/table_crash/table_crash_test" --gtest_filter='TableCrash.*'
