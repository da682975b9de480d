#!/usr/bin/env bash
# Preview benchmarks: the 1 M-triangle render, then thumbnails of a whole folder (default
# the shared corpus) against reading every file of it twice with `orbiscope info`.
#   bench/run_render.sh [BUILD_DIR] [FOLDER]
set -euo pipefail
BUILD=${1:-build}
DIR=${2:-$(dirname "$0")/../../shared/corpus}
BIN=$BUILD/bin/orbiscope
"$BUILD/bin/bench_render" 1000000 512 5
OUT=$(mktemp -d)
trap 'rm -rf "$OUT"' EXIT
# Wall-clock and CPU (user + system, children included) of each side; on a shared machine
# the CPU figure is the steadier one.
TIMEFORMAT='%R s wall, %U+%S s CPU'
echo "thumbnails (-j $(nproc)):"
time "$BIN" -q thumbnails "$DIR" --out "$OUT" -j "$(nproc)" || true
mapfile -t FILES < <(grep -o '"file": "[^"]*"' "$OUT/report.jsonl" | sed 's/"file": "//; s/"$//')
echo "reading the same ${#FILES[@]} files twice with info (one process a file, $(nproc) at a time):"
time (printf '%s\0' "${FILES[@]}" "${FILES[@]}" | xargs -0 -n 1 -P "$(nproc)" "$BIN" -q info >/dev/null 2>&1 || true)
