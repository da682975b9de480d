# User commands: `make demo` (main job) and `make test` (whole suite).
# Each installs the Debian packages it needs when they are missing.

BUILD_PKGS := g++ cmake ninja-build libgtest-dev zlib1g-dev libzip-dev libpugixml-dev pkg-config libstb-dev libjpeg-dev
FUZZ_PKGS  := clang libclang-rt-14-dev
BENCH_PKGS := libassimp-dev libtinyobjloader-dev time
JOBS ?= $(shell nproc)

.PHONY: all demo test test-asan fuzz fuzz-run bench deps deps-fuzz deps-bench build build-asan clean

all: build

deps:
	@./tools/ensure-packages.sh $(BUILD_PKGS)

deps-fuzz:
	@./tools/ensure-packages.sh $(BUILD_PKGS) $(FUZZ_PKGS)

deps-bench:
	@./tools/ensure-packages.sh $(BUILD_PKGS) $(BENCH_PKGS)

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

bench: deps-bench build
	@./bench/run.sh

clean:
	rm -rf build build-asan build-fuzz
