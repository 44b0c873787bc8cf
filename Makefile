# A thin front: the work is done by CMake presets and the scripts.
.DEFAULT_GOAL := help
.PHONY: help setup build demo test package bench fuzz soak check format clean

help: ## show this list
	@grep -E '^[a-z]+:.*##' $(MAKEFILE_LIST) | sed -E 's/^([a-z]+):.*## /  make \1\t/'

setup: ## install what is missing from Debian's packages
	@scripts/setup.sh

build: setup ## build the agent and its modules into build/release
	@scripts/build.sh release

demo: build ## run the agent against a real QEMU and show its alarms
	@scripts/demo.sh build/release

test: setup ## build and run every test, the sanitizers' too
	@scripts/test.sh

package: build ## make a Debian package of it in build/release
	@scripts/package.sh build/release

bench: build ## measure, beside the peers, and print the table
	@scripts/bench.sh build/release

fuzz: setup ## fuzz each target for a bounded time (FUZZ_SECONDS, default 60)
	@scripts/fuzz.sh $(FUZZ_SECONDS)

soak: build ## does it grow? A mixed load for SOAK_SECONDS (default 3600), the clock SOAK_LAPSE times as fast
	@python3 bench/soak.py build/release $(or $(SOAK_SECONDS),3600) --lapse $(or $(SOAK_LAPSE),1)

check: setup ## formatting, static analysis and the rules of the house
	@scripts/check.sh

format: setup ## format all sources
	@scripts/format.sh

clean: ## remove all build trees
	@rm -rf build
