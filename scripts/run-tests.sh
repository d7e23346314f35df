#!/usr/bin/env bash
# Installs what is needed, then builds and runs the whole test suite twice:
# in the release preset, and in the asan preset (AddressSanitizer and UBSan,
# any report fails the test). Tests labelled "slow" (the killed-process
# rounds, about a minute in either build) can be left out of a quick local
# run with: ctest --preset asan --label-exclude slow.
# Both test passes run even when the first fails; the exit status is
# non-zero when either failed. Builds use at most 2 jobs (CMakePresets.json).
# From a clean clone on an otherwise idle 2-core machine: about 13 minutes
# for both builds and both test passes together.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh

status=0
cmake --preset release
cmake --build --preset release
ctest --preset release || status=1

cmake --preset asan
cmake --build --preset asan
ctest --preset asan || status=1
exit $status
