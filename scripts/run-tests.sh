#!/usr/bin/env bash
# Installs what is needed, builds, and runs the whole test suite with ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset release
cmake --build --preset release
ctest --preset release
