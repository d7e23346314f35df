#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build/fuzz and runs each one for
# a bounded time (default 60 s each) on a corpus kept under build/fuzz/corpus.
#
#   scripts/fuzz.sh [seconds-per-target]
#
# Each target runs in libFuzzer's fork mode, which carries on after a crash:
# every crash, leak or timeout leaves its input as
# build/fuzz/artifacts/<target>/{crash,leak,timeout}-*; turn each into a
# regression test under tests/hostile/inputs/. The exit status is 0 only when
# no target found anything new. fuzz_log_replay prints why it aborted (the
# expectation that broke) in build/fuzz/fuzz_log_replay.log.
set -u
seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/fuzz
targets=(fuzz_table_files fuzz_records fuzz_log_replay)

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DWZ_BUILD_FUZZERS=ON -DWZ_BUILD_TESTS=OFF -DWZ_BUILD_BENCH=OFF -DWZ_BUILD_TOOLS=OFF \
  >"$build.configure.log" 2>&1 || { cat "$build.configure.log"; exit 2; }
cmake --build "$build" --target "${targets[@]}" -j2 || exit 2

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
# The targets write table files for every input: in memory when there is
# room, so that the disk flushes of the engine cost nothing.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi
status=0
summary=()
for target in "${targets[@]}"; do
  corpus=$build/corpus/$target
  artifacts=$build/artifacts/$target
  mkdir -p "$corpus" "$artifacts"
  if [ "$target" != fuzz_records ] && [ -z "$(ls -A "$corpus")" ]; then
    WZ_FUZZ_WRITE_SEEDS=$corpus "$build/fuzz/$target" || exit 2
  fi
  before=$(ls "$artifacts" | wc -l)
  log=$build/$target.log
  # One forked worker that is restarted after a crash, so that one finding
  # does not end the run: every crash input lands in $artifacts.
  "$build/fuzz/$target" "$corpus" -fork=1 -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 \
    -max_total_time="$seconds" -max_len=262144 -timeout=20 -rss_limit_mb=2048 \
    -artifact_prefix="$artifacts/" >"$log" 2>&1
  rc=$?
  last=$(grep -E '^#[0-9]+: cov:' "$log" | tail -1)
  runs=$(sed -E 's/^#([0-9]+):.*/\1/' <<<"$last")
  rate=$(grep -oE 'exec/s:? [0-9]+' <<<"$last" | grep -oE '[0-9]+$')
  cov=$(grep -oE 'cov: [0-9]+' <<<"$last" | grep -oE '[0-9]+')
  found=$(( $(ls "$artifacts" | wc -l) - before ))
  summary+=("$target: exit $rc, ${runs:-?} runs, ${rate:-?} exec/s, coverage ${cov:-?} edges, corpus $(ls "$corpus" | wc -l) inputs, $found new findings (in $artifacts)")
  if [ $rc -ne 0 ] || [ "$found" -ne 0 ]; then status=1; fi
done
printf '%s\n' "${summary[@]}"
exit $status
