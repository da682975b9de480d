#!/usr/bin/env bash
# Mesh benchmark: orbiscope reads and writes against Assimp and tinyobjloader on the
# same generated files, in one run. Prints MB/s (wall and CPU), ratios and peak memory.
#   bench/run_mesh.sh [BUILD_DIR] [DATA_DIR]
# REPEAT=N runs each read N times (default 5); SAMPLES_OUT=FILE appends every read's time.
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
ratio() { python3 -c "import sys;print('%.2f' % (float(sys.argv[1])/max(float(sys.argv[2]),1e-9)))" "$1" "$2"; }
memline() { python3 -c "import sys;r=int(sys.argv[1])*1024;s=int(sys.argv[2]);print('  peak / scene arrays: %.1f MB / %.1f MB = %.2fx' % (r/1e6, s/1e6, r/s))" "$1" "$2"; }

# The machine's speed drifts from one second to the next (shared hosts), so every read is
# run REPEAT times, ours and the peers' interleaved, and the median and best are compared.
REPEAT=${REPEAT:-5}
declare -A TIMES
# sample KEY CMD...: one timed run; appends the read's own wall time to TIMES[KEY]
sample() {
    local key=$1
    shift
    local out
    out=$(/usr/bin/time -v "$@" 2>"$TV") || { echo "$key: failed"; head -3 "$TV"; return 1; }
    local wall
    wall=$(grep -o 'seconds=[0-9.]*\| in [0-9.]* s' <<<"$out" | grep -o '[0-9.]*' | head -1)
    TIMES[$key]="${TIMES[$key]:-} $wall"
    # SAMPLES_OUT=FILE keeps every sample, so that several runs can be pooled.
    [ -z "${SAMPLES_OUT:-}" ] || echo "$key $wall" >>"$SAMPLES_OUT"
    if [ "${key%%:*}" = ours ]; then
        RSS[$key]=$(awk -F': ' '/Maximum resident/ {print $2}' "$TV")
        SCN[$key]=$(grep -o 'scene_bytes=[0-9]*' <<<"$out" | cut -d= -f2 || true)
    fi
}
declare -A RSS SCN
stats() { python3 -c "import sys,statistics as s;v=sorted(map(float,sys.argv[1].split()));print('%.3f %.3f' % (s.median(v), v[0]))" "$1"; }

echo "== reads ($(date -u +%H:%M:%S) UTC, $(nproc) cores, load $(cut -d' ' -f1 /proc/loadavg), $REPEAT runs each, interleaved)"
for ((i = 0; i < REPEAT; i++)); do
    sample ours:obj "$BIN/bench_mesh" read "$DATA/big.obj"
    [ -x "$BIN/peer_tinyobj_read" ] && sample tinyobj:obj "$BIN/peer_tinyobj_read" "$DATA/big.obj"
    [ -x "$BIN/peer_assimp_read" ] && sample assimp:obj "$BIN/peer_assimp_read" "$DATA/big.obj"
    for kind in bin ascii; do
        sample "ours:stl $kind" "$BIN/bench_mesh" read "$DATA/big_$kind.stl"
        [ -x "$BIN/peer_assimp_read" ] && sample "assimp:stl $kind" "$BIN/peer_assimp_read" "$DATA/big_$kind.stl"
    done
    # The binary STL reader on one thread (hostmem::RunPair runs both sides in turn).
    ORBISCOPE_THREADS=1 sample "ours1:stl bin" "$BIN/bench_mesh" read "$DATA/big_bin.stl"
done
report() { # report LABEL OURS_KEY PEER_KEY PEER_NAME FILE
    local mb o p
    mb=$(python3 -c "import os,sys;print('%.1f' % (os.path.getsize(sys.argv[1])/1e6))" "$5")
    read -r om ob <<<"$(stats "${TIMES[$2]}")"
    printf '%-14s %7s MB  orbiscope median %6.3f s (%6.1f MB/s) best %6.3f s' "$1" "$mb" "$om" \
        "$(python3 -c "print($mb/$om)")" "$ob"
    if [ -n "${TIMES[$3]:-}" ]; then
        read -r pm pb <<<"$(stats "${TIMES[$3]}")"
        printf ' | %s median %6.3f s best %6.3f s | ratio median %s best %s' "$4" "$pm" "$pb" \
            "$(ratio "$pm" "$om")" "$(ratio "$pb" "$ob")"
    fi
    echo
}
report "OBJ" ours:obj tinyobj:obj tinyobjloader "$DATA/big.obj"
report "OBJ" ours:obj assimp:obj Assimp "$DATA/big.obj"
memline "${RSS[ours:obj]}" "${SCN[ours:obj]}"
for kind in bin ascii; do
    report "STL $kind" "ours:stl $kind" "assimp:stl $kind" Assimp "$DATA/big_$kind.stl"
    memline "${RSS[ours:stl $kind]}" "${SCN[ours:stl $kind]}"
