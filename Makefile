# The two front doors: `make demo` runs the main job on built-in demo data,
# `make test` runs every test. Both install what a fresh machine lacks.
BUILD  ?= build
JOBS   ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=Release

.PHONY: all deps configure build test demo bench native-test clean

all: build

deps:
	@bash scripts/install-deps.sh

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw64.cmake $(CMAKE_FLAGS)

configure: deps $(BUILD)/CMakeCache.txt

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	@bash scripts/wine-prefix.sh
	cd $(BUILD) && ctest --output-on-failure --timeout 900
	@bash scripts/native-tests.sh

native-test: deps
	@bash scripts/native-tests.sh

demo: build
	@bash scripts/demo.sh $(BUILD)

bench: build
	@bash scripts/bench.sh $(BUILD)

clean:
	rm -rf $(BUILD)
