#!/bin/sh
# Builds and runs runtime_bench from a release build. Compare CPU times with
# the baseline of each group (BM_EmptyLoop, BM_ReturnIntStatus,
# BM_Md5PathOpenSsl) measured in the same run.
#   bench/runtime/run.sh [build-dir] [benchmark options...]
set -e
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$here/build/bench-runtime}
[ $# -gt 0 ] && shift
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" --target runtime_bench -j2
"$build/bench/runtime/runtime_bench" "$@"
