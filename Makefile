# Two commands do all set-up: `make run` and `make test`.
BUILD     ?= build
ASAN_BUILD ?= build-asan
PREFIX    ?= /usr/local
JOBS      ?= $(shell nproc)
CMAKE_GEN  = -G Ninja

.PHONY: all deps build build-asan run test install bench fuzz clean

all: build

deps:
	@./scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	@cmake -S . -B $(ASAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Asan >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)

# The main job, shown on the virtual analyzer.
run: build
	@./scripts/demo.sh $(BUILD)/bin

# Every test, under AddressSanitizer and UndefinedBehaviorSanitizer.
test: build-asan
	@cd $(ASAN_BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

bench: build
	@for b in $(BUILD)/bin/bench_*; do [ -x "$$b" ] && "$$b"; done

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
