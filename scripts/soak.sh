#!/usr/bin/env bash
# Pre-release soak: the randomized and crash tests and the fuzzers, for a
# chosen time, with a summary at the end. Not part of CI.
#
#   scripts/soak.sh [minutes]        (default 60)
#
# The time is shared between the parts that exist:
#   table differential soak (scripts/table-differential-soak.sh)   1/4
#   table crash soak        (scripts/table-crash-soak.sh)          1/4
#   killed-process soak     (scripts/killed-soak.sh, when present) 1/4
#   fuzzers                 (scripts/fuzz.sh, both targets)        the rest
# The soak scripts run with a large round count and are stopped when their
# share is up; a part passes when it found no failure in its time. The inputs
# fuzzing found before (tests/hostile/inputs) are replayed through their fuzz
# targets. Environment: BUILD_DIR (release tree for the
# soak scripts, default build/soak). Exit status 0 when every part passed.
set -u
minutes=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
export BUILD_DIR=${BUILD_DIR:-build/soak}
if [[ ! -f $BUILD_DIR/build.ninja ]]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || exit 2
fi
logs=$root/build/soak-logs/$(date +%Y%m%d-%H%M%S)
mkdir -p "$logs"

parts=(table-differential-soak table-crash-soak)
[[ -x scripts/killed-soak.sh ]] && parts+=(killed-soak)
share=$(( minutes * 60 / (${#parts[@]} + 1) ))
(( share < 30 )) && share=30

summary=()
failed=0
run_part() {  # name seconds command...
  local name=$1 seconds=$2
  shift 2
  local start=$SECONDS
  echo "== $name: ${seconds}s (log $logs/$name.log)"
  timeout --signal=TERM --kill-after=30 "$seconds" "$@" >"$logs/$name.log" 2>&1
  local rc=$?
  local took=$(( SECONDS - start ))
  case $rc in
    0) summary+=("$name: PASS (finished in ${took}s)") ;;
    124) summary+=("$name: PASS (no failure in ${took}s; stopped at the time limit)") ;;
    *) summary+=("$name: FAIL (exit $rc after ${took}s; see $logs/$name.log)"); failed=1 ;;
  esac
}

# Build first, outside the timed shares.
cmake --build "$BUILD_DIR" --target table_tests table_crash_test -j2 >"$logs/build.log" 2>&1 ||
  { echo "build failed: $logs/build.log"; exit 2; }
if [[ -x scripts/killed-soak.sh ]]; then
  cmake --build "$BUILD_DIR" -j2 >>"$logs/build.log" 2>&1 || { echo "build failed: $logs/build.log"; exit 2; }
fi

run_part table-differential-soak "$share" scripts/table-differential-soak.sh 1000000 200000
run_part table-crash-soak "$share" scripts/table-crash-soak.sh 1000000
[[ -x scripts/killed-soak.sh ]] && run_part killed-soak "$share" scripts/killed-soak.sh

fuzz_seconds=$(( share / 2 ))
(( fuzz_seconds < 20 )) && fuzz_seconds=20
echo "== fuzzers: ${fuzz_seconds}s each (log $logs/fuzz.log)"
scripts/fuzz.sh "$fuzz_seconds" >"$logs/fuzz.log" 2>&1
fuzz_rc=$?
while IFS= read -r line; do summary+=("$line"); done < <(grep -E '^fuzz_[a-z_]+: exit' "$logs/fuzz.log")
if (( fuzz_rc != 0 )); then
  summary+=("fuzzers: FAIL (new findings or exit $fuzz_rc; see $logs/fuzz.log)")
  failed=1
else
  summary+=("fuzzers: PASS (no new findings)")
fi

# Every input fuzzing found before, replayed through its fuzz target.
for input in tests/hostile/inputs/*.bin; do
  case $(basename "$input") in
    table-*) target=fuzz_table_files ;;
    record-*) target=fuzz_records ;;
    *) continue ;;
  esac
  if ! build/fuzz/fuzz/$target "$input" >"$logs/replay-$(basename "$input").log" 2>&1; then
    summary+=("replay $(basename "$input"): FAIL (crashes again; see $logs)")
    failed=1
  fi
done

echo
echo "Soak summary ($minutes min, logs in $logs):"
printf '  %s\n' "${summary[@]}"
exit $failed
