# SPDX-License-Identifier: Apache-2.0
# `make run` and `make test` set up whatever is missing; see README.md.
.PHONY: run test build dev bench check format fuzz real setup runtime clean help

help:
	@echo "make run     build Dorvane, boot the demo guest, save a screenshot and print how to connect an agent"
	@echo "make test    all tests: unit, real peers and a short run of every fuzz target"
	@echo "make build   the release program: build/release/dorvane"
	@echo "make bench   the benchmarks, each with its ratio"
	@echo "make check   formatting, lint, layers and words"

setup:
	@scripts/setup

runtime: setup
	@scripts/qemu-runtime >/dev/null
	@scripts/demo-guest >/dev/null

build: setup
	@cmake --preset release >/dev/null
	@cmake --build --preset release --target dorvane

run: build runtime
	@scripts/run

dev: setup
	@cmake --preset dev >/dev/null
	@cmake --build --preset dev

test: runtime dev
	@scripts/test

real: runtime dev
	@ctest --preset real

bench: setup runtime
	@scripts/bench

check: setup
	@scripts/check

format:
	@scripts/format --write

fuzz: setup
	@scripts/fuzz

clean:
	rm -rf build