done
report "STL bin, 1 thr" "ours1:stl bin" "assimp:stl bin" Assimp "$DATA/big_bin.stl"

# What any reader pays here before it parses anything: mapping and reading the file, new
# pages for the scene's arrays, writing them once (bench_mesh floor, a fresh process each,
# median of REPEAT). Set against the time a target ratio allows.
echo "== memory floor (median of $REPEAT fresh processes; the scene's own arrays only)"
floor() { # floor LABEL FILE SCENE_BYTES PEER_KEY RATIO THREADS
    local lines
    lines=$(for ((i = 0; i < REPEAT; i++)); do "$BIN/bench_mesh" floor "$2" "$3"; done)
    [ -n "${TIMES[$4]:-}" ] || return 0
    read -r pm _ <<<"$(stats "${TIMES[$4]}")"
    python3 -c "$FLOOR_PY" "$1" "$pm" "$5" "$6" <<<"$lines"
}
FLOOR_PY=$(cat <<'PY'
import re, statistics as s, sys
label, peer, ratio, threads = sys.argv[1], float(sys.argv[2]), float(sys.argv[3]), int(sys.argv[4])
rows = [list(map(float, re.findall(r'([0-9.]+) ms', l))) for l in sys.stdin.read().splitlines() if l]
f, one, two, w = (s.median(r[k] for r in rows) for k in range(4))
# With two threads both cores are busy while the pages come in; the writes and the file
# read can at best be shared between them. One thread does everything itself.
least = two + (w + f) / 2 if threads == 2 else one + w + f
print('%-14s file %5.1f ms, new pages %5.1f ms (1 thread) %5.1f ms (2 threads), writing %4.1f ms'
      ' -> at least %5.1f ms on %d thread(s); %gx of the peer median allows %5.1f ms' %
      (label, f, one, two, w, least, threads, ratio, peer * 1000 / ratio))
PY
)
floor "STL bin" "$DATA/big_bin.stl" "${SCN[ours:stl bin]}" "assimp:stl bin" 4 2
floor "OBJ" "$DATA/big.obj" "${SCN[ours:obj]}" "assimp:obj" 6 1

# Warm reads: each program reads the file REPEAT times in one process, keeping its freed
# memory (no first-touch faults), best time. This separates the readers' own work from
# the cost of fresh memory, which on virtual machines can be most of a read.
echo "== warm reads (best of $REPEAT in one process, allocator keeps its memory)"
warm() { GLIBC_TUNABLES=glibc.malloc.mmap_max=0:glibc.malloc.trim_threshold=0xffffffffff "$@"; }
for f in big.obj big_bin.stl big_ascii.stl; do
    o=$(warm "$BIN/bench_mesh" reread "$DATA/$f" "$REPEAT" | grep -o 'best [0-9.]*' | cut -d' ' -f2)
    line=$(printf '%-14s orbiscope %6.3f s' "$f" "$o")
    a=$(warm "$BIN/peer_assimp_read" "$DATA/$f" "$REPEAT" | grep -o 'seconds=[0-9.]*' | cut -d= -f2)
    line+=$(printf ' | Assimp %6.3f s (%sx)' "$a" "$(ratio "$a" "$o")")
    if [ "$f" = big.obj ]; then
        t=$(warm "$BIN/peer_tinyobj_read" "$DATA/$f" "$REPEAT" | grep -o 'seconds=[0-9.]*' | cut -d= -f2)
        line+=$(printf ' | tinyobjloader %6.3f s (%sx)' "$t" "$(ratio "$t" "$o")")
    fi
    echo "$line"
done

echo "== writes (MB/s of output; the time covers Save only; median of $REPEAT into new files)"
OUT=$(mktemp -d)
for job in "big.obj out.obj" "big_bin.stl out.stl" "big.obj out.ply" "big.obj out.ma"; do
    set -- $job
    lines=()
    for ((i = 0; i < REPEAT; i++)); do
        rm -f "$OUT"/*
        lines+=("$("$BIN/bench_mesh" write "$DATA/$1" "$OUT/$2")")
    done
    printf '%s\n' "${lines[@]}" | python3 -c "
import sys,re,statistics as s
ls=[l for l in sys.stdin.read().splitlines() if l]
w=[float(re.search(r'= ([0-9.]+) MB/s wall',l).group(1)) for l in ls]
c=[float(re.search(r'cpu [0-9.]+ s = ([0-9.]+) MB/s',l).group(1)) for l in ls]
name=ls[0].split(':')[0].split('/')[-1]
print('  %-8s median %7.1f MB/s wall (best %7.1f), cpu median %7.1f MB/s' % (name, s.median(w), max(w), s.median(c)))"
done
rm -rf "$OUT"
