#!/usr/bin/env bash
# Scan benchmark: how fast `wzscandb scan` records a tree, against find(1)
# doing one lstat per entry, and what --threads buys.
#
#   bench/scan/run.sh <build-dir> [runs] [tree]
#
# Part 1, a real tree (default /usr), page cache warm: find -printf of path,
# size, mtime and ctime; GNU tar --listed-incremental to /dev/null (level 0
# and an unchanged level 1); wzscandb first scan with --threads 1 and 2; an
# unchanged rescan with --threads 1 and 2.
# Part 2, a synthetic tree (200 folders of 50 files) whose every stat sleeps
# 200 us (StatDelay.c preloaded): find, then first scans with 1, 2 and 8
# threads.
# Each command runs `runs` times (default 3, at least 3); the table gives the
# minimum and the median of the elapsed and of the processor seconds, and
# each against the baseline of its part (find) measured in the same run.
# Not part of ctest: it takes minutes.
set -euo pipefail
build="${1:?usage: run.sh <build-dir> [runs] [tree]}"
runs="${2:-3}"
tree="${3:-/usr}"
(( runs >= 3 )) || runs=3
tool="$build/tools/wzscandb"
shim="$build/bench/scan/libstatdelay.so"
[[ -x "$tool" && -f "$shim" ]] || { echo "build wzscandb and statdelay first" >&2; exit 1; }
work=$(mktemp -d "${TMPDIR:-/tmp}/wzscandb-scan-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
export WZ_LOG_FILE=off

# measure NAME PREPARE COMMAND...: runs PREPARE (a shell snippet, untimed)
# then COMMAND, `runs` times; records the min and median of its elapsed
# seconds, and of its processor seconds (user + system, all threads), under
# NAME. On a machine shared with other work the elapsed times wander; the
# processor times much less.
declare -A MIN MEDIAN CPUMIN CPUMEDIAN
order=()
measure() {
  local name=$1 prepare=$2
  shift 2
  local times=() cpus=()
  for ((i = 0; i < runs; i++)); do
    eval "$prepare"
    local status=0
    /usr/bin/time -f '%e %U %S' -o "$work/time" "$@" >/dev/null 2>&1 || status=$?
    (( status == 0 || status == 5 )) || { echo "$name failed ($status)" >&2; exit 1; }
    read -r elapsed user system <"$work/time"
    times+=("$elapsed")
    cpus+=("$(LC_ALL=C awk -v u="$user" -v s="$system" 'BEGIN { printf "%.2f", u + s }')")
  done
  local sorted
  sorted=$(printf '%s\n' "${times[@]}" | sort -g)
  MIN[$name]=$(head -1 <<<"$sorted")
  MEDIAN[$name]=$(sed -n "$(( (runs + 1) / 2 ))p" <<<"$sorted")
  sorted=$(printf '%s\n' "${cpus[@]}" | sort -g)
  CPUMIN[$name]=$(head -1 <<<"$sorted")
  CPUMEDIAN[$name]=$(sed -n "$(( (runs + 1) / 2 ))p" <<<"$sorted")
  order+=("$name")
}

ratio() { LC_ALL=C awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else printf "-" }'; }

report() {
  local baseline=$1
  printf '%-38s %8s %8s %7s %7s | %8s %8s %7s %7s\n' "command" "min s" "median s" "min x" "med x" \
    "cpu min" "cpu med" "min x" "med x"
  for name in "${order[@]}"; do
    printf '%-38s %8s %8s %7s %7s | %8s %8s %7s %7s\n' "$name" "${MIN[$name]}" "${MEDIAN[$name]}" \
      "$(ratio "${MIN[$name]}" "${MIN[$baseline]}")" "$(ratio "${MEDIAN[$name]}" "${MEDIAN[$baseline]}")" \
      "${CPUMIN[$name]}" "${CPUMEDIAN[$name]}" \
      "$(ratio "${CPUMIN[$name]}" "${CPUMIN[$baseline]}")" "$(ratio "${CPUMEDIAN[$name]}" "${CPUMEDIAN[$baseline]}")"
  done
  order=()
}

echo "scan benchmark, $(date -u '+%Y-%m-%d %H:%M:%S UTC'), $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
entries=$(find "$tree" | wc -l)
echo
echo "== part 1: $tree ($entries entries), page cache warm; x = against find"
measure "find -printf" "" find "$tree" -printf '%p %s %T@ %C@\n'
measure "tar --listed-incremental (level 0)" "rm -f '$work/snap'" \
  tar --listed-incremental="$work/snap" -cf /dev/null "$tree"
measure "tar --listed-incremental (unchanged)" "" \
  tar --listed-incremental="$work/snap" -cf /dev/null "$tree"
for threads in 1 2; do
  measure "scan, first, --threads $threads" "rm -rf '$work/db'" \
    "$tool" scan "$tree" --db "$work/db" --list 0 --threads "$threads"
done
for threads in 1 2; do
  measure "scan, unchanged, --threads $threads" "" \
    "$tool" scan "$tree" --db "$work/db" --list 0 --threads "$threads"
done
report "find -printf"

slow="$work/slow"
for ((d = 0; d < 200; d++)); do
  mkdir -p "$slow/d$d"
  for ((f = 0; f < 50; f++)); do : > "$slow/d$d/f$f"; done
done
echo
echo "== part 2: a tree of $(find "$slow" | wc -l) entries whose every stat sleeps 200 us; x = against find"
export STATDELAY_US=200
measure "find -printf" "" env LD_PRELOAD="$shim" find "$slow" -printf '%p %s %T@ %C@\n'
for threads in 1 2 8; do
  measure "scan, first, --threads $threads" "rm -rf '$work/slowdb'" \
    env LD_PRELOAD="$shim" "$tool" scan "$slow" --db "$work/slowdb" --list 0 --threads "$threads"
done
report "find -printf"
