#!/usr/bin/env bash
# Installs, from Debian packages, everything the build, the tests and the
# benchmarks need. Safe to run again: packages already present are skipped.
set -euo pipefail

PACKAGES=(
  cmake ninja-build g++ pkg-config git
  libboost-dev liblmdb-dev libssl-dev zlib1g-dev
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
  nlohmann-json3-dev         # the tool's --json output and its kept change reports
  libsqlite3-dev
  clang libclang-rt-14-dev   # libFuzzer targets and sanitizer runtimes
  gnuplot-nox                # benchmark plots
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  SUDO=""
  if [[ $(id -u) -ne 0 ]]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
