#!/usr/bin/env bash
# VRML97 import benchmark: the whole read (engine parse + conversion into the host
# scene) of the large generated world, in MB/s, with the peak memory of that one
# import against the binary size of the geometry it produced.
#   bench/run_vrml97import.sh [BUILD_DIR] [DATA_DIR] [MEGABYTES]
# The world comes from bench/gen_vrml97.py (deterministic), shared with the engine benchmark.
set -euo pipefail
BUILD=${1:-build-vrmlimp}
DATA=${2:-/tmp/orbiscope-vrml97-bench}
SIZE=${3:-120}
HERE=$(cd "$(dirname "$0")" && pwd)
BIN=$BUILD/bin/bench_vrml97import
[ -x "$BIN" ] || { echo "build bench_vrml97import first (cmake --build $BUILD --target bench_vrml97import)"; exit 2; }
mkdir -p "$DATA"
WORLD=$DATA/big_${SIZE}.wrl
[ -f "$WORLD" ] || python3 "$HERE/gen_vrml97.py" "$WORLD" "$SIZE"
cat "$WORLD" >/dev/null # into the page cache

TV=$(mktemp)
trap 'rm -f "$TV"' EXIT
echo "== VRML97 import ($(date -u +%H:%M:%S) UTC, $(nproc) cores, load $(cut -d' ' -f1 /proc/loadavg))"
for run in 1 2 3; do
    out=$(/usr/bin/time -v "$BIN" "$WORLD" 2>"$TV")
    echo "$out" | head -1
    rss=$(awk -F': ' '/Maximum resident/ {print $2}' "$TV")
    cpu=$(awk -F': ' '/User time|System time/ {s+=$2} END {print s}' "$TV")
    geo=$(grep -o 'geometry_bytes=[0-9]*' <<<"$out" | cut -d= -f2)
    python3 - "$WORLD" "$rss" "$cpu" "$geo" <<'PY'
import os, sys
world, rss, cpu, geo = sys.argv[1], int(sys.argv[2]) * 1024, float(sys.argv[3]), int(sys.argv[4])
mb = os.path.getsize(world) / 1e6
print("  cpu %.2f s = %.1f MB/s; peak %.1f MB = %.2fx the geometry's %.1f MB" % (cpu, mb / cpu, rss / 1e6, rss / geo, geo / 1e6))
PY
done
