# Thin wrappers around the CMake presets; see README.md.
JOBS ?= $(shell nproc)

.PHONY: deps deps-test deps-bench deps-package build run test test-release test-tsan test-asan bench faults \
	package clean

# Each target installs only the Debian packages it needs (see scripts/install-deps).
deps:
	@scripts/install-deps
deps-test:
	@scripts/install-deps test
deps-bench:
	@scripts/install-deps bench
deps-package:
	@scripts/install-deps package

# Running needs no test framework, so the tests are left out of this configuration.
build: deps
	cmake --preset release -DFERROVANE_BUILD_TESTS=OFF >/dev/null
	cmake --build --preset release -j $(JOBS)

# `ferrovane` without arguments starts the window, ferrovane-gui, from beside itself.
run: build
	./build/release/ferrovane

test: test-release test-tsan

test-release: deps-test
	cmake --preset release -DFERROVANE_BUILD_TESTS=ON >/dev/null
	cmake --build --preset release -j $(JOBS)
	ctest --preset release -j $(JOBS)

# The engine's threaded code under ThreadSanitizer (the window is not built in this preset).
test-tsan: deps-test
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan -j $(JOBS) -L engine

test-asan: deps-test
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)

# build/package/ferrovane_<version>_<arch>.deb (command line) and ferrovane-gui_<version>_<arch>.deb
# (the window): installed under /usr, hardened, stripped; scripts/check-package checks them.
package: deps-package
	cmake --preset package >/dev/null
	cmake --build --preset package -j $(JOBS)
	cpack --preset package

bench: deps-bench
	cmake --preset bench >/dev/null
	cmake --build --preset bench -j $(JOBS)
	bench/run-all

# The full fault suite (at least 20 kill moments, storage faults, escapes, hostile names) and the
# configuration reader's fuzzer; the results table is written to tests/faults/RESULTS.md.
faults: deps-test
	cmake --preset release -DFERROVANE_BUILD_TESTS=ON >/dev/null
	cmake --build --preset release -j $(JOBS)
	cmake -S . -B build/fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DFERROVANE_BUILD_APP=OFF -DFERROVANE_BUILD_FUZZ=ON >/dev/null
	cmake --build build/fuzz --target configuration_fuzzer -j $(JOBS)
	tests/faults/faults.py --executable build/release/ferrovane --tier full \
		--fuzzer build/fuzz/tests/faults/configuration_fuzzer --results tests/faults/RESULTS.md

clean:
	rm -rf build
