#!/usr/bin/env bash
# Preview benchmarks: the 1 M-triangle render, then thumbnails of a whole folder (default
# the shared corpus) against reading every file of it twice with `orbiscope info`.
#   bench/run_render.sh [BUILD_DIR] [FOLDER] [RUNS]
# The two sides run in turn RUNS times (default 5; every thumbnails run into an empty
# folder, so nothing is skipped as up to date) and the medians are printed.
set -euo pipefail
BUILD=${1:-build}
DIR=${2:-$(dirname "$0")/../../shared/corpus}
RUNS=${3:-5}
BIN=$BUILD/bin/orbiscope
JOBS=$(nproc)
"$BUILD/bin/bench_render" 1000000 512 5
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

# Wall-clock and CPU (user + system, children included) of one command; on a shared
# machine the CPU figure is the steadier one.
measure() {
    local TIMEFORMAT='%R %U %S'
    { time "$@" >/dev/null 2>&1; } 2>"$WORK/time" || true
    awk '{ printf "%.3f %.3f\n", $1, $2 + $3 }' "$WORK/time"
}
thumbnails() {
    rm -rf "$WORK/out"
    "$BIN" -q thumbnails "$DIR" --out "$WORK/out" -j "$JOBS" || true
}
read_twice() { printf '%s\0' "${FILES[@]}" "${FILES[@]}" | xargs -0 -n 1 -P "$JOBS" "$BIN" -q info || true; }

thumbnails >/dev/null 2>&1
mapfile -t FILES < <(grep -o '"file": "[^"]*"' "$WORK/out/report.jsonl" | sed 's/"file": "//; s/"$//')
echo "thumbnails (-j $JOBS) against reading the same ${#FILES[@]} files twice with info (one process a file, $JOBS at a time), $RUNS runs in turn:"
: >"$WORK/thumbs"
: >"$WORK/reads"
for ((i = 1; i <= RUNS; i++)); do
    t=$(measure thumbnails)
    r=$(measure read_twice)
    echo "$t" >>"$WORK/thumbs"
    echo "$r" >>"$WORK/reads"
    echo "  run $i: thumbnails $t, reading twice $r (s wall, s CPU)"
done
median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
for side in thumbs reads; do
    name=$([ "$side" = thumbs ] && echo "thumbnails" || echo "reading twice")
    echo "$name: median $(cut -d' ' -f1 "$WORK/$side" | median) s wall, $(cut -d' ' -f2 "$WORK/$side" | median) s CPU"
done
