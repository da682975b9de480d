#!/usr/bin/env bash
# Mesh benchmark: orbiscope reads and writes against Assimp and tinyobjloader on the
# same generated files, in one run. Prints MB/s (wall and CPU), ratios and peak memory.
#   bench/run_mesh.sh [BUILD_DIR] [DATA_DIR]
# Wall time suffers on a shared machine; CPU time (user + system) is the steadier
# figure, so ratios are given for both.
set -euo pipefail
BUILD=${1:-build-mesh}
DATA=${2:-/tmp/orbiscope-mesh-bench}
HERE=$(cd "$(dirname "$0")" && pwd)
BIN=$BUILD/bin
[ -x "$BIN/bench_mesh" ] || { echo "build bench_mesh first (cmake --build $BUILD --target bench_mesh)"; exit 2; }
if [ ! -f "$DATA/big.obj" ] || [ ! -f "$DATA/big_bin.stl" ] || [ ! -f "$DATA/big_ascii.stl" ]; then
    python3 "$HERE/gen_mesh.py" "$DATA"
fi
for f in "$DATA"/big.obj "$DATA"/big.mtl "$DATA"/big_bin.stl "$DATA"/big_ascii.stl; do cat "$f" >/dev/null; done

TV=$(mktemp)
trap 'rm -f "$TV"' EXIT
# run LABEL FILE_FOR_MB CMD... -> prints one line, sets WALL CPU RSS MB
run() {
    local label=$1 sizefile=$2
    shift 2
    local out
    out=$(/usr/bin/time -v "$@" 2>"$TV") || { echo "$label: failed"; cat "$TV" | head -3; return 1; }
    local mb wall cpu rss
    mb=$(python3 -c "import os,sys;print(os.path.getsize(sys.argv[1])/1e6)" "$sizefile")
    wall=$(grep -o 'seconds=[0-9.]*\| in [0-9.]* s' <<<"$out" | grep -o '[0-9.]*' | head -1)
    cpu=$(awk -F': ' '/User time|System time/ {s+=$2} END {print s}' "$TV")
    rss=$(awk -F': ' '/Maximum resident/ {print $2}' "$TV")
    printf '%-34s %8.1f MB  wall %7.3f s %8.1f MB/s   cpu %7.3f s %8.1f MB/s   peak %7.1f MB\n' \
        "$label" "$mb" "$wall" "$(python3 -c "print($mb/max($wall,1e-9))")" "$cpu" \
        "$(python3 -c "print($mb/max($cpu,1e-9))")" "$(python3 -c "print($rss/1024)")"
    RESULT_WALL=$wall RESULT_CPU=$cpu RESULT_RSS=$rss
    SCENE=$(grep -o 'scene_bytes=[0-9]*' <<<"$out" | cut -d= -f2 || true)
}
ratio() { python3 -c "import sys;print('%.2f' % (float(sys.argv[1])/max(float(sys.argv[2]),1e-9)))" "$1" "$2"; }
memline() { python3 -c "import sys;r=int(sys.argv[1])*1024;s=int(sys.argv[2]);print('  peak / scene arrays: %.1f MB / %.1f MB = %.2fx' % (r/1e6, s/1e6, r/s))" "$1" "$2"; }

echo "== reads ($(date -u +%H:%M:%S) UTC, $(nproc) cores, load $(cut -d' ' -f1 /proc/loadavg))"
run "orbiscope OBJ" "$DATA/big.obj" "$BIN/bench_mesh" read "$DATA/big.obj"
OW=$RESULT_WALL OC=$RESULT_CPU; memline "$RESULT_RSS" "$SCENE"
if [ -x "$BIN/peer_tinyobj_read" ]; then
    run "tinyobjloader OBJ" "$DATA/big.obj" "$BIN/peer_tinyobj_read" "$DATA/big.obj"
    echo "  OBJ vs tinyobjloader: wall $(ratio "$RESULT_WALL" "$OW")x  cpu $(ratio "$RESULT_CPU" "$OC")x"
fi
if [ -x "$BIN/peer_assimp_read" ]; then
    run "assimp OBJ" "$DATA/big.obj" "$BIN/peer_assimp_read" "$DATA/big.obj"
    echo "  OBJ vs Assimp: wall $(ratio "$RESULT_WALL" "$OW")x  cpu $(ratio "$RESULT_CPU" "$OC")x"
fi
for kind in bin ascii; do
    f="$DATA/big_$kind.stl"
    run "orbiscope STL $kind" "$f" "$BIN/bench_mesh" read "$f"
    SW=$RESULT_WALL SC=$RESULT_CPU; memline "$RESULT_RSS" "$SCENE"
    if [ -x "$BIN/peer_assimp_read" ]; then
        run "assimp STL $kind" "$f" "$BIN/peer_assimp_read" "$f"
        echo "  STL $kind vs Assimp: wall $(ratio "$RESULT_WALL" "$SW")x  cpu $(ratio "$RESULT_CPU" "$SC")x"
    fi
done

echo "== writes (MB/s of output; the time covers Save only)"
OUT=$(mktemp -d)
for job in "big.obj out.obj" "big_bin.stl out.stl" "big.obj out.ply" "big.obj out.ma"; do
    set -- $job
    line=$("$BIN/bench_mesh" write "$DATA/$1" "$OUT/$2")
    echo "  $line"
done
rm -rf "$OUT"
