#!/bin/sh
# Builds and runs core_bench from a release build: the database layer against
# the bare table engine at one million generic records.
#   bench/core/run.sh [build-dir] [core_bench options...]
set -e
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$here/build/bench-core}
[ $# -gt 0 ] && shift
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" --target core_bench -j2
"$build/bench/core/core_bench" "$@"
