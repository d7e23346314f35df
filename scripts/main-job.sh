#!/usr/bin/env bash
# The main job: what a new user runs after installing. Scans a real directory
# tree of this machine into a fresh scan database, then builds a scratch tree,
# scans it, changes it (a new file, a modified file, a removed file, a renamed
# folder), scans it again and shows the change report, then the database's
# statistics and its validation, and the queries (changed, find, du).
# Prints how long each step took.
#
#   scripts/main-job.sh BUILD_DIR
#
# WZ_MAIN_JOB_TREE names the real tree to scan (default /usr). Everything is
# written under a temporary directory that is removed at the end.
set -euo pipefail

BUILD_DIR=${1:?usage: main-job.sh BUILD_DIR}
TOOL="$BUILD_DIR/tools/wzscandb"
if [[ ! -x "$TOOL" ]]; then
  echo "main-job: $TOOL is missing; build the project first" >&2
  exit 2
fi
REAL_TREE=${WZ_MAIN_JOB_TREE:-/usr}

WORK=$(mktemp -d "${TMPDIR:-/tmp}/wzscandb-main-job.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
TOTAL_START=$(date +%s.%N)

# seconds START END: the time between two `date +%s.%N` stamps, two decimals.
seconds() {
  LC_ALL=C awk -v s="$1" -v e="$2" 'BEGIN { printf "%.2f", e - s }'
}

# step TITLE ARGS...: runs wzscandb ARGS, shows its output and the time it took.
# Returns the tool's exit status.
step() {
  local title=$1
  shift
  echo
  echo "== $title"
  echo "\$ wzscandb $*"
  local start end status=0
  start=$(date +%s.%N)
  "$TOOL" "$@" || status=$?
  end=$(date +%s.%N)
  LAST_SECONDS=$(seconds "$start" "$end")
  echo "-- $title: $LAST_SECONDS s (exit status $status)"
  return "$status"
}

echo "wzscandb main job, $(date -u '+%Y-%m-%d %H:%M:%S UTC'), work directory $WORK"

# 1. A real tree of this machine.
REAL_DB="$WORK/real-db"
step "scan of $REAL_TREE (a fresh database; new entries are counted, not listed)" \
  scan "$REAL_TREE" --db "$REAL_DB" --list 0 || [[ $? -eq 5 ]]  # 5: some entries unreadable
SCAN_SECONDS=$LAST_SECONDS

echo
echo "== baseline: find walks $REAL_TREE with one lstat per entry and no database"
START=$(date +%s.%N)
find "$REAL_TREE" -printf '%s\n' >/dev/null 2>&1 || true
FIND_SECONDS=$(seconds "$START" "$(date +%s.%N)")
echo "-- baseline: $FIND_SECONDS s; the scan took $(LC_ALL=C awk -v a="$SCAN_SECONDS" -v b="$FIND_SECONDS" \
  'BEGIN { if (b > 0) printf "%.1f", a / b; else printf "n/a" }') times as long"

step "unchanged rescan of $REAL_TREE, two reader threads" \
  scan "$REAL_TREE" --db "$REAL_DB" --list 0 --threads 2 || [[ $? -eq 5 ]]
step "statistics of the $REAL_TREE database" stats "$REAL_DB"
step "validation of the $REAL_TREE database" validate "$REAL_DB"

# 2. A scratch tree of our own, scanned, changed, scanned again.
SCRATCH="$WORK/scratch"
SCRATCH_DB="$WORK/scratch-db"
mkdir -p "$SCRATCH/docs" "$SCRATCH/src/lib/util" "$SCRATCH/data"
echo "read me" > "$SCRATCH/docs/README"
echo "notes" > "$SCRATCH/docs/notes.txt"
echo "int main() { return 0; }" > "$SCRATCH/src/main.c"
echo "void lib(void) {}" > "$SCRATCH/src/lib/lib.c"
echo "void util(void) {}" > "$SCRATCH/src/lib/util/util.c"
head -c 4096 /dev/zero > "$SCRATCH/data/blob.bin"
ln -s ../docs/README "$SCRATCH/data/readme-link"

REF=$(date +%s)
step "first scan of the scratch tree" scan "$SCRATCH" --db "$SCRATCH_DB" --ref-time "$REF"

echo
echo "== changing the scratch tree"
echo "   new file       data/new.dat"
echo "new data" > "$SCRATCH/data/new.dat"
echo "   modified file  docs/notes.txt (appended to)"
echo "more notes" >> "$SCRATCH/docs/notes.txt"
echo "   removed file   src/main.c"
rm "$SCRATCH/src/main.c"
echo "   renamed folder src/lib -> src/core (reported as one rename)"
mv "$SCRATCH/src/lib" "$SCRATCH/src/core"

step "second scan of the scratch tree: the change report" \
  scan "$SCRATCH" --db "$SCRATCH_DB" --ref-time "$((REF + 60))"
step "the last scan's report again, as JSON" changed "$SCRATCH_DB" --json
step "the scratch folder src in the database" ls "$SCRATCH_DB" "$SCRATCH/src"
step "item-by-item walk of the scratch tree" walk "$SCRATCH_DB" "$SCRATCH"
step "full path rebuilt from parent links" path "$SCRATCH_DB" "$SCRATCH/src/core/util/util.c"
step "C sources in the database" find "$SCRATCH_DB" "$SCRATCH" -name '*.c' -type f
step "sizes per folder, one level down" du "$SCRATCH_DB" "$SCRATCH" -d 1
step "statistics of the scratch database" stats "$SCRATCH_DB"
step "validation of the scratch database" validate "$SCRATCH_DB"

TOTAL_END=$(date +%s.%N)
echo
echo "main job done in $(seconds "$TOTAL_START" "$TOTAL_END") s"
