# Wraps CMake: `make` builds, `make test` installs what is missing, builds and runs every test.
BUILD_DIR ?= build
ASAN_DIR  ?= build-asan
BENCH_DIR ?= build-bench
FUZZ_DIR  ?= build-fuzz
FUZZ_SECONDS ?= 60
JOBS      ?= $(shell nproc)
CTEST_J   ?= 2

.PHONY: all deps build demo test test-asan soak bench fuzz install format clean

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
	cd $(BUILD_DIR) && ctest --output-on-failure -j$(CTEST_J)

# The same suite under AddressSanitizer and UndefinedBehaviorSanitizer; the
# two-minute real time-out test runs only in the plain build.
test-asan: deps
	cmake -S . -B $(ASAN_DIR) -DCMAKE_BUILD_TYPE=Debug -DNB_SANITIZE=ON
	cmake --build $(ASAN_DIR) -j$(JOBS)
	cd $(ASAN_DIR) && ctest --output-on-failure -j$(CTEST_J) -LE slow

# The emulator killed at 50 random moments of uploads and commits (make test runs 4).
soak: build
	cd $(BUILD_DIR) && NBEMU_KILL_ROUNDS=50 ./tests/emulator/tst_nbemu survivesKillsDuringUploads

# Throughput and memory against curl and bare Qt on a local nginx; prints a table.
bench:
	@tools/install-deps.sh --bench
	cmake -S . -B $(BENCH_DIR) -DCMAKE_BUILD_TYPE=Release -DNB_BUILD_TESTS=OFF -DNB_BUILD_BENCH=ON
	cmake --build $(BENCH_DIR) -j$(JOBS)
	bench/run.sh $(BENCH_DIR)

# The libFuzzer targets (clang, ASan, UBSan), each run FUZZ_SECONDS on its seed corpus.
fuzz:
	@tools/install-deps.sh --fuzz
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=Debug -DNB_BUILD_TESTS=OFF -DNB_BUILD_EMULATOR=OFF -DNB_BUILD_CLI=OFF -DNB_BUILD_FUZZ=ON
	cmake --build $(FUZZ_DIR) -j$(JOBS) --target fuzz_parser fuzz_address
	fuzz/run.sh $(FUZZ_DIR) $(FUZZ_SECONDS)

install: build
	cmake --install $(BUILD_DIR)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf $(BUILD_DIR) $(ASAN_DIR) $(BENCH_DIR) $(FUZZ_DIR)
