#!/usr/bin/env bash
# Runs the tree benchmark on 10 000, 100 000 and 1 000 000 entries and plots
# each operation's throughput against the tree size.
#   bench/tree/run.sh <build-dir> [output-dir] [sizes...]
# Writes <output-dir>/tree_bench.csv, <output-dir>/tree_bench.log and
# <output-dir>/tree_bench.png (default output-dir: <build-dir>/bench-tree).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:?usage: run.sh <build-dir> [output-dir] [sizes...]}"
out="${2:-$build/bench-tree}"
shift $(( $# >= 2 ? 2 : 1 ))
sizes=("$@")
if ((${#sizes[@]} == 0)); then sizes=(10000 100000 1000000); fi

bench="$build/bench/tree/tree_bench"
[[ -x "$bench" ]] || { echo "build the tree_bench target first: $bench" >&2; exit 1; }
mkdir -p "$out"
rm -f "$out/tree_bench.csv" "$out/tree_bench.log"
for n in "${sizes[@]}"; do
  WZ_LOG_FILE=off "$bench" --entries "$n" --dir "${TMPDIR:-/tmp}" --csv "$out/tree_bench.csv" \
    | tee -a "$out/tree_bench.log"
done
gnuplot -e "datafile='$out/tree_bench.csv'; outfile='$out/tree_bench.png'" "$here/plot.gp"
echo "plot: $out/tree_bench.png"
