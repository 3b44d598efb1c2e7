# Everything starts here: `make run` plays the default show, `make test` runs every test.
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
PREFIX     ?= /usr/local
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
FUZZ_SECONDS      ?= 60
FUZZ_KEEP_CORPUS  ?= ON
TEST_FUZZ_SECONDS ?= 5

export LSAN_OPTIONS  := suppressions=$(CURDIR)/tests/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS := print_stacktrace=1:halt_on_error=1
export ASAN_OPTIONS  := detect_leaks=1:abort_on_error=0

.PHONY: all deps build run test test-fast bench fuzz mutants install clean

all: build

deps:
	@scripts/install-deps

build: deps
	@cmake -S . -B $(BUILD) -G Ninja $(CMAKE_ARGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@scripts/run-show $(BUILD)

# Every test, then the unit tests once more under AddressSanitizer and UBSan, then every fuzz
# target for a few seconds, and last a check that the builds read nothing from a package that
# scripts/install-deps does not install.
test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	@cmake -S . -B $(ASAN_BUILD) -G Ninja -DBRISVALE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug $(CMAKE_ARGS) >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS) -L unit
	@$(MAKE) --no-print-directory fuzz FUZZ_SECONDS=$(TEST_FUZZ_SECONDS) FUZZ_KEEP_CORPUS=OFF
	scripts/check-deps $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)

# The tests of the normal build only, for quick rounds while working.
test-fast: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# Each small fault of scripts/mutants.list in turn (in build-mutants/), and how many the tests catch.
mutants: deps
	@JOBS=$(JOBS) scripts/mutants

bench: build
	@scripts/run-benchmarks $(BUILD)

# Every fuzz target for FUZZ_SECONDS each, from its seeds in tests/fuzz/corpus/ and what its
# earlier runs found.
fuzz: deps
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -G Ninja -DBRISVALE_FUZZ=ON -DBRISVALE_WERROR=OFF \
	  -DBRISVALE_FUZZ_SECONDS=$(FUZZ_SECONDS) -DBRISVALE_FUZZ_KEEP_CORPUS=$(FUZZ_KEEP_CORPUS) $(CMAKE_ARGS) >/dev/null
	@cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_targets
	ctest --test-dir $(FUZZ_BUILD) --output-on-failure -j $(JOBS) -L fuzz

install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) build-mutants
