# Two commands set everything up on a fresh Debian machine:
#   make demo   install what is missing, build, classify the bundled example reads
#   make test   the same build, then every test
BUILD ?= build
BUILD_TYPE ?= Release
CMAKE_ARGS ?=
JOBS ?= $(shell nproc)

.PHONY: all deps configure build demo test bench format clean

all: build

deps:
	@bash scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	@bash scripts/demo.sh $(BUILD)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	@bash benchmarks/run_all.sh $(BUILD)

format:
	@clang-format -i $$(git ls-files '*.cpp' '*.h' '*.cu' '*.cuh')

clean:
	@rm -rf $(BUILD) demo_output
