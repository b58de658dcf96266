# kix: the two commands a new user needs are `make demo` and `make test`.
BUILD ?= build
JOBS ?= $(shell nproc)
PYTHON := /usr/bin/python3
export PYTHONPATH := $(CURDIR)/$(BUILD)/python$(if $(PYTHONPATH),:$(PYTHONPATH))
export KIX_MODULE := $(CURDIR)/$(BUILD)/libkix.so

.PHONY: all deps configure build test demo bench clean

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

demo: build
	$(PYTHON) examples/tour.py --out $(BUILD)/tour

bench: build
	$(PYTHON) bench/compare.py --build $(BUILD)

clean:
	rm -rf $(BUILD)
