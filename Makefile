# frfcam: `make demo` and `make test` do everything on a fresh Debian machine.
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
WIN_BUILD ?= build-win64
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60

.PHONY: all deps deps-demo build build-tool build-asan build-tsan demo test test-release test-asan test-tsan bench format clean \
	wheel deps-windows windows test-windows \
	build-fuzz fuzz fuzz-replay

all: build

deps:
	@bash scripts/install-deps

deps-demo:
	@bash scripts/install-deps demo

# The options are given each time: `make demo` and `make build` share the
# build folder, and each sets what the other turned off.
FULL_OPTIONS = -DFRFCAM_BUILD_TESTS=ON -DFRFCAM_BUILD_BENCH=ON -DFRFCAM_BUILD_PYTHON=ON
TOOL_OPTIONS = -DFRFCAM_BUILD_TESTS=OFF -DFRFCAM_BUILD_BENCH=OFF -DFRFCAM_BUILD_PYTHON=OFF

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(FULL_OPTIONS)
	cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DFRFCAM_SANITIZE=ON -DFRFCAM_BUILD_BENCH=OFF
	cmake --build $(ASAN_BUILD) -j $(JOBS)

build-tsan: deps
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFRFCAM_TSAN=ON -DFRFCAM_BUILD_BENCH=OFF
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target test_frfmap test_view

# The demo needs the tool alone, and only the packages that build it: the
# tests, benchmarks and Python module, and what they need, wait for
# `make test`.
build-tool: deps-demo
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(TOOL_OPTIONS)
	cmake --build $(BUILD) -j $(JOBS) --target frfcam_cli

demo: build-tool
	bash scripts/demo $(BUILD)

test-release: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

test-asan: build-asan
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

# The render and cancellation tests, and the viewer's server under many
# clients, under ThreadSanitizer (see tests/support/tsan_isolation.cpp for
# how the worker pool is kept out of it).
test-tsan: build-tsan
	TSAN_OPTIONS=halt_on_error=1 ./$(TSAN_BUILD)/test_frfmap --gtest_filter='RenderCube.*:CubeRecord.*'
	TSAN_OPTIONS=halt_on_error=1 ./$(TSAN_BUILD)/test_view

test: test-release test-asan test-tsan

# The libFuzzer harnesses of tests/fuzz, in a clang build of their own with
# only the core and the harnesses. fuzz-replay runs the committed corpora
# once; fuzz then fuzzes every harness for FUZZ_SECONDS. Either fails on any
# finding.
build-fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=Fuzz \
	  -DCMAKE_C_FLAGS_FUZZ="-O1 -gline-tables-only" -DCMAKE_CXX_FLAGS_FUZZ="-O1 -gline-tables-only" \
	  -DFRFCAM_FUZZ=ON -DFRFCAM_BUILD_TESTS=OFF -DFRFCAM_BUILD_BENCH=OFF -DFRFCAM_BUILD_PYTHON=OFF
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzzers

fuzz-replay: build-fuzz
	bash tests/fuzz/run $(FUZZ_BUILD) replay

fuzz: fuzz-replay
	bash tests/fuzz/run $(FUZZ_BUILD) $(FUZZ_SECONDS)

# The Python package as a wheel in dist/, for Debian's /usr/bin/python3
# (python3-build, no isolation: everything comes from Debian packages).
wheel: build
	FRFCAM_BUILD_DIR=$(abspath $(BUILD)) /usr/bin/python3 -m build --wheel --no-isolation --outdir dist python

# Windows x64: frfcam.dll, frfcam.lib, frfcam.exe and dist/frfcam-VERSION-win64.zip,
# cross-built with mingw-w64 against libraries built from Debian's sources
# (cached outside the tree by scripts/build-win64-deps).
deps-windows:
	@bash scripts/install-deps windows
	@bash scripts/build-win64-deps >/dev/null

windows: deps-windows
	cmake -S . -B $(WIN_BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
	  -DFRFCAM_WIN64_PREFIX="$$(bash scripts/build-win64-deps --print-prefix)" \
	  -DCMAKE_BUILD_TYPE=Release -DFRFCAM_LINUX_BUILD=$(abspath $(BUILD))
	cmake --build $(WIN_BUILD) -j $(JOBS)
	cmake --build $(WIN_BUILD) --target package-win64

# The Windows tests under Wine, and the C host program compared with the
# Linux library (hence the Linux build).
test-windows: windows build
	bash tests/windows/run-tests $(WIN_BUILD)

bench: build
	bash scripts/bench $(BUILD)

format:
	find include src tools tests bench -name '*.h' -o -name '*.cpp' -o -name '*.c' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(WIN_BUILD) $(FUZZ_BUILD) demo-out dist python/build python/*.egg-info
