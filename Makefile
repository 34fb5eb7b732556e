# Entry points for newcomers and CI. Every target installs the Debian packages
# of its tier first (as root, see scripts/install-deps.sh), so these work on a
# fresh Debian 12 machine; scripts/make runs them where make itself is missing.
BUILD      ?= build/release
PACKAGE_BUILD ?= build/package
PREFIX     ?= /usr/local
ASAN_BUILD ?= build/asan
TSAN_BUILD ?= build/tsan
FUZZ_BUILD ?= build/fuzz
FUZZ_SECONDS ?= 60
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

# fast_unwind_on_malloc=0: GLib and GStreamer are built without frame
# pointers, so fast unwinding stops at g_malloc and the suppressions in
# tests/lsan.supp (which name deeper frames) could never match.
# G_SLICE=always-malloc: GLib's slice allocator keeps freed blocks in its own
# caches, where neither a leaked GStreamer object or message nor a use after
# its release would show.
SAN_ENV = G_SLICE=always-malloc \
          ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=1:detect_stack_use_after_return=0:fast_unwind_on_malloc=0 \
          LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp:print_suppressions=0 \
          UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

.PHONY: all deps deps-test deps-dev build demo test asan-test bench install package \
        clean tsan-test fuzz

all: build

deps:
	@bash scripts/install-deps.sh build
deps-test:
	@bash scripts/install-deps.sh test
deps-dev:
	@bash scripts/install-deps.sh dev

# The library, its plugin module and qomm; the test suite and the benchmarks
# only where their targets ask for them.
configure = cmake -S . -B $(1) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
NO_TESTS  = -DQO_BUILD_TESTS=OFF -DQO_BUILD_BENCH=OFF

build: deps
	$(call configure,$(BUILD)) $(NO_TESTS) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)

# The main job: the command-line host plays the bundled samples.
demo: build
	$(BUILD)/tools/qomm

test: deps-test
	$(call configure,$(BUILD)) -DQO_BUILD_TESTS=ON -DQO_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300

# The whole suite again under AddressSanitizer and UndefinedBehaviorSanitizer.
asan-test: deps-dev
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	  -DQO_SANITIZE=address,undefined -DQO_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && $(SAN_ENV) ctest --output-on-failure -j $(JOBS) --timeout 600

# The whole suite under ThreadSanitizer. Only our code is instrumented:
# tests/tsan.supp ignores what GLib and GStreamer do inside, and the preloaded
# libqotsanglib.so shows ThreadSanitizer the ordering of GLib's mutexes,
# conditions and main-loop dispatch as our code relies on it. GIO's settings
# and proxy modules stay unloaded (ThreadSanitizer cannot have libraries it
# ignores unloaded again). G_SLICE=always-malloc: GLib's slice allocator hands
# a buffer's freed memory to another thread without a free() ThreadSanitizer
# sees, so our reads of one stream's buffer metas would race, on paper, with
# our writes to another stream's metas placed at the same address later.
TSAN_ENV = TSAN_OPTIONS=suppressions=$(CURDIR)/tests/tsan.supp:halt_on_error=1:second_deadlock_stack=1:history_size=4 \
           LD_PRELOAD=$(CURDIR)/$(TSAN_BUILD)/tests/libqotsanglib.so \
           GSETTINGS_BACKEND=memory GIO_USE_PROXY_RESOLVER=dummy G_SLICE=always-malloc

tsan-test: deps-dev
	cmake -S . -B $(TSAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	  -DQO_SANITIZE=thread -DQO_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(TSAN_BUILD) -j $(JOBS)
	cd $(TSAN_BUILD) && $(TSAN_ENV) ctest --output-on-failure -j $(JOBS) --timeout 900

# A bounded libFuzzer run ($(FUZZ_SECONDS) s) of the file decoder layer under
# AddressSanitizer and UndefinedBehaviorSanitizer (clang). Only the fuzzer and
# what it links are built; the seeds are encoded now with the system's
# encoders. Findings land in $(FUZZ_BUILD)/ as crash-* files.
fuzz: deps-dev
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	  -DQO_SANITIZE=address,undefined -DQO_BUILD_FUZZ=ON \
	  -DQO_BUILD_TESTS=OFF -DQO_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(FUZZ_BUILD) --target file_decoder_fuzzer -j $(JOBS)
	bash fuzz/make_seeds.sh $(FUZZ_BUILD)/fuzz-seeds
	mkdir -p $(FUZZ_BUILD)/fuzz-corpus
	$(SAN_ENV) $(FUZZ_BUILD)/fuzz/file_decoder_fuzzer -max_total_time=$(FUZZ_SECONDS) \
	  -max_len=16384 -timeout=30 -close_fd_mask=1 -print_final_stats=1 \
	  -artifact_prefix=$(FUZZ_BUILD)/ $(FUZZ_BUILD)/fuzz-corpus $(FUZZ_BUILD)/fuzz-seeds

# Throughput, latency, scale, start/stop and churn next to GStreamer and
# FFmpeg (release build, about ten minutes): bench/results.md, bench/plots/.
bench: deps-dev
	$(call configure,$(BUILD)) -DQO_BUILD_BENCH=ON $(CMAKE_ARGS) >/dev/null
	BUILD=$(BUILD) bash scripts/bench.sh

# Libraries, headers, qomm and samples under $(PREFIX). Into /usr/local or
# /usr the live555src plugin module goes to GStreamer's own plugin directory,
# so gst-inspect-1.0 and gst-launch-1.0 find it, and the dynamic linker's cache
# is refreshed; elsewhere it stays in $(PREFIX)/lib/gstreamer-1.0 (for
# GST_PLUGIN_PATH) and programs find the libraries by their run path.
PLUGIN_DIR_ARG = $(if $(filter /usr /usr/local,$(PREFIX)), \
  -DQO_GST_PLUGIN_INSTALL_DIR=$$(pkg-config --variable=pluginsdir gstreamer-1.0), \
  -UQO_GST_PLUGIN_INSTALL_DIR)

install: deps
	$(call configure,$(BUILD)) $(NO_TESTS) -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(PLUGIN_DIR_ARG) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)
	cmake --install $(BUILD)

# build/package/qosdkmm_<version>_amd64.deb (runtime) and
# qosdkmm-dev_<version>_amd64.deb (headers, pkg-config and CMake files):
# prefix /usr, so the plugin module lands in GStreamer's plugin directory;
# the runtime's Depends from dpkg-shlibdeps.
package: deps
	$(call configure,$(PACKAGE_BUILD)) $(NO_TESTS) -DCMAKE_INSTALL_PREFIX=/usr $(CMAKE_ARGS)
	cmake --build $(PACKAGE_BUILD) -j $(JOBS)
	cd $(PACKAGE_BUILD) && cpack -G DEB

clean:
	rm -rf build
