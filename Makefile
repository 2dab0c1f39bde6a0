# Wraps CMake: `make` builds, `make test` installs what is missing, builds and runs every test.
BUILD_DIR ?= build
QT6_DIR   ?= build-qt6
ASAN_DIR  ?= build-asan
TSAN_DIR  ?= build-tsan
COVERAGE_DIR ?= build-coverage
MEMCHECK_DIR ?= build-memcheck
BENCH_DIR ?= build-bench
FUZZ_DIR  ?= build-fuzz
FUZZ_SECONDS ?= 60
JOBS      ?= $(shell nproc)
CTEST_J   ?= 2
# The plain suites run one more test at a time: the two-minute test, started first, only waits.
PLAIN_J   ?= 3

.PHONY: all deps build demo test test-qt6 test-asan test-tsan memcheck coverage soak bench fuzz docs docs-check install format clean

all: build

deps:
	@tools/install-deps.sh

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR) -j$(JOBS)

# nbemu and a scripted nbcli session against it (log in, put, get, move, lock, share).
demo: build
	tools/demo.sh $(BUILD_DIR)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j$(PLAIN_J)

# Everything again, built on Qt 6 in its own folder. When the Qt 5 build is there, the
# package test installs both into one prefix and builds a host against each.
test-qt6: deps
	@tools/install-deps.sh --qt6
	cmake -S . -B $(QT6_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNB_QT_MAJOR=6 \
	    -DNB_SIDE_BY_SIDE_BUILD=$(if $(wildcard $(BUILD_DIR)/CMakeCache.txt),$(abspath $(BUILD_DIR)))
	cmake --build $(QT6_DIR) -j$(JOBS)
	cd $(QT6_DIR) && ctest --output-on-failure -j$(PLAIN_J)

# The same suite under AddressSanitizer and UndefinedBehaviorSanitizer; the
# two-minute real time-out test runs only in the plain build.
test-asan: deps
	cmake -S . -B $(ASAN_DIR) -DCMAKE_BUILD_TYPE=Debug -DNB_SANITIZE=ON
	cmake --build $(ASAN_DIR) -j$(JOBS)
	cd $(ASAN_DIR) && ctest --output-on-failure -j$(CTEST_J) -LE slow

# The library's and the emulator's suites under ThreadSanitizer, with the hammer test of
# eight threads (tst_threads); any race fails its test. Qt itself is not instrumented:
# its accesses are left out, the library's locks tell the sanitizer what they order, and
# the programs and tests lock with the standard library, which the sanitizer sees.
# nbcli, a single-threaded program, is left out for time.
TSAN_OPTIONS_CI = ignore_noninstrumented_modules=1 halt_on_error=1 second_deadlock_stack=1
test-tsan: deps
	cmake -S . -B $(TSAN_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNB_TSAN=ON -DNB_BUILD_CLI=OFF
	cmake --build $(TSAN_DIR) -j$(JOBS)
	cd $(TSAN_DIR) && TSAN_OPTIONS="$(TSAN_OPTIONS_CI)" ctest --output-on-failure -j$(CTEST_J) -LE slow

# The library's, the host libraries' and the emulator's suites, each test process under
# valgrind's memcheck; the two-minute time-out and the gigabyte tests are left out.
memcheck: deps
	@tools/install-deps.sh --memcheck
	cmake -S . -B $(MEMCHECK_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNB_MEMCHECK=ON -DNB_BUILD_CLI=OFF
	cmake --build $(MEMCHECK_DIR) -j$(JOBS)
	cd $(MEMCHECK_DIR) && ctest --output-on-failure -j$(CTEST_J) -LE 'slow|big'

# Line and branch coverage of framework/serverapi/ from the plain suite: a table per file
# on the terminal, the annotated sources in $(COVERAGE_DIR)/coverage/index.html.
coverage: deps
	@tools/install-deps.sh --coverage
	cmake -S . -B $(COVERAGE_DIR) -DCMAKE_BUILD_TYPE=Debug -DNB_COVERAGE=ON
	cmake --build $(COVERAGE_DIR) -j$(JOBS)
	find $(COVERAGE_DIR) -name '*.gcda' -delete
	cd $(COVERAGE_DIR) && ctest --output-on-failure -j$(CTEST_J)
	mkdir -p $(COVERAGE_DIR)/coverage
	tools/coverage-report -r . --object-directory $(COVERAGE_DIR) --filter 'framework/serverapi/' \
	    --exclude-unreachable-branches --exclude-throw-branches --sort-percentage \
	    --txt - --html-details $(COVERAGE_DIR)/coverage/index.html
	tools/coverage-report -r . --object-directory $(COVERAGE_DIR) --filter 'framework/serverapi/' \
	    --exclude-unreachable-branches --exclude-throw-branches --branches --txt - | tail -3

# The emulator killed at 50 random moments of uploads and commits (make test runs 4).
soak: build
	cd $(BUILD_DIR) && NBEMU_KILL_ROUNDS=50 ./tests/emulator/tst_nbemu survivesKillsDuringUploads

# Throughput and memory against curl and bare Qt on a local nginx; prints a table.
# QT=6 builds the library and the bare Qt references on Qt 6 (in $(BENCH_DIR)-qt6).
QT ?= 5
BENCH_BUILD = $(BENCH_DIR)$(if $(filter 6,$(QT)),-qt6)
bench:
	@tools/install-deps.sh --bench
	@$(if $(filter 6,$(QT)),tools/install-deps.sh --qt6,true)
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DNB_BUILD_TESTS=OFF -DNB_BUILD_BENCH=ON -DNB_QT_MAJOR=$(QT)
	cmake --build $(BENCH_BUILD) -j$(JOBS)
	bench/run.sh $(BENCH_BUILD)

# The libFuzzer targets (clang, ASan, UBSan), each run FUZZ_SECONDS on its seed corpus.
fuzz:
	@tools/install-deps.sh --fuzz
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=Debug -DNB_BUILD_TESTS=OFF -DNB_BUILD_EMULATOR=OFF -DNB_BUILD_CLI=OFF -DNB_BUILD_FUZZ=ON
	cmake --build $(FUZZ_DIR) -j$(JOBS) --target fuzz_parser fuzz_address
	fuzz/run.sh $(FUZZ_DIR) $(FUZZ_SECONDS)

# The API reference of the installed headers, in $(BUILD_DIR)/docs/html; needs no build. Any
# Doxygen warning, an undocumented public symbol among them, fails it.
docs:
	tools/docs.sh $(BUILD_DIR)/docs

# The reference's gate itself: the headers pass, an undocumented symbol fails.
docs-check:
	tests/docs/check-gate.sh

install: build
	cmake --install $(BUILD_DIR)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf $(BUILD_DIR) $(QT6_DIR) $(ASAN_DIR) $(TSAN_DIR) $(MEMCHECK_DIR) $(COVERAGE_DIR) $(BENCH_DIR) $(FUZZ_DIR)
