# The commands of the project. Each installs the Debian packages it misses and says so.
SHELL := /bin/bash
.SHELLFLAGS := -euo pipefail -c
.DEFAULT_GOAL := help
MAKEFLAGS += --no-print-directory
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
DESTDIR ?=
SECONDS ?= 20
CCACHE := $(shell command -v ccache 2>/dev/null)
export CMAKE_C_COMPILER_LAUNCHER ?= $(CCACHE)
export CMAKE_CXX_COMPILER_LAUNCHER ?= $(CCACHE)

build_packages := cmake ninja-build gcc g++ libc6-dev pkg-config libcli11-dev
test_packages := $(build_packages) googletest bubblewrap binutils gdb socat netcat-openbsd util-linux procps psmisc python3
target_packages := g++-powerpc-linux-gnu libc6-powerpc-cross qemu-user
bench_packages := $(build_packages) bubblewrap binutils libbenchmark-dev libglib2.0-dev libevent-dev libspdlog-dev zlib1g-dev \
    libdeflate-dev libzstd-dev libuv1-dev libtbb-dev liblz4-dev python3 python3-matplotlib

# The other processors and the other C library; ppc is "make target".
corners := uchar s390x i686 aarch64 armhf riscv64 musl
packages_s390x := g++-s390x-linux-gnu libc6-s390x-cross qemu-user
packages_i686 := g++-i686-linux-gnu libc6-i386-cross
packages_aarch64 := g++-aarch64-linux-gnu libc6-arm64-cross qemu-user
packages_armhf := g++-arm-linux-gnueabihf libc6-armhf-cross qemu-user
packages_riscv64 := g++-riscv64-linux-gnu libc6-riscv64-cross qemu-user
packages_musl := musl-tools
# One corner for each word size and byte order keeps a description of the binary interface.
abi_corners := native ppc s390x i686
abi_packages := $(build_packages) $(target_packages) $(packages_s390x) $(packages_i686) abigail-tools xz-utils

system_packages := $(target_packages) linux-source-6.1 bc bison flex cpio dpkg-dev qemu-system-ppc
docs_packages := doxygen mandoc man-db
package_packages := $(build_packages) $(docs_packages) help2man debhelper dpkg-dev fakeroot lintian mmdebstrap uidmap
with_docs := $(if $(and $(shell command -v doxygen),$(shell command -v mandoc),$(shell command -v help2man)),ON,OFF)

# build PRESET [option...]: configures and builds it, quietly unless something is wrong.
define build
	@echo "== $(1): building"
	@mkdir -p build && cmake --preset $(1) > build/$(1).configure.log 2>&1 || { cat build/$(1).configure.log; exit 1; }
	@cmake --build --preset $(1) --parallel $(JOBS) $(2)
endef

# check PRESET [ctest option...]: builds it and runs its tests.
define check
	$(call build,$(1))
	@echo "== $(1): testing"
	@ctest --preset $(1) --parallel $(JOBS) $(2)
endef

.PHONY: help demo test native target target-system corners $(corners) asan tsan clang fuzz bench bench-check lint format docs package install \
    abi abi-update $(abi_corners:%=libraries-%) reproducible clean ci

help: ## This list
	@grep -hE '^[a-z-]+:.*##' Makefile | sed -E 's/:.*## /|/' | column -t -s '|'

demo: ## Show the library at its main job: a daemon at work
	@scripts/need $(build_packages) bubblewrap
	$(call build,demo)
	@examples/demo build/demo

test: native target ## Run the tests on this machine, then on the target's processor
	@echo "make test: all tests passed, on this machine and on the target"

native: ## Run the tests on this machine
	@scripts/need $(test_packages)
	$(call check,native)

target: ## Cross-build for 32-bit big-endian PowerPC and run the same tests under the emulator
	@scripts/need $(test_packages) $(target_packages)
	$(call check,ppc)

corners: $(corners) ## Run the tests or the examples on every other processor and C library, each a target of its own

$(corners):
	@scripts/need $(test_packages) $(packages_$@)
	$(call check,$@)

abi: $(abi_corners:%=libraries-%) ## Hold the binary interface against its description below abi/
	@scripts/abi check $(abi_corners)

abi-update: $(abi_corners:%=libraries-%) ## Store the description of the binary interface after a deliberate change
	@scripts/abi update $(abi_corners)

$(abi_corners:%=libraries-%): libraries-%:
	@scripts/need $(abi_packages)
	$(call build,$*,--target utils utils-platform utils-daemon)

reproducible: ## Build the libraries in two folders and compare them byte by byte
	@scripts/need $(build_packages)
	@scripts/reproducible

target-system: ## Run the test programs on a kernel of the target in an emulated machine
	@scripts/need $(test_packages) $(system_packages)
	$(call build,ppc)
	@scripts/target-system

asan: ## Run the tests under the address and undefined behaviour sanitizers
	@scripts/need $(test_packages)
	$(call check,asan)

tsan: ## Run the tests under the thread sanitizer
	@scripts/need $(test_packages)
	$(call check,tsan)

clang: ## Build everything with clang++ (warnings are errors) and run the tests
	@scripts/need $(test_packages) clang
	$(call check,clang)

fuzz: ## Run every fuzz target for SECONDS (default 20)
	@scripts/need $(build_packages) bubblewrap clang libclang-rt-14-dev
	$(call build,fuzz)
	@scripts/fuzz build/fuzz $(SECONDS)

bench: ## Run the benchmarks, ours and their peers side by side, all or FAMILY=name; draws docs/bench
	@scripts/need $(bench_packages)
	$(call build,bench)
	@scripts/bench $(FAMILY)

bench-check: ## The same; fails when a goal of bench/goals.json is missed twice in a row
	@scripts/need $(bench_packages)
	$(call build,bench)
	@scripts/bench --check $(FAMILY)

format: ## Format the sources
	@scripts/need clang-format
	@git ls-files '*.h' '*.cpp' '*.c' | xargs clang-format -i

lint: ## Check the format, the house rules and the code with static analysers
	@scripts/need $(build_packages) clang clang-tidy clang-format cppcheck shellcheck graphviz
	@scripts/lint

docs: ## Make the API reference (build/docs/html) and the manual pages (build/docs/man)
	@scripts/need $(docs_packages)
	@scripts/docs build/docs

package: ## Build the Debian packages into dist/ and check them; ARCH=powerpc for the target's
	@scripts/need $(package_packages) $(if $(ARCH),g++-$(shell dpkg-architecture -a$(ARCH) -qDEB_HOST_GNU_TYPE 2>/dev/null) qemu-user bubblewrap)
	@scripts/package $(ARCH)

install: ## Install into DESTDIR and PREFIX (default /usr/local)
	@scripts/need $(build_packages)
	@cmake -G Ninja -S . -B build/install -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX) \
	    -DUTILS_TESTS=OFF -DUTILS_DOCS=$(with_docs) > /dev/null
	@cmake --build build/install --parallel $(JOBS)
	@DESTDIR=$(DESTDIR) cmake --install build/install --strip

ci: ## What the continuous integration runs
	@.ci/run

clean: ## Remove everything that was built
	@rm -rf build dist
