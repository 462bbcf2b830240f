# The front door of the project: `make test`, `make demo`, `make build`.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=Debug

.PHONY: all setup configure build test demo bench clean

all: build

setup:
	@bash scripts/setup.sh

$(BUILD_DIR)/CMakeCache.txt:
	cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS)

configure: $(BUILD_DIR)/CMakeCache.txt

build: setup configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest -j $(JOBS) --output-on-failure

demo: build
	@bash scripts/demo.sh $(BUILD_DIR)

bench: setup
	cmake -S . -B $(BUILD_DIR)-bench -DCMAKE_BUILD_TYPE=Release -DCORVALINK_SANITIZE=OFF -DCORVALINK_TESTS=OFF -DCORVALINK_BENCH=ON
	cmake --build $(BUILD_DIR)-bench -j $(JOBS)

clean:
	rm -rf $(BUILD_DIR) $(BUILD_DIR)-bench
