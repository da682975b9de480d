#!/usr/bin/env bash
# The main job: convert the bundled example to STL, 3D Studio and PLY, and describe the results.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/bin/orbiscope
out=build/demo
mkdir -p "$out"
"$bin" convert examples/house.obj "$out/house.stl"
"$bin" convert examples/house.obj "$out/house.3ds"
"$bin" convert examples/house.obj "$out/house.ply"
"$bin" info "$out/house.3ds"
