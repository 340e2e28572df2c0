# The user's entry points. Each target first installs whatever is missing (scripts/bootstrap is
# idempotent and quick when nothing is), then configures and builds with CMake presets.
PRESET ?= dev
BUILD_DIR := build/$(PRESET)
CTEST_ARGS ?=

.PHONY: all bootstrap bootstrap-tests configure build test run format clean asan asan-world ubsan hardened fuzz bench windows windows-test

all: build

bootstrap:
	@scripts/bootstrap

bootstrap-tests:
	@scripts/bootstrap tests

configure: bootstrap
	@if [ ! -f $(BUILD_DIR)/build.ninja ]; then cmake --preset $(PRESET); fi

build: configure
	cmake --build --preset $(PRESET)

test: bootstrap-tests build
	ctest --preset $(PRESET) $(CTEST_ARGS)

# Starts the engine with its console on the simulated kiosk. Builds only the three programs (the
# tests and benchmarks are `make test`'s), so that a fresh clone gets to a window quickly.
run: configure
	cmake --build --preset $(PRESET) --target kestrix kestrix-sim ksxctl
	$(BUILD_DIR)/apps/kestrix/kestrix --simulate $(ARGS)

asan:
	$(MAKE) test PRESET=asan

# The MinGW-w64 cross-build (engine, simulators, store, Windows adapters, ksxctl.exe and the
# tests that need no Qt) into build/windows, and its tests under Wine in a prefix of its own
# (build/windows/wineprefix). The Wine server is stopped afterwards, whatever the result.
windows:
	@scripts/bootstrap windows
	@if [ ! -f build/windows/build.ninja ]; then cmake --preset windows; fi
	cmake --build --preset windows

windows-test: windows
	@status=0; ctest --preset windows $(CTEST_ARGS) || status=$$?; \
	  build/windows/wine-run --stop; \
	  exit $$status

# The engine and the simulators under the sanitizers, on the unit and virtual-world tests only:
# nothing of Qt is built, so it fits in CI.
SANITIZED_TESTS := test_engine test_sim test_world test_host fuzz_targets
asan-world: bootstrap
	@if [ ! -f build/asan/build.ninja ]; then cmake --preset asan; fi
	cmake --build --preset asan --target $(SANITIZED_TESTS)
	ctest --preset asan -L 'unit|world' $(CTEST_ARGS)

# UndefinedBehaviorSanitizer with clang, whose checks include a double that overflows an integer.
ubsan:
	$(MAKE) test PRESET=ubsan

# Release build with _FORTIFY_SOURCE=2, stack protectors and full RELRO, tested.
hardened:
	$(MAKE) test PRESET=hardened

# Runs every fuzz target for FUZZ_SECONDS (default 60) each; `make test` replays the corpora.
FUZZ_SECONDS ?= 60
fuzz: bootstrap
	@if [ ! -f build/fuzz/build.ninja ]; then cmake --preset fuzz; fi
	cmake --build --preset fuzz --target fuzz_targets
	FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/fuzz

# Every benchmark, then docs/performance.md (several minutes: the real programs run for minutes).
bench:
	@scripts/bootstrap bench
	@$(MAKE) --no-print-directory build
	bench/run $(BUILD_DIR)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build
