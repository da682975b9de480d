#!/usr/bin/env bash
# The library as a user gets it: install the build into a fresh prefix, build the
# program shown in docs/library.md against it with find_package and with pkg-config,
# and run both on the bundled example. The program in the document must be the file.
set -euo pipefail
cd "$(dirname "$0")/.."
stage=$PWD/build/stage
rm -rf "$stage" build/consumer build/consumer-pc
cmake --install build --prefix "$stage" >/dev/null
# The document shows the program as it is.
awk '/^```cpp$/{on=1;next} /^```$/{on=0} on' docs/library.md | diff -u docs/library/read_scene.cpp - \
    || { echo "docs/library.md does not show docs/library/read_scene.cpp as it is" >&2; exit 1; }
cmake -S docs/library -B build/consumer -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build build/consumer >/dev/null
mkdir -p build/consumer-pc
g++ docs/library/read_scene.cpp -o build/consumer-pc/read_scene \
    $(PKG_CONFIG_PATH="$stage/lib/pkgconfig" pkg-config --cflags --libs orbiscope)
module=$(PKG_CONFIG_PATH="$stage/lib/pkgconfig" pkg-config --variable=moduledir orbiscope)/orbiscope-formats.so
for program in build/consumer/read_scene build/consumer-pc/read_scene; do
    out=$("$program" "$module" examples/house.obj)
    echo "$out" | tail -1
    echo "$out" | grep -q "^2 meshes" || { echo "$program read the wrong scene" >&2; exit 1; }
done
"$stage/bin/orbiscope" version
