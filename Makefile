# Entry points for people and CI. `make demo` builds everything and runs the
# main job on the built-in sample; `make test` (what CI runs) builds and runs
# every test in a normal build and under AddressSanitizer +
# UndefinedBehaviorSanitizer, makes Release builds of the library and the
# tool with GCC and Clang, and builds the Windows version with MinGW-w64 and
# runs its tests under Wine. The sanitizer and Windows builds are unity
# builds (CMake compiles each target's sources a few at a time as one unit),
# which roughly halves their compile time; the normal and Release builds
# compile every source on its own, as users and packagers do.

BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
FUZZ_SECONDS ?= 60
# Mutation testing (make mutate): the seeded sample of planted faults.
SEED       ?= 2026
COUNT      ?= 60
MUTATE_PATHS ?= engine archive operations volumes platform foundation
CMAKE_FLAGS ?=
# Warnings are errors in every build made here (and so in CI); WERROR=OFF
# turns that off for one run.
WERROR     ?= ON
RELEASE_BUILD ?= build-release
WINDOWS_BUILD ?= build-windows

.PHONY: all deps build demo test test-release test-asan release-builds windows test-windows package package-windows fuzz bench bench-parallel bench-tree install-check mutate format clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALVERN_WERROR=$(WERROR) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS)

demo: build
	@scripts/demo.sh $(BUILD)

test: test-release test-asan release-builds test-windows

test-release: build
	cd $(BUILD) && ctest -j$(JOBS) --output-on-failure --no-tests=error

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DTALVERN_SANITIZE=ON -DTALVERN_WERROR=$(WERROR) \
	  -DTALVERN_BUILD_BENCH=OFF -DCMAKE_UNITY_BUILD=ON $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD) -j$(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest -j$(JOBS) --output-on-failure --no-tests=error

# What a packager builds: the library and the tool in a Release build (-O3),
# once with GCC and once with Clang, warnings as errors, no tests.
release-builds:
	@scripts/install-deps.sh --clang
	@for cxx in g++ clang++; do \
	  echo "== Release build with $$cxx"; \
	  CXX=$$cxx cmake -S . -B $(RELEASE_BUILD)-$$cxx -DCMAKE_BUILD_TYPE=Release \
	    -DTALVERN_WERROR=$(WERROR) -DTALVERN_BUILD_TESTS=OFF -DTALVERN_BUILD_BENCH=OFF \
	    $(CMAKE_FLAGS) >/dev/null && \
	  cmake --build $(RELEASE_BUILD)-$$cxx -j$(JOBS) && \
	  $(RELEASE_BUILD)-$$cxx/tools/talvern --version || exit 1; \
	done

# Packages: a .deb from a Release build with GCC (in $(RELEASE_BUILD)-g++),
# and a .zip from the Windows build.
package:
	CXX=g++ cmake -S . -B $(RELEASE_BUILD)-g++ -DCMAKE_BUILD_TYPE=Release \
	  -DTALVERN_WERROR=$(WERROR) -DTALVERN_BUILD_TESTS=OFF -DTALVERN_BUILD_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build $(RELEASE_BUILD)-g++ -j$(JOBS)
	cd $(RELEASE_BUILD)-g++ && cpack -G DEB

package-windows: windows
	cd $(WINDOWS_BUILD) && cpack -G ZIP

# The Windows build, cross-compiled with MinGW-w64: libtalvern.dll with its
# import library, talvern.exe and the test programs, in $(WINDOWS_BUILD)/bin.
windows:
	@scripts/install-deps.sh --windows
	cmake -S . -B $(WINDOWS_BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALVERN_WERROR=$(WERROR) -DTALVERN_BUILD_BENCH=OFF \
	  -DCMAKE_UNITY_BUILD=ON $(CMAKE_FLAGS)
	cmake --build $(WINDOWS_BUILD) -j$(JOBS)

# Its tests under Wine (own Wine prefix in the build folder, no display),
# then archives carried between the Windows and the Linux tool.
test-windows: windows build
	@scripts/test-windows.sh $(WINDOWS_BUILD) $(JOBS) $(abspath $(BUILD))/tools/talvern

fuzz:
	@scripts/install-deps.sh --fuzz
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALVERN_WERROR=$(WERROR) \
	  -DTALVERN_BUILD_FUZZ=ON -DTALVERN_BUILD_TESTS=ON -DTALVERN_BUILD_BENCH=OFF \
	  -DTALVERN_BUILD_TOOLS=OFF
	cmake --build $(FUZZ_BUILD) -j$(JOBS)
	@scripts/run-fuzz.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

# The benchmarks are configured in explicitly, so that a build folder set up
# without them (-DTALVERN_BUILD_BENCH=OFF) still gets them here.
bench:
	@scripts/install-deps.sh --bench
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALVERN_BUILD_BENCH=ON \
	  -DTALVERN_WERROR=$(WERROR) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS)
	@scripts/bench.sh $(BUILD)

# One large block on 1, 2 and 4 threads (FILE=, ROUNDS=; default: 200 MB
# of /usr/include's headers one after the other).
bench-parallel:
	@scripts/install-deps.sh --bench
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALVERN_BUILD_BENCH=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS) --target bench_parallel talvern_cli
	@scripts/bench-parallel.sh $(BUILD) "$(FILE)" "$(ROUNDS)"

# Whole-tree jobs against tar with gzip and zstd (see docs/performance.md).
# BASELINE=path/to/another/talvern adds that build to every job; TREE= names
# the folder to copy (default /usr/include), RUNS= the runs per tool;
# NO_COPIES=1 deletes files whose contents an earlier file has; SMALL=1
# times a tree of 20,000 files of 50 to 400 bytes cut from it instead.
bench-tree: build
	@scripts/install-deps.sh --bench
	python3 scripts/bench-tree.py --talvern $(BUILD)/tools/talvern \
	  $(if $(BASELINE),--baseline $(BASELINE)) $(if $(TREE),--tree $(TREE)) \
	  $(if $(RUNS),--runs $(RUNS)) $(if $(NO_COPIES),--no-copies) $(if $(SMALL),--small-files)

# How many planted faults the tests catch: ../shared/tools/mutate.py plants
# COUNT faults (seeded by SEED) in the library's folders one at a time,
# rebuilds $(BUILD) and runs the tests. It rewrites sources while it runs
# (and restores them): start it on a clean tree and leave the tree alone.
MUTATE ?= ../shared/tools/mutate.py
mutate: build
	nice python3 $(MUTATE) --build $(BUILD) --paths $(MUTATE_PATHS) \
	  --count $(COUNT) --seed $(SEED) $(if $(JSON),--json $(JSON))

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(RELEASE_BUILD)-g++ $(RELEASE_BUILD)-clang++ $(WINDOWS_BUILD)
