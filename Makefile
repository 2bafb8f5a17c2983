# Wraps the CMake presets: `make` builds, `make demo` shows the services at work, `make test` runs
# every suite (plain, sanitizers, install tree, Release with GCC and with clang, PowerPC, s390x, i386)
# and `make warnings` builds with every compiler and configuration we keep warning-free.
JOBS ?= $(shell nproc)
CMAKE ?= cmake
CTEST ?= ctest
export JOBS

# Compilers and configurations that must build the whole tree (library, host services, tools, tests,
# benchmarks) without a single warning: GCC 12 at -O0, -O2 and -O3 (the last two with
# _FORTIFY_SOURCE=3), GCC 11, clang (14 on Debian 12) and clang 19.
WARNING_PRESETS = debug default release gcc11 clang clang19

.PHONY: all build demo test test-default test-asan test-tsan test-install test-release test-clang \
        test-ppc test-s390x test-i386 test-fuzz fuzz fuzz-build warnings bench clean

all: build

build:
	bash cmake/check-warnings.sh default

demo: build
	sh tools/demo.sh build/default

# The suites first; `warnings` then only builds what they have not built yet.
test: test-default test-asan test-tsan test-install test-release test-clang test-ppc test-s390x test-i386 \
      test-fuzz warnings

# One preset's suite: a build that fails on any warning, then ctest.
define suite
	bash cmake/check-warnings.sh $(1)
	$(CTEST) --preset $(1) -j $(JOBS)
endef

test-default: build
	$(CTEST) --preset default -j $(JOBS)

test-asan:
	$(call suite,asan)

test-tsan:
	$(CMAKE) --preset tsan
	$(CMAKE) --build --preset tsan -j $(JOBS) --target test_shm_mr_lock_test test_host_trace_test
	$(CTEST) --preset tsan -j $(JOBS)

test-install: build
	sh examples/run.sh build/default

# Release (-O3) with GCC and with clang.
test-release:
	$(call suite,release)

test-clang:
	$(call suite,clang)

# Cross builds (libcrypto built from the distribution's sources on the first configure): 32-bit
# big-endian PowerPC and 64-bit big-endian s390x with the tests under qemu user emulation, 32-bit
# little-endian i386 run natively.
test-ppc:
	$(call suite,ppc)

test-s390x:
	$(call suite,s390x)

test-i386:
	$(call suite,i386)

warnings:
	bash cmake/check-warnings.sh $(WARNING_PRESETS)

# libFuzzer targets (clang): `make fuzz` runs each for FUZZ_SECONDS from the committed corpus
# (tests/fuzz/corpus), `make test-fuzz` for 15 s each, so that a regression shows in CI.
FUZZ_SECONDS ?= 60
FUZZ_FLAGS ?=

fuzz-build:
	$(CMAKE) --preset fuzz
	$(CMAKE) --build --preset fuzz -j $(JOBS)

fuzz: fuzz-build
	sh tests/fuzz/run.sh build/fuzz $(FUZZ_SECONDS) $(FUZZ_FLAGS)

test-fuzz: fuzz-build
	sh tests/fuzz/run.sh build/fuzz 15

# The benchmarks run in the sandbox: they take the fixed System V keys and write the transfer error log.
# Medians of interleaved repetitions; the JSON feeds bench/plot.sh (BENCH_FLAGS adds benchmark flags).
bench: build
	sh tests/support/sandbox.sh build/default/bin/fcadmin_bench --benchmark_out=build/default/bench.json \
		--benchmark_out_format=json $(BENCH_FLAGS)

clean:
	rm -rf build
