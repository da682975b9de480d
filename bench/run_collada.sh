#!/usr/bin/env bash
# Collada benchmark: the host's reader against Assimp on a generated 100 MB document and on
# the corpus's largest .dae, one read per fresh process, ours and Assimp's interleaved.
#   bench/run_collada.sh [BUILD_DIR] [DATA_DIR]
# REPEAT=N reads each file N times (default 7). Prints median and best of each side, their
# ratios, and our peak memory beside the scene's arrays.
set -euo pipefail
BUILD=${1:-build}
DATA=${2:-/tmp/orbiscope-collada-bench}
HERE=$(cd "$(dirname "$0")" && pwd)
BIN=$BUILD/bin
[ -x "$BIN/bench_collada" ] || { echo "build bench_collada first (cmake --build $BUILD --target bench_collada)"; exit 2; }
mkdir -p "$DATA"
[ -f "$DATA/big.dae" ] || python3 "$HERE/gen_collada.py" "$DATA/big.dae" 100
FILES=("$DATA/big.dae")
CORPUS=${ORBISCOPE_CORPUS:-$HERE/../../shared/corpus}/dae
if [ -d "$CORPUS" ]; then
    largest=$(ls -S "$CORPUS"/*.dae "$CORPUS"/*.DAE 2>/dev/null | head -1 || true)
    [ -z "$largest" ] || FILES+=("$largest")
fi
REPEAT=${REPEAT:-7}
echo "== Collada reads ($(date -u +%H:%M:%S) UTC, $(nproc) cores, load $(cut -d' ' -f1 /proc/loadavg), $REPEAT runs each, interleaved)"
for f in "${FILES[@]}"; do
    cat "$f" >/dev/null
    ours="" peer="" line=""
    for ((i = 0; i < REPEAT; i++)); do
        line=$("$BIN/bench_collada" "$f" 1)
        ours+=" $(sed -n 's/.*best of 1: \([0-9.]*\) s.*/\1/p' <<<"$line")"
        if [ -x "$BIN/peer_assimp_read" ]; then
            peer+=" $("$BIN/peer_assimp_read" "$f" 1 | sed -n 's/.*seconds=\([0-9.]*\).*/\1/p')"
        fi
    done
    python3 - "$f" "$ours" "$peer" "$line" <<'EOF'
import os, re, statistics, sys
name, ours, peer, line = sys.argv[1], sys.argv[2].split(), sys.argv[3].split(), sys.argv[4]
mb = os.path.getsize(name) / 1e6
o = sorted(map(float, ours))
# Milliseconds with three decimals: the corpus file reads in about a millisecond.
out = "%-28s %7.1f MB  orbiscope median %.3f ms best %.3f ms" % (
    os.path.basename(name), mb, 1e3 * statistics.median(o), 1e3 * o[0])
if peer:
    p = sorted(map(float, peer))
    out += " | Assimp median %.3f ms best %.3f ms | ratio median %.2f best %.2f" % (
        1e3 * statistics.median(p), 1e3 * p[0], statistics.median(p) / statistics.median(o), p[0] / o[0])
print(out)
m = re.search(r"scene arrays ([0-9.]+) MB, peak RSS ([0-9.]+) MB", line)
if m:
    arrays, rss = float(m.group(1)), float(m.group(2))
    print("  peak / scene arrays: %.1f MB / %.1f MB = %.2fx" % (rss, arrays, rss / max(arrays, 1e-9)))
EOF
done
