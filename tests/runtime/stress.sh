#!/bin/sh
# Repeats the runtime's concurrent tests many times under ThreadSanitizer:
# log lines from many threads, sinks, counters, detached threads.
# Too long for ctest; run by hand.
#   tests/runtime/stress.sh [repeat-count]
set -e
here=$(cd "$(dirname "$0")/../.." && pwd)
build=$here/build/runtime-tsan
repeat=${1:-200}
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DWZ_WERROR=ON -DWZ_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="-O1 -fno-omit-frame-pointer -fsanitize=thread" \
  -DCMAKE_C_FLAGS="-O1 -fno-omit-frame-pointer -fsanitize=thread" \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread >/dev/null
cmake --build "$build" --target runtime_tests -j2
TSAN_OPTIONS="halt_on_error=1 ${TSAN_OPTIONS}" "$build/tests/runtime/runtime_tests" \
  --gtest_repeat="$repeat" --gtest_brief=1 \
  --gtest_filter='RuntimeTest.FileLines*:RuntimeTest.LevelGates*:TextTest.StampsAndCounters*'
