# The front door: every target installs what it needs and is missing, then calls CMake or a script.
# Objects of the release build are shared by the targets; only what each of them needs is configured and built.

SHELL := /bin/bash
PREFIX ?= /usr/local

CONFIGURE := cmake --preset release --log-level=NOTICE
BUILD := cmake --build --preset release

.DEFAULT_GOAL := help
.PHONY: help demo test bench fuzz format lint install package

help: ## this list
	@sed -n 's/^\([a-z]*\):.*## \(.*\)/make \1\t\2/p' Makefile | expand -t 16

demo: ## build, trace a walk through a directory tree (DIR=/usr/include), show the trace
	scripts/install-deps build
	$(CONFIGURE) -DKZ_TR_TESTS=OFF -DKZ_TR_BENCH=OFF
	$(BUILD)
	scripts/demo $(DIR)

test: ## build and run all tests
	scripts/install-deps build test bench
	$(CONFIGURE)
	$(BUILD)
	ctest --preset release

bench: ## build and run the benchmarks
	scripts/install-deps build bench
	$(CONFIGURE) -DKZ_TR_TESTS=OFF
	$(BUILD)
	scripts/bench

fuzz: ## run every fuzz target for FUZZ_SECONDS (60)
	scripts/install-deps build fuzz
	scripts/fuzz

format: ## bring the sources into their format
	scripts/install-deps format
	git ls-files -z '*.c' '*.h' '*.cpp' | xargs -0 clang-format -i

lint: ## lock check, clang-tidy, format
	scripts/install-deps build test bench fuzz lint
	scripts/lint

install: ## install into PREFIX (/usr/local), below DESTDIR where given
	scripts/install-deps build
	$(CONFIGURE) -DKZ_TR_TESTS=OFF -DKZ_TR_BENCH=OFF
	$(BUILD)
	cmake --install build/release --prefix "$(PREFIX)"

package: ## make a Debian package and an archive in build/release
	scripts/install-deps build package
	$(CONFIGURE) -DKZ_TR_TESTS=OFF -DKZ_TR_BENCH=OFF
	$(BUILD)
	cd build/release && cpack
