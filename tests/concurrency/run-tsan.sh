#!/bin/sh
# Builds the concurrency stress test under ThreadSanitizer (build/rel-tsan)
# and runs it repeat-count times; any report stops the run with a failure.
# Each run takes a few seconds; ctest runs it once in the other builds.
#   tests/concurrency/run-tsan.sh [repeat-count]
set -e
here=$(cd "$(dirname "$0")/../.." && pwd)
build=$here/build/rel-tsan
repeat=${1:-20}
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DWZ_WERROR=ON -DWZ_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="-O1 -fno-omit-frame-pointer -fsanitize=thread" \
  -DCMAKE_C_FLAGS="-O1 -fno-omit-frame-pointer -fsanitize=thread" \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread >/dev/null
cmake --build "$build" --target concurrency_tests -j2
TSAN_OPTIONS="halt_on_error=1 ${TSAN_OPTIONS}" "$build/tests/concurrency/concurrency_tests" \
  --gtest_repeat="$repeat" --gtest_brief=1
