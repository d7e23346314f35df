#!/bin/sh
# Builds the exported-function tests and the dlopen client test with
# AddressSanitizer and UndefinedBehaviorSanitizer in their own build directory
# and runs them: destroyed handles dropped afterwards, a prototype destroyed
# by its caller, records deleted through their handles.
#   tests/exports/run-asan.sh [build-dir]
set -e
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$here/build/exports-asan}
flags="-fsanitize=address,undefined -fno-omit-frame-pointer"
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
  -DCMAKE_SHARED_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$build" --target exports_tests client_tests -j2
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
"$build/tests/exports/exports_tests"
"$build/tests/client/client_tests"
