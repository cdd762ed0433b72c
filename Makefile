# Two commands do all set-up: `make run` and `make test`.
BUILD      ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
FUZZ_BUILD ?= build-fuzz
PREFIX     ?= /usr/local
JOBS       ?= $(shell nproc)
CMAKE_GEN   = -G Ninja
# Seconds per fuzz target: `make fuzz` searches, `make test` only re-runs the
# corpus and mutates briefly so that a regression shows up in CI.
FUZZ_SECONDS      ?= 300
FUZZ_TEST_SECONDS ?= 5
# The concurrency tests that also run under ThreadSanitizer: broker, arbiter,
# the daemon end to end (receive threads, services) and the virtual analyzer.
# The request flood stays with the sanitizer build; it tests no concurrency.
TSAN_TESTS = test_daemon test_vxsim
TSAN_FILTER_test_daemon = Broker*:Arbiter*:Daemon*-DaemonFault*
TSAN_FILTER_test_vxsim  = *

.PHONY: all deps build build-asan build-tsan build-fuzz run test unit tsan fuzz fuzz-check \
	lint install bench clean

all: build

deps:
	@./scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	@cmake -S . -B $(ASAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Asan >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)

# Only what the ThreadSanitizer run needs.
build-tsan: deps
	@cmake -S . -B $(TSAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Tsan >/dev/null
	@cmake --build $(TSAN_BUILD) -j $(JOBS) --target $(TSAN_TESTS)

build-fuzz: deps
	@cmake -S fuzz -B $(FUZZ_BUILD) $(CMAKE_GEN) >/dev/null
	@cmake --build $(FUZZ_BUILD) -j $(JOBS)

# The main job, shown on the virtual analyzer.
run: build
	@./scripts/demo.sh $(BUILD)/bin

# Everything CI checks: the whole suite under AddressSanitizer and
# UndefinedBehaviorSanitizer, the concurrency tests under ThreadSanitizer,
# a short pass of every fuzz target, and the static analysers.
test: unit tsan fuzz-check lint

unit: build-asan
	@cd $(ASAN_BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

tsan: build-tsan
	@$(foreach t,$(TSAN_TESTS),echo "ThreadSanitizer: $(t)" && \
	  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/scripts/tsan.supp" \
	  $(TSAN_BUILD)/bin/$(t) --gtest_brief=1 --gtest_filter='$(TSAN_FILTER_$(t))' &&) true

fuzz: build-fuzz
	@./scripts/fuzz.sh $(FUZZ_BUILD) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

fuzz-check: build-fuzz
	@./scripts/fuzz.sh $(FUZZ_BUILD) $(FUZZ_TEST_SECONDS) $(FUZZ_TARGETS)

# Uses the compile commands of the sanitizer build, which `make test` has anyway.
lint: build-asan
	@./scripts/lint.sh $(ASAN_BUILD) $(JOBS)

install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

bench: build
	@for b in $(BUILD)/bin/bench_*; do [ -x "$$b" ] && "$$b"; done

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD)
