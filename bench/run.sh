#!/usr/bin/env bash
# Runs every benchmark: the host figures, then each format's script (bench/run_*.sh)
# which generate their inputs, time orbiscope and, where installed, the peers in one run.
set -uo pipefail
cd "$(dirname "$0")/.."
status=0
if [ -x build/bin/bench_host ]; then
    echo "== host"
    build/bin/bench_host || status=1
fi
for s in bench/run_*.sh; do
    [ -e "$s" ] || continue
    echo "== $s"
    bash "$s" || status=1
done
exit $status
