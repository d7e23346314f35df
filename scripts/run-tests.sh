#!/usr/bin/env bash
# Installs what is needed, then builds and runs the whole test suite twice:
# in the release preset, and in the asan preset (AddressSanitizer and UBSan,
# any report fails the test). The asan test preset leaves out the tests
# labelled "slow" (the killed-process rounds: scans of a 100 000-entry tree
# that take many minutes under the sanitizers); they run in release.
# Builds use at most 2 jobs (see CMakePresets.json). The whole run from a
# clean clone takes about 25 minutes on 2 cores.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh

cmake --preset release
cmake --build --preset release
ctest --preset release

cmake --preset asan
cmake --build --preset asan
ctest --preset asan
