#!/usr/bin/env bash
# Python module benchmark: orbiscope.read against the CLI's `info` and against meshio's
# reader on the mesh benchmark's OBJ and binary STL, interleaved, REPEAT rounds (default 5).
#   bench/run_python.sh [BUILD_DIR] [DATA_DIR]
set -euo pipefail
BUILD=${1:-build}
DATA=${2:-/tmp/orbiscope-mesh-bench}
HERE=$(cd "$(dirname "$0")" && pwd)
PY=/usr/bin/python3
[ -f "$BUILD"/python/orbiscope*.so ] 2>/dev/null || ls "$BUILD"/python/orbiscope*.so >/dev/null ||
    { echo "build the Python module first (cmake --build $BUILD --target orbiscope_python)"; exit 2; }
if [ ! -f "$DATA/big.obj" ] || [ ! -f "$DATA/big_bin.stl" ]; then
    python3 "$HERE/gen_mesh.py" "$DATA"
fi
PYTHONPATH="$BUILD/python" "$PY" "$HERE/python_bench.py" "$BUILD/bin/orbiscope" "$DATA" "${REPEAT:-5}"
