#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build/fuzz and runs each one for
# a bounded time (default 60 s each) on a corpus kept under build/fuzz/corpus.
#
#   scripts/fuzz.sh [seconds-per-target]
#
# A crash leaves its input as build/fuzz/artifacts/<target>/crash-*; turn it
# into a regression test under tests/hostile/inputs/. The exit status is 0
# only when no target found a crash, a leak or a timeout.
set -u
seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/fuzz
targets=(fuzz_table_files fuzz_records)

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DWZ_BUILD_FUZZERS=ON -DWZ_BUILD_TESTS=OFF -DWZ_BUILD_BENCH=OFF -DWZ_BUILD_TOOLS=OFF \
  >"$build.configure.log" 2>&1 || { cat "$build.configure.log"; exit 2; }
cmake --build "$build" --target "${targets[@]}" -j2 || exit 2

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
status=0
summary=()
for target in "${targets[@]}"; do
  corpus=$build/corpus/$target
  artifacts=$build/artifacts/$target
  mkdir -p "$corpus" "$artifacts"
  if [ "$target" = fuzz_table_files ] && [ -z "$(ls -A "$corpus")" ]; then
    WZ_FUZZ_WRITE_SEEDS=$corpus "$build/fuzz/$target" || exit 2
  fi
  log=$build/$target.log
  "$build/fuzz/$target" "$corpus" -max_total_time="$seconds" -max_len=262144 -timeout=20 \
    -rss_limit_mb=2048 -artifact_prefix="$artifacts/" -print_final_stats=1 >"$log" 2>&1
  rc=$?
  execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$')
  rate=$(grep -o 'stat::average_exec_per_sec: *[0-9]*' "$log" | grep -o '[0-9]*$')
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*')
  found=$(ls "$artifacts" | wc -l)
  summary+=("$target: exit $rc, ${execs:-?} runs, ${rate:-?} exec/s, coverage ${cov:-?} edges, corpus $(ls "$corpus" | wc -l), findings $found")
  if [ $rc -ne 0 ] || [ "$found" -ne 0 ]; then status=1; fi
done
printf '%s\n' "${summary[@]}"
exit $status
