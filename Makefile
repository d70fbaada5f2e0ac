# The commands that people use; everything else is CMake with the presets release, debug, asan, tsan and fuzz.
.DEFAULT_GOAL := help
SHELL := /bin/bash
JOBS ?= $(shell nproc)
TIME ?= 60

.PHONY: help run demo build test unit integration asan tsan fuzz fuzz-coverage bench format check-format tidy clean

help:
	@echo "make run      install what is missing, build, start the service with a demo share"
	@echo "make demo     start a machine from a backup: agent, service, emulator; shows its console and proves the outcome"
	@echo "make test     install what is missing, build, run all tests"
	@echo "make build    build the release preset into build/release"
	@echo "make bench    measure the server beside the limit of this machine and its peers"
	@echo "make bench-growth  how cost grows with connections, entries and items"
	@echo "make asan     unit tests with address, undefined-behaviour and leak sanitizers"
	@echo "make tsan     unit tests with the thread sanitizer"
	@echo "make fuzz     run every fuzz target, TIME=60 seconds each"
	@echo "make fuzz-coverage  which lines the fuzz targets reach with what has been found so far"
	@echo "make tidy     clang-tidy over all sources;  make format: clang-format in place"

build:
	@scripts/install-packages build
	@KELVO_TESTS=OFF scripts/build-preset release

run: build
	@scripts/install-packages run
	@scripts/run-demo build/release/bin

demo: build
	@scripts/install-packages demo
	@scripts/boot-demo build/release/bin

test:
	@scripts/install-packages build test demo
	@scripts/build-guest-disk
	@scripts/build-preset release
	@scripts/run-tests release

unit:
	@scripts/install-packages build test
	@scripts/build-preset release
	@scripts/run-tests release -L unit

integration:
	@scripts/install-packages build test demo
	@scripts/build-guest-disk
	@scripts/build-preset release
	@scripts/run-tests release -L integration

asan tsan:
	@scripts/install-packages build test
	@scripts/build-preset $@ unit_tests
	@scripts/run-tests $@ -L unit

fuzz:
	@scripts/install-packages build fuzz
	@scripts/build-preset fuzz
	@FUZZ_TIME=$(TIME) scripts/run-fuzz

fuzz-coverage:
	@scripts/install-packages build fuzz coverage
	@scripts/build-preset fuzz-coverage
	@scripts/fuzz-coverage

bench:
	@scripts/install-packages build bench
	@scripts/build-preset release
	@bench/compare build/release/bin

bench-growth:
	@scripts/install-packages build bench
	@scripts/build-preset release
	@bench/growth build/release/bin

format:
	@scripts/install-packages check
	@git ls-files '*.cpp' '*.h' ':!bench/wire.h' | xargs clang-format -i

check-format:
	@scripts/install-packages check
	@git ls-files '*.cpp' '*.h' ':!bench/wire.h' | xargs clang-format --dry-run -Werror

tidy:
	@scripts/install-packages build test check
	@scripts/tidy

clean:
	rm -rf build
