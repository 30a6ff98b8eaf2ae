# Two commands set everything up on a fresh Debian machine:
#   make demo   install what the program needs, build it, classify the bundled
#               example reads
#   make test   install what the tests need too, build everything (tests and
#               benchmarks), then run every test
# make cluster-demo runs the sharded Snakemake workflow (workflow/) on the
# example reads, one shard per file, into cluster_demo_output/.
BUILD ?= build
BUILD_TYPE ?= Release
CMAKE_ARGS ?=
JOBS ?= $(shell nproc)

# Optional package groups of scripts/install-deps.sh: the demo needs none, a
# full build the test tools.
DEPS_GROUPS ?= test

.PHONY: all deps configure build program demo cluster-demo test bench format clean

all: build

deps:
	@bash scripts/install-deps.sh $(DEPS_GROUPS)

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

# The program and its data only.
program: configure
	@cmake --build $(BUILD) -j $(JOBS) --target vorpa_barcoder

demo: DEPS_GROUPS =
demo: program
	@bash scripts/demo.sh $(BUILD)

cluster-demo: DEPS_GROUPS =
cluster-demo: program
	@bash scripts/install-deps.sh workflow
	@rm -rf cluster_demo_output
	snakemake -s workflow/Snakefile --cores 2 --config input_path=examples/reads \
	  save_path=cluster_demo_output files_per_shard=1 barcoder=$(BUILD)/bin/vorpa_barcoder \
	  options="--barcode_kits VB-NB24"
	@echo
	@echo "Merged output of $$(ls cluster_demo_output/logs | grep -c '^shard_') shards in cluster_demo_output/:"
	@ls -C cluster_demo_output
	@python3 -c 'import json; r = json.load(open("cluster_demo_output/barcoding_report.json"))["reads"]; \
	  print("{written} reads written, {classified} classified, {unclassified} unclassified".format(**r))'

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	@bash benchmarks/run_all.sh $(BUILD)

format:
	@clang-format -i $$(git ls-files '*.cpp' '*.h' '*.cu' '*.cuh')

clean:
	@rm -rf $(BUILD) demo_output cluster_demo_output .snakemake
