# Thin wrappers around the CMake presets; see README.md.
JOBS ?= $(shell nproc)

.PHONY: deps build run test test-release test-tsan test-asan bench clean

deps:
	@scripts/install-deps

build: deps
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)

run: build
	./build/release/ferrovane

test: test-release test-tsan

test-release: build
	ctest --preset release -j $(JOBS)

# The engine's threaded code under ThreadSanitizer (the window is not built in this preset).
test-tsan: deps
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan -j $(JOBS) -L engine

test-asan: deps
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)

bench: deps
	cmake --preset bench >/dev/null
	cmake --build --preset bench -j $(JOBS)
	bench/run-all

clean:
	rm -rf build
