# SPDX-License-Identifier: Apache-2.0
# The commands of the project. Packages are installed by "make deps" alone, which demo and test run first; the others
# name what is missing and that command.
SHELL := /bin/bash
.SHELLFLAGS := -euo pipefail -c
.DEFAULT_GOAL := help
MAKEFLAGS += --no-print-directory
# Commands are read by scripts: their words, their order and their cases are those of no country.
export LC_ALL := C.UTF-8
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
DESTDIR ?=
SECONDS ?= 20
FOR ?= demo test
N ?= 60
CCACHE := $(shell command -v ccache 2>/dev/null)
export CMAKE_C_COMPILER_LAUNCHER ?= $(CCACHE)
export CMAKE_CXX_COMPILER_LAUNCHER ?= $(CCACHE)

build_packages := cmake ninja-build gcc g++ libc6-dev pkg-config libcli11-dev nlohmann-json3-dev
test_packages := $(build_packages) googletest bubblewrap binutils gdb locales netcat-openbsd socat util-linux procps psmisc python3
docs_packages := doxygen mandoc man-db help2man python3

helgrind_tests := msgq_test timer_test sema_test proc_rwlock_test

# The other processors and the other C library; ppc is "make target".
corners := uchar s390x i686 aarch64 armhf riscv64 musl
# One corner for each word size and byte order keeps a description of the binary interface.
abi_corners := native ppc s390x i686
abi_libraries := utils utils-platform utils-daemon utils-testing

# What each target needs, under its name.
packages_demo := $(build_packages) bubblewrap
packages_native := $(test_packages)
packages_target := $(test_packages) g++-powerpc-linux-gnu libc6-powerpc-cross qemu-user
packages_test := $(packages_native) $(packages_target)
packages_uchar := $(test_packages)
packages_s390x := $(test_packages) g++-s390x-linux-gnu libc6-s390x-cross qemu-user
packages_i686 := $(test_packages) g++-i686-linux-gnu libc6-i386-cross
packages_aarch64 := $(test_packages) g++-aarch64-linux-gnu libc6-arm64-cross qemu-user
packages_armhf := $(test_packages) g++-arm-linux-gnueabihf libc6-armhf-cross qemu-user
packages_riscv64 := $(test_packages) g++-riscv64-linux-gnu libc6-riscv64-cross qemu-user
packages_musl := $(test_packages) musl-tools
packages_corners := $(foreach corner,$(corners),$(packages_$(corner)))
packages_abi := $(packages_target) $(packages_s390x) $(packages_i686) abigail-tools xz-utils
packages_abi-update := $(packages_abi)
packages_target-system := $(packages_target) linux-source-6.1 bc bison flex cpio dpkg-dev qemu-system-ppc
packages_asan := $(test_packages)
packages_tsan := $(test_packages)
packages_clang := $(test_packages) clang
# The leaks that are kept on purpose are known by their functions' names, which llvm's symbolizer gives.
packages_fuzz := $(build_packages) bubblewrap clang libclang-rt-14-dev llvm
packages_model := spin gcc libc6-dev
packages_soak := $(build_packages) bubblewrap python3
packages_mutants := $(test_packages) python3
packages_coverage := $(test_packages) gcovr
packages_helgrind := $(test_packages) valgrind
packages_bench := $(build_packages) bubblewrap binutils libbenchmark-dev libglib2.0-dev libevent-dev libspdlog-dev \
    zlib1g-dev libdeflate-dev libzstd-dev libuv1-dev libtbb-dev liblz4-dev python3 python3-matplotlib
packages_bench-check := $(packages_bench)
packages_format := clang-format git
packages_lint := $(build_packages) clang clang-tidy clang-format cppcheck shellcheck graphviz git
packages_platform-check := $(test_packages)
packages_docs := $(docs_packages)
packages_package = $(build_packages) $(docs_packages) build-essential debhelper dpkg-dev fakeroot lintian mmdebstrap uidmap \
    $(if $(ARCH),g++-$(shell dpkg-architecture -a$(ARCH) -qDEB_HOST_GNU_TYPE 2>/dev/null) qemu-user bubblewrap)
packages_reproducible = $(packages_package)
packages_install := $(build_packages)
packages_dist := dpkg-dev xz-utils mmdebstrap uidmap

# Goes on when the packages of the target are there; else names them and how to get them.
needs = @scripts/need $@ $(packages_$@)

# build PRESET [option...]: configures and builds it, quietly unless something is wrong.
define build
	@echo "== $(1): building"
	@mkdir -p build && cmake --preset $(1) > build/$(1).configure.log 2>&1 || { cat build/$(1).configure.log; exit 1; }
	@begin=$$SECONDS; cmake --build --preset $(1) --parallel $(JOBS) $(2); echo "== $(1): built after $$((SECONDS - begin)) s"
endef

# check PRESET [ctest option...]: builds it and runs its tests.
define check
	@scripts/sandbox true
	$(call build,$(1))
	@echo "== $(1): testing"
	@begin=$$SECONDS; ctest --preset $(1) --parallel $(JOBS) $(2); echo "== $(1): tested after $$((SECONDS - begin)) s"
endef

.PHONY: platform-check help deps demo test native target target-system corners $(corners) asan tsan clang helgrind coverage mutants fuzz model soak bench bench-check lint format docs package dist install uninstall \
    abi abi-update $(abi_corners:%=libraries-%) reproducible clean ci

help: ## This list
	@sed -nE 's/^([a-z-]+):.*## (.*)/\1|\2/p' Makefile | while IFS='|' read -r name what; do printf '%-15s %s\n' "$$name" "$$what"; done

