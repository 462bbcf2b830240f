# The front door of the project: `make test`, `make demo`, `make build`.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=Debug -DCORVALINK_DESKTOP=ON

.PHONY: all setup configure build test demo demo-desktop screenshots release package install bench clean

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
	rm -rf $(BUILD_DIR) $(BUILD_DIR)-bench $(BUILD_DIR)-release
