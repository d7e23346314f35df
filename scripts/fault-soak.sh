#!/usr/bin/env bash
# Every fault point of tests/faults at once: SIGKILL at every counted call
# of each kill scenario (create, an open that replays a killed writer's
# log, map growth and checkpoints, close, WzScanDB::copy), and every I/O
# error at every call of every write/sync/truncate/allocate site, both EIO
# and ENOSPC, and both ENOSPC and EFBIG for a full disk. The suite samples
# these; this takes them all (tens of minutes).
#
# usage: scripts/fault-soak.sh [GTEST_FILTER]   (default: every fault test)
# Environment: BUILD_DIR (default build/release).
set -euo pipefail
cd "$(dirname "$0")/.."

filter=${1:-'KillPoints.*:IoErrors.*'}
build=${BUILD_DIR:-build/release}

if [[ ! -f $build/build.ninja && -z ${BUILD_DIR:-} ]]; then
  cmake --preset release
fi
cmake --build "$build" --target faults_slow_test -j2

echo "fault soak: every kill point and every injected error ($filter)"
WZ_FAULT_ALL=1 "$build/tests/faults/faults_slow_test" --gtest_filter="$filter"