deps: ## Install the Debian packages that targets need: make deps FOR="docs lint" (default: demo and test)
	@scripts/need --install "$(FOR)" $(sort $(foreach target,$(FOR),$(if $(packages_$(target)),$(packages_$(target)),$(error no packages are listed for '$(target)'))))

demo: ## Show the library at its main job: a daemon at work
	@$(MAKE) deps FOR=demo
	@scripts/sandbox true
	$(call build,demo)
	@examples/demo build/demo

test: ## Run the tests on this machine, then on the target's processor
	@$(MAKE) deps FOR=test
	@$(MAKE) native target
	@echo "make test: all tests passed, on this machine and on the target"

native: ## Run the tests on this machine
	$(needs)
	$(call check,native)

target: ## Cross-build for 32-bit big-endian PowerPC and run the same tests under the emulator
	$(needs)
	$(call check,ppc)

corners: $(corners) ## Run the tests or the examples on every other processor and C library, each a target of its own

$(corners):
	$(needs)
	$(call check,$@)

abi: $(abi_corners:%=libraries-%) ## Hold the binary interface against its description below abi/
	@scripts/abi check "$(abi_libraries)" $(abi_corners)

abi-update: $(abi_corners:%=libraries-%) ## Store the description of the binary interface after a deliberate change
	@scripts/abi update "$(abi_libraries)" $(abi_corners)

$(abi_corners:%=libraries-%): libraries-%:
	@scripts/need abi $(packages_abi)
	$(call build,$*,--target $(abi_libraries))

reproducible: package ## Make the packages, build them again in another folder and compare them byte by byte
	@scripts/reproducible dist

target-system: ## Run the test programs on a kernel of the target in an emulated machine
	$(needs)
	$(call build,ppc)
	@scripts/target-system

asan: ## Run the tests under the address and undefined behaviour sanitizers
	$(needs)
	$(call check,asan)

tsan: ## Run the tests under the thread sanitizer
	$(needs)
	$(call check,tsan)

clang: ## Build everything with clang++ (warnings are errors) and run the tests
	$(needs)
	$(call check,clang)

helgrind: ## Run the tests of queues, timers and locks under helgrind
	$(needs)
	$(call build,native,--target $(helgrind_tests))
	@scripts/helgrind build/native $(helgrind_tests)

coverage: ## Run the tests and show which lines and branches of the libraries they reach: build/coverage/report
	$(needs)
	$(call build,coverage)
	@scripts/coverage build/coverage

mutants: ## Put N faults (default 60) into the libraries and see which tests notice; SEED=..., FILES="lib/utils/..."
	$(needs)
	@scripts/mutants --sample $(N) --seed $(or $(SEED),1) $(if $(FILES),--files $(FILES)) --jobs $(JOBS) \
	    --out build/mutants/$(N)-$(or $(SEED),1).jsonl --accepted scripts/accepted-mutants

fuzz: ## Run every fuzz target for SECONDS (default 20), on from the inputs that are kept and earlier runs
	$(needs)
	$(call build,fuzz)
	@scripts/fuzz build/fuzz $(SECONDS)

model: ## Check the models of the protocols, and that their planted faults are found
	$(needs)
	@scripts/model

soak: SECONDS := $(if $(filter command line environment,$(origin SECONDS)),$(SECONDS),60)
soak: ## Keep a daemon and everything at it busy for SECONDS (default 60), with kills; SEED repeats the choices
	$(needs)
	$(call build,demo,--target soak)
	@scripts/soak build/demo $(SECONDS) $(SEED)

bench: ## Run the benchmarks, ours and their peers side by side, all or FAMILY=name, BEFORE=folder of older libraries; draws docs/bench
	$(needs)
	$(call build,bench)
	@scripts/bench $(if $(BEFORE),--before $(BEFORE)) $(FAMILY)

bench-check: ## The same; fails when a goal of bench/goals.json is missed twice in a row
	$(needs)
	$(call build,bench)
	@scripts/bench --check $(FAMILY)

format: ## Format the sources
	$(needs)
	@git ls-files '*.h' '*.cpp' '*.c' | xargs clang-format -i

platform-check: ## Hold a product's platform, PLATFORM=/path/lib.so, against docs/porting.md
	$(needs)
	$(call build,native,--target platform_test sema_test msgq_test timer_r_test timer_test evlog_test)
	@scripts/platform-check build/native "$(or $(PLATFORM),$(error say which: PLATFORM=/path/lib.so))"

lint: ## Check the format, the house rules and the code with static analysers
	$(needs)
	@scripts/lint

docs: ## Make the site with manual, tutorial and reference (build/docs/html) and the manual pages (build/docs/man)
	$(needs)
	@scripts/docs build/docs

package: ## Build the Debian packages into dist/ and check them; ARCH=powerpc for the target's
	$(needs)
	@scripts/package $(ARCH)

dist: ## Make the source tarball and the Debian source package in dist/, and build it in a clean root
	$(needs)
	@scripts/dist

install: ## Install into DESTDIR and PREFIX (default /usr/local)
	$(needs)
	@scripts/install "$(PREFIX)" "$(DESTDIR)" $(JOBS)

uninstall: ## Remove what make install has put into DESTDIR and PREFIX
	@scripts/install --remove "$(PREFIX)" "$(DESTDIR)"

ci: ## What the continuous integration runs
	@.ci/run

clean: ## Remove everything that was built
	@rm -rf build dist
