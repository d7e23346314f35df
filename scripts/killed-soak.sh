#!/usr/bin/env bash
# Long soak of the killed-process test (tests/killed): the wzscandb scan of
# a 40 000-entry tree killed with SIGKILL at random moments, ROUNDS times;
# after each kill the database must open consistent and a new scan complete
# with a tree that validates. (Record writers killed at random moments:
# scripts/table-crash-soak.sh.)
#
# usage: scripts/killed-soak.sh [ROUNDS [SEED]]
#   ROUNDS   rounds (default 50; a scan round takes a few seconds)
#   SEED     seed of the kill moments and operations (default: the current
#            time; printed, so a failure can be replayed with the same seed)
# Environment:
#   BUILD_DIR   build tree (default build/release, made with the release
#               preset when missing)
#   FILTER      gtest filter (default: every test)
set -euo pipefail
cd "$(dirname "$0")/.."

rounds=${1:-50}
seed=${2:-$(date +%s)}
build=${BUILD_DIR:-build/release}

if [[ ! -f $build/build.ninja && -z ${BUILD_DIR:-} ]]; then
  cmake --preset release
fi
cmake --build "$build" --target killed_tests -j2

echo "killed-process soak: $rounds rounds, seed $seed"
WZ_KILLED_ROUNDS=$rounds WZ_KILLED_SEED=$seed \
  "$build/tests/killed/killed_tests" --gtest_filter="${FILTER:-*}"
