#!/usr/bin/env bash
# VRML 1.0 / Inventor benchmark against our own VRML97 import of the same geometry:
# interleaved runs of the Inventor read (its peak memory against the geometry's binary
# size), the VRML97 read of the twin world, and the VRML 1.0 writer; CPU-time figures.
#   bench/run_vrml1.sh [BUILD_DIR] [DATA_DIR] [MEGABYTES] [RUNS]
# The files come from bench/gen_inventor.py (deterministic).
set -euo pipefail
BUILD=${1:-build}
DATA=${2:-/tmp/orbiscope-vrml1-bench}
SIZE=${3:-100}
RUNS=${4:-5}
HERE=$(cd "$(dirname "$0")" && pwd)
for b in bench_vrml1 bench_vrml97import; do
    [ -x "$BUILD/bin/$b" ] || { echo "build $b first"; exit 2; }
done
mkdir -p "$DATA"
IV=$DATA/big_${SIZE}.iv
W97=$DATA/big_${SIZE}_97.wrl
[ -f "$IV" ] || python3 "$HERE/gen_inventor.py" "$IV" "$W97" "$SIZE"
cat "$IV" "$W97" >/dev/null # into the page cache
TV=$(mktemp)
trap 'rm -f "$TV"' EXIT
rss_of() { awk -F': ' '/Maximum resident/ {print $2}' "$TV"; }
echo "== VRML 1.0 ($(date -u +%H:%M:%S) UTC, $(nproc) cores, load $(cut -d' ' -f1 /proc/loadavg))"
for run in $(seq "$RUNS"); do
    out=$(/usr/bin/time -v "$BUILD/bin/bench_vrml1" "$IV" 2>"$TV")
    geo=$(grep -o 'geometry_bytes=[0-9]*' <<<"$out" | cut -d= -f2)
    cpu=$(awk -F': ' '/User time|System time/ {s+=$2} END {print s}' "$TV")
    echo "iv   $(head -1 <<<"$out" | cut -d';' -f1); whole process $(python3 -c "import os; print('%.2f s = %.1f MB/s' % ($cpu, os.path.getsize('$IV') / 1e6 / $cpu))"); peak $(python3 -c "print('%.2fx' % ($(rss_of) * 1024 / $geo))")"
    out=$(/usr/bin/time -v "$BUILD/bin/bench_vrml97import" "$W97" 2>"$TV")
    cpu=$(awk -F': ' '/User time|System time/ {s+=$2} END {print s}' "$TV")
    geo=$(grep -o 'geometry_bytes=[0-9]*' <<<"$out" | cut -d= -f2)
    python3 -c "import os; print('wrl97 cpu %.2f s = %.1f MB/s (whole process); peak %.2fx' % ($cpu, os.path.getsize('$W97') / 1e6 / $cpu, $(rss_of) * 1024 / $geo))"
    "$BUILD/bin/bench_vrml1" "$IV" --write | tail -1 | sed 's/^/iv   /'
done
