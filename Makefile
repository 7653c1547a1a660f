# Front door of the project: every target installs what is missing, then
# drives CMake. `make test SANITIZE=address,undefined` builds and tests with
# the sanitizers in a build tree of its own. `make cross ARCH=arm64` (or
# armhf) builds for a router in build-ARCH, `make test-cross ARCH=...` runs
# the tests there under qemu-user, `make package ARCH=...` makes its .deb.

JOBS ?= 2
SANITIZE ?=
FUZZ_SECONDS ?= 30
SOAK_SECONDS ?= 120
MUTANTS ?= 80
SEED ?= 1
CMAKE_FLAGS ?=
ARCH ?=
comma := ,
CROSS_FLAGS = -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/cross-toolchain.cmake -DQUORVIA_ARCH=$(ARCH)

ifeq ($(strip $(SANITIZE)),)
BUILD_DIR := build
else
BUILD_DIR := build-$(subst $(comma),-,$(SANITIZE))
endif

ifeq ($(strip $(ARCH)),)
PACKAGE_DIR := build-package
PACKAGE_DEPS := deps
else
PACKAGE_DIR := build-package-$(ARCH)
PACKAGE_DEPS := cross-deps
CMAKE_PACKAGE_FLAGS := $(CROSS_FLAGS)
# dpkg-shlibdeps finds the libraries' packages in the sysroot's own database.
PACKAGE_ENV := DEB_HOST_ARCH=$(ARCH) DPKG_ADMINDIR=$(CURDIR)/build-sysroot-$(ARCH)/dpkg
endif

.PHONY: all deps cross-deps configure build test cross-configure cross test-cross install \
	package bench cross-figures fuzz soak mutants run clean

all: build

deps:
	@sh scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD_DIR) -DSANITIZE=$(SANITIZE) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

cross-deps:
	@test -n "$(ARCH)" || { echo "make $@: say ARCH=arm64 or ARCH=armhf" >&2; exit 2; }
	@sh scripts/install-deps.sh --cross $(ARCH)

cross-configure: cross-deps
	@cmake -S . -B build-$(ARCH) $(CROSS_FLAGS) $(CMAKE_FLAGS) >/dev/null

cross: cross-configure
	@cmake --build build-$(ARCH) -j $(JOBS)

# Tests that can't work under qemu-user skip there; their reasons follow.
test-cross: cross
	@cd build-$(ARCH) && ctest --output-on-failure -j $(JOBS); status=$$?; \
		awk '/: Skipped$$/ { getline reason } /^\[  SKIPPED \] / && reason != "" \
			{ print "skipped", $$4 ": " reason; reason = "" }' Testing/Temporary/LastTest.log; \
		exit $$status

# Installs under CMAKE_INSTALL_PREFIX (/usr/local unless set in CMAKE_FLAGS).
install: build
	@cmake --install $(BUILD_DIR)

# build-package/quorvia_VERSION_ARCH.deb, for /usr, without the tests; with
# ARCH=..., build-package-ARCH/quorvia_VERSION_ARCH.deb.
package: $(PACKAGE_DEPS)
	@cmake -S . -B $(PACKAGE_DIR) -DCMAKE_INSTALL_PREFIX=/usr -DQUORVIA_TESTS=OFF \
		$(CMAKE_PACKAGE_FLAGS) >/dev/null
	@cmake --build $(PACKAGE_DIR) -j $(JOBS)
	@cd $(PACKAGE_DIR) && $(PACKAGE_ENV) cpack
	@ls $(PACKAGE_DIR)/*.deb

bench: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target benchmarks quorvia quorvia-cli
	@sh bench/run.sh $(BUILD_DIR)

# Sizes of the daemon for this machine, arm64 and armhf, and its memory and
# request rate on arm64 under qemu-user.
cross-figures: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target quorvia
	@$(MAKE) --no-print-directory cross-configure ARCH=armhf
	@cmake --build build-armhf -j $(JOBS) --target quorvia
	@$(MAKE) --no-print-directory cross-configure ARCH=arm64
	@cmake --build build-arm64 -j $(JOBS) --target quorvia RpcBench
	@sh scripts/cross-figures.sh $(BUILD_DIR) build-arm64 build-armhf

fuzz: deps
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -DQUORVIA_FUZZ=ON >/dev/null
	@cmake --build build-fuzz -j $(JOBS) --target fuzzers
	@sh fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

soak: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target DaemonSoak quorvia quorvia-cli
	@SOAK_SECONDS=$(SOAK_SECONDS) $(BUILD_DIR)/soak/DaemonSoak
	@python3 soak/rows_follow_shell.py --build $(BUILD_DIR) --seconds $(SOAK_SECONDS)

# What the suite catches: MUTANTS mutants from SEED, each built and tested in
# a copy of the tree under build-mutants; MATRIX=1 names the tests that kill
# each one.
mutants: deps
	@python3 scripts/mutants.py --mutants $(MUTANTS) --seed $(SEED) $(if $(MATRIX),--matrix)

# The daemon in the foreground on a demo device root under the build folder.
run: build
	@sh scripts/make-demo-root.sh $(BUILD_DIR)/demo-root
	@QUORVIA_ROOT=$(CURDIR)/$(BUILD_DIR)/demo-root PATH=$(CURDIR)/tools/device:$$PATH \
		$(BUILD_DIR)/bin/quorvia -d

clean:
	@rm -rf build build-*
