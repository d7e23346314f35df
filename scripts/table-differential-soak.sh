#!/usr/bin/env bash
# Long randomized differential runs of the table engine against its model.
#
#   scripts/table-differential-soak.sh [rounds] [ops-per-round] [first-seed]
#
# Each round runs both differential tests with its own seed (first-seed,
# first-seed+1, ...). Environment: BUILD_DIR (default build/release, made
# with the release preset when missing) holds table_tests. A failing round prints its seed, which reproduces it:
#   WZ_TABLE_DIFF_SEED=<seed> WZ_TABLE_DIFF_OPS=<ops> <build>/tests/table/table_tests \
#     --gtest_filter='TableDifferential.*'
set -euo pipefail

rounds=${1:-${ROUNDS:-20}}
ops=${2:-${WZ_TABLE_DIFF_OPS:-200000}}
seed=${3:-${WZ_TABLE_DIFF_SEED:-$(date +%s)}}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=${BUILD_DIR:-build/release}
if [[ ! -f $build/build.ninja && -z ${BUILD_DIR:-} ]]; then
  cmake --preset release
fi
if [[ -f $build/build.ninja ]]; then
  cmake --build "$build" --target table_tests -j2
fi
binary=$(find "$build" -name table_tests -type f -perm -u+x | head -n 1)
if [[ -z "$binary" ]]; then
  echo "table_tests not found under $build" >&2
  exit 2
fi

failed=0
for ((round = 0; round < rounds; round++)); do
  current=$((seed + round))
  if WZ_LOG_FILE=off WZ_TABLE_DIFF_SEED=$current WZ_TABLE_DIFF_OPS=$ops \
      "$binary" --gtest_filter='TableDifferential.*' > /tmp/table-soak-$$.log 2>&1; then
    echo "round $round seed $current: passed ($ops operations per schema)"
  else
    echo "round $round seed $current: FAILED"
    grep -E "Failure|op [0-9]+" /tmp/table-soak-$$.log | head -n 20
    failed=$((failed + 1))
  fi
done
rm -f /tmp/table-soak-$$.log
echo "$((rounds - failed)) passed, $failed failed"
[[ $failed -eq 0 ]]
