# Front door for people and CI. Every target installs what is missing first.
BUILD    ?= build
JOBS     ?= $(shell nproc)
GENERATE  = cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
            -DCMAKE_CXX_COMPILER_LAUNCHER=$(shell command -v ccache) $(CMAKE_ARGS)

.PHONY: deps build test test-asan test-tsan test-i386 fuzz bench demo deb clean

deps:
	@scripts/install-deps

build: deps
	@$(GENERATE) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 120

# Whole suite under the sanitizers and on the 32-bit reference platform, each in a tree of
# its own so that none of them disturbs the plain build. A sanitizer report fails the test
# that caused it; suppressions name only proven false positives in third-party code.
supp      = $(if $(wildcard tests/sanitizers/$(1).supp),:suppressions=$(CURDIR)/tests/sanitizers/$(1).supp)
ASAN_ENV  = ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1$(call supp,asan) \
            UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1$(call supp,ubsan) \
            LSAN_OPTIONS=report_objects=1$(call supp,lsan)
TSAN_ENV  = TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1$(call supp,tsan)
CTEST     = ctest --output-on-failure -j $(JOBS)
# An outside host built without a sanitizer cannot load a sanitized library (the runtime
# must come first); packaging is proven by the plain and i386 runs instead.
SANITIZED_CTEST = $(CTEST) --timeout 300
generate  = cmake -S . -B $(1) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
            -DCMAKE_CXX_COMPILER_LAUNCHER=$(shell command -v ccache) $(2) $(CMAKE_ARGS) >/dev/null

test-asan: deps
	@$(call generate,build-asan,-DUSEMETER_SANITIZE=address)
	@cmake --build build-asan -j $(JOBS)
	@cd build-asan && $(ASAN_ENV) $(SANITIZED_CTEST)

test-tsan: deps
	@$(call generate,build-tsan,-DUSEMETER_SANITIZE=thread)
	@cmake --build build-tsan -j $(JOBS)
	@cd build-tsan && $(TSAN_ENV) $(SANITIZED_CTEST)

test-i386: deps
	@scripts/install-deps-i386
	@$(call generate,build-i386,-DCMAKE_TOOLCHAIN_FILE=cmake/i386-linux-gnu.cmake)
	@cmake --build build-i386 -j $(JOBS)
	@cd build-i386 && $(CTEST) --timeout 120

# libFuzzer runs, FUZZ_SECONDS each (or FUZZ_RUNS executions each); new inputs collect in
# build-fuzz/corpus, findings in build-fuzz/crashers. `make test` replays the kept corpora.
FUZZ_SECONDS ?= 60
fuzz:
	@scripts/install-deps clang-14 libclang-rt-14-dev
	@CC=clang-14 CXX=clang++-14 $(call generate,build-fuzz,-DUSEMETER_BUILD_FUZZERS=ON \
	    -DUSEMETER_BUILD_TESTS=OFF -DUSEMETER_BUILD_TOOLS=OFF)
	@cmake --build build-fuzz -j $(JOBS) --target usemeter_fuzzers
	@FUZZ_SECONDS=$(FUZZ_SECONDS) FUZZ_RUNS=$(FUZZ_RUNS) scripts/run-fuzzers build-fuzz

bench: deps
	@$(GENERATE) -DUSEMETER_BUILD_BENCHMARKS=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@scripts/run-benchmarks $(BUILD)

demo: build
	@scripts/demo $(BUILD)

# Debian packages (libusemeter1, libusemeter-dev, usemeter) in build-deb/, checked by lintian;
# tests/install/packages.sh installs, exercises and purges them (root).
deb: deps
	@scripts/install-deps debhelper lintian
	@JOBS=$(JOBS) USEMETER_COLLECTOR_URL=$(USEMETER_COLLECTOR_URL) scripts/build-deb build-deb

clean:
	@rm -rf $(BUILD) build-asan build-tsan build-i386 build-fuzz build-deb
