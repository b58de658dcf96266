# kix: the two commands a new user needs are `make demo` and `make test`.
BUILD ?= build
JOBS ?= $(shell nproc)
PYTHON := /usr/bin/python3
export PYTHONPATH := $(CURDIR)/$(BUILD)/python$(if $(PYTHONPATH),:$(PYTHONPATH))
export KIX_MODULE := $(CURDIR)/$(BUILD)/libkix.so

.PHONY: all deps configure build test test-asan fuzz demo bench clean

all: build

deps:
	scripts/install-deps

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DPython3_EXECUTABLE=$(PYTHON)

configure: $(BUILD)/CMakeCache.txt

build: deps configure
	cmake --build $(BUILD) -j$(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

# The module, the reference host, the C++ tests and the Python suite under
# AddressSanitizer and UndefinedBehaviorSanitizer, in a build folder of their own.
ASAN_BUILD ?= build-asan
test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DPython3_EXECUTABLE=$(PYTHON) -DKIX_SANITIZE=ON -DKIX_BUILD_BENCHMARKS=OFF
	cmake --build $(ASAN_BUILD) -j$(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j$(JOBS)

# Each libFuzzer target for FUZZ_SECONDS, starting from its seed corpus in
# fuzz/corpus/; what it finds is written to $(FUZZ_BUILD)/ as crash-* files.
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZERS := signature call files token
fuzz: build
	CC=clang CXX=clang++ cmake -S fuzz -B $(FUZZ_BUILD)
	cmake --build $(FUZZ_BUILD) -j$(JOBS)
	set -e; for t in $(FUZZERS); do \
	  mkdir -p $(FUZZ_BUILD)/corpus-$$t; \
	  (cd $(FUZZ_BUILD) && ./$${t}_fuzz -max_total_time=$(FUZZ_SECONDS) -timeout=30 -rss_limit_mb=4096 \
	     -detect_leaks=0 -print_final_stats=1 corpus-$$t $(CURDIR)/fuzz/corpus/$$t > fuzz-$$t.log 2>&1; \
	   status=$$?; tail -n 12 fuzz-$$t.log; exit $$status); \
	done

demo: build
	$(PYTHON) examples/tour.py --out $(BUILD)/tour

bench: build
	$(PYTHON) bench/compare.py --build $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
