# Front door for people and CI. Every target installs what is missing first.
BUILD    ?= build
JOBS     ?= $(shell nproc)
GENERATE  = cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
            -DCMAKE_CXX_COMPILER_LAUNCHER=$(shell command -v ccache) $(CMAKE_ARGS)

.PHONY: deps build test bench demo clean

deps:
	@scripts/install-deps

build: deps
	@$(GENERATE) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 120

bench: deps
	@$(GENERATE) -DUSEMETER_BUILD_BENCHMARKS=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@scripts/run-benchmarks $(BUILD)

demo: build
	@scripts/demo $(BUILD)

clean:
	@rm -rf $(BUILD)
