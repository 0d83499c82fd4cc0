# Drives CMake. Every target first installs missing Debian packages.
#   make demo       build and run the example validator on the sample data
#   make test       build and run every test (ctest)
#   make sanitize   the same tests built with clang, ASan and UBSan
#   make memcheck   every test program under valgrind memcheck (errors and leaks fail)
#   make bench      build and run the benchmarks (Release) on the JSON documents
#                   in BENCH_DATA (default ../shared/bench-data/json, if there)
#   make fuzz       run every fuzz target for FUZZ_SECONDS (default 60) each
#   make install    install into PREFIX (default /usr/local); sudo only for
#                   the copy when PREFIX is not writable
#   make format     clang-format every C and C++ source in place

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
	@echo "demo: 02-bad-rollout.json breaks rules on purpose: zorcheck reports it rejected," \
	  "rolls it back and exits with 1; the other three files are committed."

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
	@echo "bench: zor and the benchmarks are built Release (-O3 -DNDEBUG). Debian's libbenchmark" \
	  "itself is compiled without NDEBUG, so each program prints '***WARNING*** Library was" \
	  "built as DEBUG': that is the timing library's own build, not ours."
	@for b in $(BENCHDIR)/bench/bench_*; do echo "== $$b"; \
	  ZOR_BENCH_DATA=$${ZOR_BENCH_DATA:-$(BENCH_DATA)} $$b --benchmark_min_time=0.2 || exit 1; done

fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZDIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZOR_BUILD_FUZZ=ON -DZOR_STATIC=ON -DZOR_BUILD_TESTS=OFF -DZOR_BUILD_EXAMPLES=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZDIR) -j $(JOBS)
	scripts/fuzz.sh $(FUZZDIR) $(FUZZ_SECONDS)

# Builds as the calling user. When PREFIX (or its nearest existing parent) is
# not writable, only the copy runs under sudo; the one file the copy writes
# into the build directory (install_manifest.txt) is handed back, so the tree
# keeps no root-owned files. Run as `sudo make install` anyway,
# the build directory is given back to the user who called sudo. A library
# installed under /usr or /usr/local is registered with ldconfig.
SYSTEM_LIBDIR = case '$(PREFIX)' in /usr|/usr/|/usr/local|/usr/local/) true;; *) false;; esac
install: build
	@dir='$(PREFIX)'; while [ ! -e "$$dir" ]; do dir=$$(dirname "$$dir"); done; \
	if [ -w "$$dir" ]; then \
	  echo "cmake --install $(BUILD) --prefix $(PREFIX)"; \
	  cmake --install $(BUILD) --prefix '$(PREFIX)' || exit 1; \
	  if [ "$$(id -u)" -eq 0 ] && $(SYSTEM_LIBDIR); then ldconfig; fi; \
	else \
	  echo "install: $$dir is not writable by $$(id -un): copying with sudo"; \
	  sudo cmake --install $(BUILD) --prefix '$(PREFIX)' || \
	    { echo "install: without sudo, install into a directory you own: make install PREFIX=\$$HOME/zor"; exit 1; }; \
	  sudo chown "$$(id -u):$$(id -g)" $(BUILD)/install_manifest.txt; \
	  if $(SYSTEM_LIBDIR); then sudo ldconfig; fi; \
	fi; \
	if [ "$$(id -u)" -eq 0 ] && [ -n "$${SUDO_UID:-}" ]; then \
	  chown -R "$$SUDO_UID:$$SUDO_GID" $(BUILD); \
	fi

format: deps
	clang-format -i $$(git ls-files '*.c' '*.cpp' '*.h')

clean:
	rm -rf $(BUILD) $(SAN) $(BENCHDIR) $(FUZZDIR)
