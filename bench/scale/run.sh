#!/usr/bin/env bash
# Runs the scale benchmark RUNS times at each size, then summarises the runs
# (minimum and median per phase) and plots microseconds per entry against the
# tree size for every phase.
#   bench/scale/run.sh <build-dir> [output-dir] [sizes...]
#   RUNS=3 (default), DB_DIR=${TMPDIR:-/tmp} (where the databases are made)
# Writes <output-dir>/scale_raw.csv (one row per run and phase, appended),
# scale_summary.txt, scale_summary.csv and scale.png (default output-dir:
# <build-dir>/bench-scale). A size whose tables do not fit in DB_DIR is
# skipped with a message.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:?usage: run.sh <build-dir> [output-dir] [sizes...]}"
out="${2:-$build/bench-scale}"
shift $(( $# >= 2 ? 2 : 1 ))
sizes=("$@")
if ((${#sizes[@]} == 0)); then sizes=(1000000 10000000 50000000); fi
runs="${RUNS:-3}"
db_dir="${DB_DIR:-${TMPDIR:-/tmp}}"

bench="$build/bench/scale/scale_bench"
[[ -x "$bench" ]] || { echo "build the scale_bench target first: $bench" >&2; exit 1; }
mkdir -p "$out"
for n in "${sizes[@]}"; do
  for ((r = 1; r <= runs; r++)); do
    WZ_LOG_FILE=off "$bench" run --entries "$n" --run "$r" --dir "$db_dir" \
      --csv "$out/scale_raw.csv" | tee -a "$out/scale.log"
  done
done
"$bench" summarize "$out/scale_raw.csv" "$out/scale_summary.csv" | tee "$out/scale_summary.txt"
gnuplot -e "datafile='$out/scale_summary.csv'; outfile='$out/scale.png'" "$here/plot.gp"
echo "plot: $out/scale.png"
