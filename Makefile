# Each target installs the Debian packages that it misses, then does its work. `make help` lists
# them. The presets (CMakePresets.json) do the building; use cmake and ctest directly if you like.

BUILD := build
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
# Benchmarks and how long each runs; `make bench BENCH_ARGS=--benchmark_filter=verify`.
BENCH_ARGS ?=

SOURCES = find src include board tools tests bench examples fuzz \
            -name '*.cc' -o -name '*.c' -o -name '*.h'
CTEST = ctest -j $(JOBS) --output-on-failure --no-tests=error

.DEFAULT_GOAL := release
.NOTPARALLEL:
.PRECIOUS: configure-% build-% check-% elsewhere-%
MAKEFLAGS += --no-print-directory
export CTEST_OUTPUT_ON_FAILURE = 1

.PHONY: bootstrap bootstrap-lint bootstrap-peers bootstrap-checks
bootstrap:
	@scripts/bootstrap.sh build
bootstrap-lint:
	@scripts/bootstrap.sh build lint docs
# The tests skip a peer that cannot be installed, and what they have no eyes for.
bootstrap-peers:
	@scripts/bootstrap.sh peers || echo "make: going on without these peers" >&2
bootstrap-checks:
	@scripts/bootstrap.sh checks || echo "make: going on without these checks" >&2

# What a device or a developer gets, without tests and benchmarks.
PRODUCTS := pki board pkictl pkilab manual

# configure-NAME and build-NAME configure a preset, and build all of it.
configure-%: bootstrap
	@cmake --preset $* --log-level=WARNING >/dev/null
build-%: configure-%
	@cmake --build --preset $* -j $(JOBS)

# check-NAME runs a preset's tests, but for those that take long.
check-%: build-%
	@$(CTEST) --preset $* -LE long

.PHONY: release debug
release: configure-release ## build the library and the tools, optimised (the default)
	@cmake --build --preset release -j $(JOBS) --target $(PRODUCTS)
debug: build-debug ## build everything without optimisation, in build/debug

.PHONY: demo
demo: release ## watch a device take a CA from a signed document over HTTP, and enroll with it
	@scripts/demo.sh $(BUILD)/release

# One after the other, so that the last lines are the last summary.
.PHONY: test
test: bootstrap-peers bootstrap-checks ## run the tests: optimised, then with AddressSanitizer and UBSan
	@$(MAKE) check-release
	@$(MAKE) check-asan

.PHONY: test-long
test-long: bootstrap-peers bootstrap-fuzz deb build-release ## run soak tests, ThreadSanitizer, fuzzers, and the tests as on other machines
	@$(CTEST) --preset release -L long
	@$(MAKE) build-tsan
	@$(CTEST) --preset tsan -L unit
	@$(MAKE) build-fuzz
	@$(CTEST) --preset fuzz -L long
	@$(MAKE) test-elsewhere

# Other machines' libraries are unpacked beside the builds, not installed.
.PHONY: test-elsewhere
test-elsewhere: elsewhere-i386 elsewhere-s390x ## run the tests as on a 32-bit machine, and on a big-endian one
elsewhere-%:
	@scripts/bootstrap.sh build $*
	@scripts/sysroot.sh $* $(BUILD)/sysroots/$*
	@$(MAKE) check-$*

FUZZ_SECONDS ?= 60
.PHONY: bootstrap-fuzz fuzz
bootstrap-fuzz:
	@scripts/bootstrap.sh build fuzz
fuzz: bootstrap-fuzz ## run the fuzzers, FUZZ_SECONDS (60) each
	@cmake --preset fuzz --log-level=WARNING >/dev/null
	@cmake --build --preset fuzz -j $(JOBS)
	@fuzz/run.sh $(BUILD)/fuzz $(FUZZ_SECONDS)

.PHONY: bench
bench: configure-release ## measure; fails when a budget is exceeded
	@cmake --build --preset release -j $(JOBS) --target bench_libpki bench_init bench_enroll bench_verify bench_crl bench_marshal \
	  memory_with_openssl memory_with_libpki
	@$(BUILD)/release/bin/bench_libpki $(BENCH_ARGS)
	@$(BUILD)/release/bin/bench_init
	@bench/bench_footprint.sh $(BUILD)/release/lib/libpki.so \
	  $(BUILD)/release/bin/memory_with_openssl $(BUILD)/release/bin/memory_with_libpki
	@$(BUILD)/release/bin/bench_enroll
	@$(BUILD)/release/bin/bench_verify
	@$(BUILD)/release/bin/bench_crl
	@$(BUILD)/release/bin/bench_marshal

.PHONY: format
format: bootstrap-lint ## bring the sources into the house format
	@$(SOURCES) | xargs clang-format -i

.PHONY: lint
lint: bootstrap-lint configure-release ## check format, clang-tidy, cppcheck, the house rules and the documents
	@cmake --build --preset release -j $(JOBS) --target pki
	@scripts/lint.sh $(BUILD)/release

.PHONY: bootstrap-docs docs
bootstrap-docs:
	@scripts/bootstrap.sh docs
docs: bootstrap-docs ## make the manual of the interface in HTML, in build/docs/html
	@mkdir -p $(BUILD)/docs
	@{ cat docs/Doxyfile; echo "OUTPUT_DIRECTORY = $(BUILD)/docs"; } | doxygen -

.PHONY: install
install: release ## install under PREFIX (default /usr/local); DESTDIR is honoured
	@cmake --install $(BUILD)/release --prefix $(PREFIX)

.PHONY: deb
deb: ## build the Debian packages, in build/deb
	@scripts/bootstrap.sh build deb
	@scripts/build_deb.sh $(BUILD)/deb

.PHONY: abi
abi: bootstrap configure-release ## keep the interface as it is now, for hosts that are built against it
	@scripts/bootstrap.sh checks
	@cmake --build --preset release -j $(JOBS) --target pki interface_types
	@scripts/abi.sh write $(BUILD)/release/lib/libpki.so $(BUILD)/release/lib/libinterface_types.so

.PHONY: clean
clean: ## remove everything that was built
	@rm -rf $(BUILD)

.PHONY: help
help: ## this list
	@awk -F ':.*## ' '/^[a-z-]+:.*## / { printf "  make %-14s %s\n", $$1, $$2 }' $(MAKEFILE_LIST)
