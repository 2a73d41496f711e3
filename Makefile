# Thin wrappers around the CMake presets; see README.md.
JOBS ?= $(shell nproc)

.PHONY: deps build run test test-release test-tsan test-asan bench faults clean

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

# The full fault suite (at least 20 kill moments, storage faults, escapes, hostile names) and the
# configuration reader's fuzzer; the results table is written to tests/faults/RESULTS.md.
faults: build
	cmake -S . -B build/fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DFERROVANE_BUILD_APP=OFF -DFERROVANE_BUILD_FUZZ=ON >/dev/null
	cmake --build build/fuzz --target configuration_fuzzer -j $(JOBS)
	tests/faults/faults.py --executable build/release/ferrovane --tier full \
		--fuzzer build/fuzz/tests/faults/configuration_fuzzer --results tests/faults/RESULTS.md

clean:
	rm -rf build
