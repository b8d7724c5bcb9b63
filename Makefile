# The two commands of the project: `make run` and `make check`.
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
JOBS       ?= $(shell nproc)
GEN        := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")

.PHONY: all deps build run install check test asan fuzz-build fuzz fuzz-short bench bench-image bench-encrypt bench-restore clean

all: build

deps:
	@scripts/install-deps.sh

# Where `make install` puts everything; known at configure time, since the
# D-Bus service file and the defaults' lookup name installed paths.
PREFIX     ?= /usr/local

build: deps
	cmake -S . -B $(BUILD) $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build $(BUILD) -j $(JOBS)

run: build
	$(BUILD)/src/quillvane

# The programs, the desktop entry, the icons and the D-Bus service file under $(PREFIX).
install: build
	cmake --install $(BUILD)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The unit tests once more under AddressSanitizer and UndefinedBehaviorSanitizer.
asan: deps
	cmake -S . -B $(ASAN_BUILD) $(GEN) -DCMAKE_BUILD_TYPE=Debug -DQV_SANITIZE=ON -DQV_BENCH=OFF
	cmake --build $(ASAN_BUILD) -j $(JOBS) --target unit-tests
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS) -L unit

# libFuzzer targets (fuzz/), built with clang in a build of their own: every
# library under -fsanitize=fuzzer-no-link,address,undefined, no tests, no benchmarks.
fuzz-build: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_FUZZ=ON
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzzers

# Each target for three minutes, or for twenty seconds as part of check.
fuzz: fuzz-build
	fuzz/run-fuzzers.sh $(FUZZ_BUILD) 180

fuzz-short: fuzz-build
	fuzz/run-fuzzers.sh $(FUZZ_BUILD) 20

check: asan test fuzz-short

bench: build
	$(BUILD)/bench/qv_bench

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)

# Throughput of a qv-image volume against fuse2fs, gocryptfs, CryFS and the plain disk (not part of check).
bench-image: build
	QV_IMAGE=$(BUILD)/src/qv-image bench/image_bench.sh

# Encrypting a folder with qv against cp -a into a mounted image (not part of check).
bench-encrypt: build
	bench/encrypt_bench.sh $(BUILD)

# Restoring a folder with qv against cp -a out of a mounted image (not part of check).
bench-restore: build
	bench/restore_bench.sh $(BUILD)
