# Wraps the CMake presets: `make` builds, `make demo` shows the services at work, `make test` runs
# every suite (plain, sanitizers, install tree, PowerPC under emulation).
JOBS ?= $(shell nproc)
CMAKE ?= cmake
CTEST ?= ctest

.PHONY: all build demo test test-default test-asan test-tsan test-install test-ppc bench clean

all: build

build:
	$(CMAKE) --preset default
	$(CMAKE) --build --preset default -j $(JOBS)

demo: build
	sh tools/demo.sh build/default

test: test-default test-asan test-tsan test-install test-ppc

test-default: build
	$(CTEST) --preset default -j $(JOBS)

test-asan:
	$(CMAKE) --preset asan
	$(CMAKE) --build --preset asan -j $(JOBS)
	$(CTEST) --preset asan -j $(JOBS)

test-tsan:
	$(CMAKE) --preset tsan
	$(CMAKE) --build --preset tsan -j $(JOBS) --target test_shm_mr_lock_test test_host_trace_test
	$(CTEST) --preset tsan -j $(JOBS)

test-install: build
	sh examples/run.sh build/default

# 32-bit big-endian PowerPC: cross build (libcrypto built from the distribution's sources on the first
# configure), tests under qemu user emulation.
test-ppc:
	$(CMAKE) --preset ppc
	$(CMAKE) --build --preset ppc -j $(JOBS)
	$(CTEST) --preset ppc -j $(JOBS)

# The benchmarks run in the sandbox: they take the fixed System V keys and write the transfer error log.
# Medians of interleaved repetitions; the JSON feeds bench/plot.sh (BENCH_FLAGS adds benchmark flags).
bench: build
	sh tests/support/sandbox.sh build/default/bin/fcadmin_bench --benchmark_out=build/default/bench.json \
		--benchmark_out_format=json $(BENCH_FLAGS)

clean:
	rm -rf build
