#!/bin/sh
# Builds the core tests with AddressSanitizer and UndefinedBehaviorSanitizer in
# their own build directory and runs them, the slow statistics-thread cases
# (a database destroyed without close, the periodic dump) included.
#   tests/core/run-asan.sh [build-dir] [gtest options...]
set -e
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$here/build/core-asan}
[ $# -gt 0 ] && shift
flags="-fsanitize=address,undefined -fno-omit-frame-pointer"
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
  -DCMAKE_SHARED_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$build" --target core_tests -j2
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  "$build/tests/core/core_tests" "$@"
