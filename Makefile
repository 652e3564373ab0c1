# Two commands do everything on a fresh Debian 12 machine (as root):
#   make test   set up, build, run every test (unit, tool, fuzz, end-to-end)
#   make demo   set up, build, run the demo configuration
SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD := build
RELEASE_DIR := $(BUILD)/cmake-release
CHECK_DIR := $(BUILD)/cmake-check
BENCH_DIR := $(BUILD)/cmake-bench
FUZZ_SECONDS ?= 15

.PHONY: all setup build host check-build test demo bench clean efi

all: build

setup:
	@bash scripts/setup.sh

# Optimised host build: loader-tool for users, and the firmware image.
host: setup
	@cmake -S . -B $(RELEASE_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DLOADER_TOOL_OUTPUT_DIR=$(abspath $(BUILD)) >/dev/null
	@cmake --build $(RELEASE_DIR) -j $(JOBS) --target loader-tool

-include loader/efi/efi.mk

build: host efi

# The checking build: clang with AddressSanitizer and UndefinedBehaviorSanitizer,
# plus the libFuzzer targets.  Every test runs from here.
check-build: setup
	@CC=clang CXX=clang++ cmake -S . -B $(CHECK_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	  -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" -DLOADER_SANITIZE=ON -DLOADER_FUZZ=ON \
	  -DLOADER_FUZZ_SECONDS=$(FUZZ_SECONDS) >/dev/null
	@cmake --build $(CHECK_DIR) -j $(JOBS)

test: build check-build
	@cd $(CHECK_DIR) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  EFI_IMAGE=$(abspath $(BUILD))/loader.efi \
	  ctest -j $(JOBS) --output-on-failure --timeout 900

demo: build
	@bash scripts/demo.sh

bench: setup
	@cmake -S . -B $(BENCH_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Release -DLOADER_BENCH=ON \
	  -DLOADER_TOOL_OUTPUT_DIR=$(abspath $(BENCH_DIR)) >/dev/null
	@cmake --build $(BENCH_DIR) -j $(JOBS)
	@bash bench/run.sh $(BENCH_DIR)

clean:
	rm -rf $(BUILD)
