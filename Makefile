# Entry points for newcomers and CI. Every target installs what is missing
# first (as root), so these work on a fresh Debian 12 machine.
BUILD      ?= build/release
ASAN_BUILD ?= build/asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

# fast_unwind_on_malloc=0: GLib and GStreamer are built without frame
# pointers, so fast unwinding stops at g_malloc and the suppressions in
# tests/lsan.supp (which name deeper frames) could never match.
SAN_ENV = ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=1:detect_stack_use_after_return=0:fast_unwind_on_malloc=0 \
          LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp:print_suppressions=0 \
          UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

.PHONY: all deps build demo test asan-test bench install clean

all: build

deps:
	@bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)

# The main job: the command-line host plays the bundled samples.
demo: build
	$(BUILD)/tools/qomm

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300

# The whole suite again under AddressSanitizer and UndefinedBehaviorSanitizer.
asan-test: deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	  -DQO_SANITIZE=address,undefined -DQO_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && $(SAN_ENV) ctest --output-on-failure -j $(JOBS) --timeout 600

# Throughput, latency, scale, start/stop and churn next to GStreamer and
# FFmpeg (release build, about ten minutes): bench/results.md, bench/plots/.
bench: deps
	BUILD=$(BUILD) bash scripts/bench.sh

# A system install: libraries and headers under /usr/local, the live555src
# plugin module into GStreamer's own plugin directory so gst-inspect-1.0 and
# gst-launch-1.0 find it.
install: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS) \
	  -DQO_GST_PLUGIN_INSTALL_DIR=$$(pkg-config --variable=pluginsdir gstreamer-1.0)
	cmake --build $(BUILD) -j $(JOBS)
	cmake --install $(BUILD)

clean:
	rm -rf build
