#!/usr/bin/env bash
# Runs every fuzz target of build-fuzz for SECONDS each (default 60), one after the
# other, one worker each. Seeds: the target's regression files and, when the shared
# corpus is beside the checkout, its sample files. Findings land in build-fuzz/findings/.
set -euo pipefail
SECONDS_EACH=${1:-60}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BIN=$ROOT/build-fuzz/bin
CORPUS=${ORBISCOPE_CORPUS:-$ROOT/../shared/corpus}
OUT=$ROOT/build-fuzz/findings
mkdir -p "$OUT"
# Which corpus folders seed which target.
seeds_for() {
    case $1 in
        obj) echo obj ;; stl) echo stl ;; 3ds) echo 3ds ;; lxo|lxoimport|lxoupdate) echo lxo ;; vrml1) echo "wrl1 iv" ;;
        lwo) echo lwo ;; lws) echo lws ;; cob) echo cob ;; dxf) echo dxf ;;
        vrml97|vrml97import) echo wrl97 ;; collada) echo dae ;; kmz) echo kmz ;;
        image) echo wrl97 ;; render) echo obj ;;
        formats) echo "obj stl 3ds lxo wrl97 dxf lwo cob iv dae" ;;
        *) ;;
    esac
}
status=0
for exe in "$BIN"/fuzz_*; do
    [ -x "$exe" ] || continue
    name=${exe##*/fuzz_}
    work=$(mktemp -d)
    for r in "$ROOT"/tests/regressions/*; do
        case ${r##*/} in "$name"*|mesh|classic) cp -r "$r"/. "$work"/ 2>/dev/null || true ;; esac
    done
    # Sample files under 1 MiB ("-size -1M" would round every size up to whole MiB: empty files only).
    for d in $(seeds_for "$name"); do
        [ -d "$CORPUS/$d" ] && find "$CORPUS/$d" -type f -size -1024k -exec cp {} "$work"/ \; || true
    done
    echo "== fuzz_$name for ${SECONDS_EACH}s ($(ls "$work" | wc -l) seeds)"
    if ! (cd "$OUT" && "$exe" -max_total_time="$SECONDS_EACH" -max_len=65536 -rss_limit_mb=3072 \
            -artifact_prefix="$OUT/${name}-" "$work" 2>&1 | tail -3); then
        echo "fuzz_$name found a problem; see $OUT"
        status=1
    fi
    rm -rf "$work"
done
exit $status
