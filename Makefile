# User commands: `make demo` (main job) and `make test` (whole suite).
# Each installs the Debian packages it needs when they are missing.

BUILD_PKGS := g++ cmake ninja-build libgtest-dev zlib1g-dev libzip-dev libpugixml-dev pkg-config python3-jsonschema pybind11-dev python3-dev python3-numpy python3-pytest libstb-dev libjpeg-dev
FUZZ_PKGS  := clang libclang-rt-14-dev
BENCH_PKGS := libassimp-dev libtinyobjloader-dev time python3-meshio
FORMAT_PKGS := clang-format-14
JOBS ?= $(shell nproc)

.PHONY: all demo test test-asan fuzz fuzz-run bench deps deps-fuzz deps-bench deps-format format-check build build-asan clean consumer

all: build

deps:
	@./tools/ensure-packages.sh $(BUILD_PKGS)

deps-fuzz:
	@./tools/ensure-packages.sh $(BUILD_PKGS) $(FUZZ_PKGS)

deps-bench:
	@./tools/ensure-packages.sh $(BUILD_PKGS) $(BENCH_PKGS)

deps-format:
	@./tools/ensure-packages.sh $(FORMAT_PKGS)

# Formatting drift against .clang-format (skips with a message without clang-format-14).
format-check: deps-format
	@./tools/check-format.sh

build: deps
	@cmake --preset default >/dev/null
	@cmake --build --preset default -j $(JOBS)

build-asan: deps
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)

demo: build
	@./tools/demo.sh

test: build
	@ctest --preset default -j $(JOBS)

test-asan: build-asan
	@ctest --preset asan -j $(JOBS)

fuzz: deps-fuzz
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j $(JOBS)

# Runs every fuzz target for FUZZ_SECONDS each (default 60).
fuzz-run: fuzz
	@./tools/fuzz-all.sh $(or $(FUZZ_SECONDS),60)

# Installs the build into build/stage and builds the program of docs/library.md against
# it twice (CMake package, pkg-config), then runs both on the bundled example.
consumer: build
	@./tools/check-consumer.sh

bench: deps-bench build
	@./bench/run.sh

clean:
	rm -rf build build-asan build-fuzz
