#!/usr/bin/env bash
# LXO scene benchmark: interleaved rounds of the import, the update with every mesh layer
# replaced, the plain copy (the bound the update is held to) and the parse-only walk, each
# the best of three runs, then the median of the rounds (wall clock and CPU time).
#   bench/run_lxo.sh [BUILD_DIR] [DATA_DIR] [LAYERS] [ROUNDS]
# The file comes from `bench_lxo gen` (deterministic; 4 layers are about 93 MB). Outputs go
# to $OUT (default DATA_DIR); on a disk-backed folder the kernel's write-back throttling
# shows in the update's and copy's wall clock, which a tmpfs such as /dev/shm leaves out.
set -euo pipefail
BUILD=${1:-build}
DATA=${2:-/tmp/orbiscope-lxo-bench}
LAYERS=${3:-4}
ROUNDS=${4:-5}
for b in bench_lxo bench_lxoimport bench_lxoscene; do
    [ -x "$BUILD/bin/$b" ] || { echo "build $b first"; exit 2; }
done
OUT=${OUT:-$DATA}
mkdir -p "$DATA" "$OUT"
SRC=$DATA/big_$LAYERS.lxo
[ -f "$SRC" ] || "$BUILD/bin/bench_lxo" gen "$SRC" "$LAYERS"
cat "$SRC" >/dev/null # into the page cache
LOG=$(mktemp)
trap 'rm -f "$LOG" "$OUT/out.lxo"' EXIT
echo "== LXO ($(date -u +%H:%M:%S) UTC, $(nproc) cores, load $(cut -d' ' -f1 /proc/loadavg), output to $OUT)"
for round in $(seq "$ROUNDS"); do
    "$BUILD/bin/bench_lxoimport" "$SRC" 3 | sed 's/^orbiscope/import/' | tee -a "$LOG"
    "$BUILD/bin/bench_lxoscene" update "$SRC" "$OUT/out.lxo" 3 | tee -a "$LOG"
    "$BUILD/bin/bench_lxo" copy "$SRC" "$OUT/out.lxo" 3 | tee -a "$LOG"
done
"$BUILD/bin/bench_lxo" walk "$SRC" >/dev/null
echo "== medians of $ROUNDS rounds (load now $(cut -d' ' -f1 /proc/loadavg))"
python3 - "$LOG" "$(stat -c %s "$SRC")" <<'PY'
import re, statistics, sys
mb = int(sys.argv[2]) / 1e6
rows = {}
for line in open(sys.argv[1]):
    kind = line.split()[0]
    wall = re.search(r'seconds=([0-9.]+)', line) or re.search(r'\s([0-9.]+) s\s', line)
    cpu = re.search(r'cpu-seconds=([0-9.]+)', line)
    rows.setdefault(kind, []).append((float(wall.group(1)), float(cpu.group(1)) if cpu else None))
for kind, vals in rows.items():
    w = statistics.median(v[0] for v in vals)
    c = [v[1] for v in vals if v[1] is not None]
    extra = f", CPU {mb / statistics.median(c):.0f} MB/s" if c else ""
    print(f"{kind:8s} {mb / w:6.0f} MB/s wall (median of {len(vals)}){extra}")
PY
