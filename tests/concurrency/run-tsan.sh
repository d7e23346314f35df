#!/bin/sh
# Builds the concurrency stress under ThreadSanitizer (the tsan preset, that
# test only) and runs it repeat-count times; any report stops the run with a
# failure. scripts/run-tests.sh runs it once in CI.
#   tests/concurrency/run-tsan.sh [repeat-count]
set -e
cd "$(dirname "$0")/../.."
cmake --preset tsan >/dev/null
cmake --build --preset tsan --target concurrency_tests
TSAN_OPTIONS="halt_on_error=1 ${TSAN_OPTIONS}" build/tsan/tests/concurrency/concurrency_tests \
  --gtest_filter='*ConcurrencyStress*' --gtest_repeat="${1:-20}" --gtest_brief=1
