# The front door of the project: `make test`, `make demo`, `make build`.
BUILD_DIR ?= build
FUZZ_DIR ?= $(BUILD_DIR)-fuzz
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=Debug -DCORVALINK_DESKTOP=ON
# make fuzz: how long each target runs, and which ones ("listing policy"; all when empty).
FUZZ_SECONDS ?= 600
FUZZ_TARGETS ?=

.PHONY: all setup configure build test demo demo-desktop screenshots release package install bench fuzz-build fuzz clean

all: build

setup:
	@bash scripts/setup.sh

$(BUILD_DIR)/CMakeCache.txt:
	cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS)

configure: $(BUILD_DIR)/CMakeCache.txt

build: setup configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build fuzz-build
	cd $(BUILD_DIR) && ctest -j $(JOBS) --output-on-failure
	cd $(FUZZ_DIR) && ctest -j $(JOBS) --output-on-failure

# The fuzzing targets: clang and libFuzzer, with AddressSanitizer and
# UndefinedBehaviorSanitizer, in a build of their own.
$(FUZZ_DIR)/CMakeCache.txt:
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=Debug -DCORVALINK_TESTS=OFF -DCORVALINK_FUZZ=ON

fuzz-build: setup $(FUZZ_DIR)/CMakeCache.txt
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target fuzz_targets

# Each target for FUZZ_SECONDS; what it learns stays in $(FUZZ_DIR)/fuzz/runs/.
fuzz: fuzz-build
	@targets="$(FUZZ_TARGETS)"; \
	[ -n "$$targets" ] || targets=$$(cd $(FUZZ_DIR)/fuzz && ls fuzz_* | sed 's/^fuzz_//'); \
	for target in $$targets; do \
	  echo "fuzz: $$target for $(FUZZ_SECONDS) s"; \
	  fuzz/run.sh $(FUZZ_DIR)/fuzz/fuzz_$$target $(FUZZ_DIR)/fuzz/runs/$$target $(FUZZ_SECONDS) \
	    fuzz/corpus/$$target fuzz/regressions/$$target || exit 1; \
	done

demo: build
	@bash scripts/demo.sh $(BUILD_DIR)

demo-desktop: build
	@bash scripts/demo-desktop.sh $(BUILD_DIR)

screenshots: build
	@bash scripts/demo-desktop.sh $(BUILD_DIR) docs/screenshots

# What is installed and packed: an optimised build without the sanitizers.
release: setup
	cmake -S . -B $(BUILD_DIR)-release -DCMAKE_BUILD_TYPE=Release -DCORVALINK_SANITIZE=OFF -DCORVALINK_TESTS=OFF -DCORVALINK_DESKTOP=ON -DCMAKE_INSTALL_PREFIX=/usr
	cmake --build $(BUILD_DIR)-release -j $(JOBS)

PREFIX ?= /usr/local
install: release
	cmake --install $(BUILD_DIR)-release --prefix $(PREFIX)

package: release
	cd $(BUILD_DIR)-release && cpack

bench: setup
	cmake -S . -B $(BUILD_DIR)-bench -DCMAKE_BUILD_TYPE=Release -DCORVALINK_SANITIZE=OFF -DCORVALINK_TESTS=OFF -DCORVALINK_BENCH=ON
	cmake --build $(BUILD_DIR)-bench -j $(JOBS)

clean:
	rm -rf $(BUILD_DIR) $(BUILD_DIR)-bench $(BUILD_DIR)-release $(FUZZ_DIR)
