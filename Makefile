# Front door of the project: every target installs what is missing, then
# drives CMake. `make test SANITIZE=address,undefined` builds and tests with
# the sanitizers in a build tree of its own.

JOBS ?= 2
SANITIZE ?=
FUZZ_SECONDS ?= 30
SOAK_SECONDS ?= 120
CMAKE_FLAGS ?=
comma := ,

ifeq ($(strip $(SANITIZE)),)
BUILD_DIR := build
else
BUILD_DIR := build-$(subst $(comma),-,$(SANITIZE))
endif

.PHONY: all deps configure build test bench fuzz soak run clean

all: build

deps:
	@sh scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD_DIR) -DSANITIZE=$(SANITIZE) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

bench: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target benchmarks quorvia quorvia-cli
	@sh bench/run.sh $(BUILD_DIR)

fuzz: deps
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -DQUORVIA_FUZZ=ON >/dev/null
	@cmake --build build-fuzz -j $(JOBS) --target fuzzers
	@sh fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

soak: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target DaemonSoak quorvia quorvia-cli
	@SOAK_SECONDS=$(SOAK_SECONDS) $(BUILD_DIR)/soak/DaemonSoak

# The daemon in the foreground on a demo device root under the build folder.
run: build
	@sh scripts/make-demo-root.sh $(BUILD_DIR)/demo-root
	@QUORVIA_ROOT=$(CURDIR)/$(BUILD_DIR)/demo-root PATH=$(CURDIR)/tools/device:$$PATH \
		$(BUILD_DIR)/bin/quorvia -d

clean:
	@rm -rf build build-*
