# Drives CMake. Every target first installs missing Debian packages.
#   make demo       build and run the example validator on the sample data
#   make test       build and run every test (ctest)
#   make sanitize   the same tests built with clang, ASan and UBSan
#   make memcheck   every test program under valgrind memcheck (errors and leaks fail)
#   make bench      build and run the benchmarks (Release) on the JSON documents
#                   in BENCH_DATA (default ../shared/bench-data/json, if there)
#   make fuzz       run every fuzz target for FUZZ_SECONDS (default 60) each
#   make install    install into PREFIX (default /usr/local)

BUILD    ?= build
SAN      ?= build-san
BENCHDIR ?= build-bench
FUZZDIR  ?= build-fuzz
FUZZ_SECONDS ?= 60
BENCH_DATA ?= $(wildcard ../shared/bench-data/json)
PREFIX   ?= /usr/local
JOBS     ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps build demo test sanitize memcheck bench fuzz install format clean

all: build

deps:
	@scripts/install-deps.sh

$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

# The example validator on the sample data: a base configuration, an accepted
# change, a rejected one (rolled back) and another accepted one. Its exit
# status is 1 because one transaction is rejected, as intended.
DEMO_FILES = examples/data/base.json examples/data/01-add-eth2.json \
             examples/data/02-bad-rollout.json examples/data/03-defaults.json

demo: build
	$(BUILD)/examples/zorcheck --state $(DEMO_FILES) || [ $$? -eq 1 ]

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

sanitize: deps
	CC=clang CXX=clang++ cmake -S . -B $(SAN) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZOR_SANITIZE=ON $(CMAKE_FLAGS)
	cmake --build $(SAN) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(SAN) --output-on-failure -j $(JOBS)

memcheck: build
	scripts/memcheck.sh $(BUILD)

bench: deps
	cmake -S . -B $(BENCHDIR) -G Ninja -DCMAKE_BUILD_TYPE=Release -DZOR_BUILD_BENCH=ON -DZOR_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(BENCHDIR) -j $(JOBS)
	@for b in $(BENCHDIR)/bench/bench_*; do echo "== $$b"; \
	  ZOR_BENCH_DATA=$${ZOR_BENCH_DATA:-$(BENCH_DATA)} $$b --benchmark_min_time=0.2; done

fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZDIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZOR_BUILD_FUZZ=ON -DZOR_STATIC=ON -DZOR_BUILD_TESTS=OFF -DZOR_BUILD_EXAMPLES=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZDIR) -j $(JOBS)
	scripts/fuzz.sh $(FUZZDIR) $(FUZZ_SECONDS)

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

format:
	clang-format -i $$(git ls-files '*.c' '*.cpp' '*.h')

clean:
	rm -rf $(BUILD) $(SAN) $(BENCHDIR) $(FUZZDIR)
