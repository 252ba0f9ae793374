# One command each for a fresh machine: `make demo` and `make check`.
JOBS ?= 2
BUILD_DIR ?= build
CHECK_DIR ?= build-check
TSAN_DIR ?= build-tsan

# ccache keys on paths relative to the checkout and ignores the build
# directory's name, so a fresh clone reuses what an earlier one compiled.
export CCACHE_BASEDIR := $(CURDIR)
export CCACHE_NOHASHDIR := 1

.PHONY: deps build demo check check-tsan check-release bench fuzz package clean

deps:
	scripts/install-deps

build: deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD_DIR) -j $(JOBS)

demo: build
	scripts/demo $(BUILD_DIR)/bin

check: deps
	cmake -S . -B $(CHECK_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZARVO_SANITIZE=ON -DZARVO_BUILD_BENCHMARKS=OFF
	cmake --build $(CHECK_DIR) -j $(JOBS)
	cd $(CHECK_DIR) && ctest --output-on-failure -j $(JOBS)
	$(MAKE) check-tsan
	$(MAKE) check-release

# The runtime's concurrency tests, again under ThreadSanitizer.
check-tsan: deps
	cmake -S . -B $(TSAN_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZARVO_TSAN=ON -DZARVO_BUILD_BENCHMARKS=OFF
	cmake --build $(TSAN_DIR) -j $(JOBS) --target tsan-tests
	cd $(TSAN_DIR) && ctest --output-on-failure -j $(JOBS) -L tsan

# The programs as they ship (Release, the responder linked wholly static),
# again through the end-to-end tests.
check-release: deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD_DIR) -j $(JOBS) --target zarvo-askpass zarvo-keychain git-credential-zarvo
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) -L e2e

# The Debian package of the Release build, in $(BUILD_DIR).
package: build
	cd $(BUILD_DIR) && cpack -G DEB

bench: build
	scripts/bench $(BUILD_DIR)/bin

# libFuzzer targets (clang) in their own build directory, each run for
# FUZZ_SECONDS; not part of `check`.
FUZZ_SECONDS ?= 60
fuzz:
	scripts/fuzz $(FUZZ_SECONDS)

clean:
	rm -rf $(BUILD_DIR) $(CHECK_DIR) $(TSAN_DIR)
