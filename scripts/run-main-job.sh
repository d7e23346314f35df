#!/usr/bin/env bash
# Installs what is needed, builds, and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset release
cmake --build --preset release
exec ./scripts/main-job.sh build/release
