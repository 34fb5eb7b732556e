#!/usr/bin/env bash
# Installs the build into a scratch prefix; a host program outside the tree
# builds against it with pkg-config and with find_package; the GStreamer
# element loads from there; nothing of ours beyond the API is exported.
set -euo pipefail
build_dir=$1
src_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# DESTDIR keeps every file, absolute destinations included, inside $work.
DESTDIR="$work/stage" cmake --install "$build_dir" >/dev/null
libdir=$(dirname "$(find "$work/stage" -name libqosdkmm.so -print -quit)")
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir

# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/host-pc" "$src_dir/host.cc" $(pkg-config --cflags --libs qosdkmm)
"$work/host-pc" | grep -qx "created file_in node"

mkdir -p "$work/cm"
printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(host CXX)' \
  'find_package(qosdkmm REQUIRED)' "add_executable(host $src_dir/host.cc)" \
  'target_link_libraries(host PRIVATE qosdkmm::qosdkmm)' >"$work/cm/CMakeLists.txt"
cmake -S "$work/cm" -B "$work/cm/build" -G Ninja -Dqosdkmm_DIR="$libdir/cmake/qosdkmm" >/dev/null
cmake --build "$work/cm/build" >/dev/null
"$work/cm/build/host" | grep -qx "created file_in node"

inspect=$(GST_PLUGIN_PATH=$libdir/gstreamer-1.0 GST_REGISTRY=$work/registry.bin \
  gst-inspect-1.0 live555src)
for prop in location max-bytes protocols eos; do
  grep -q "^  $prop  *:" <<<"$inspect" || { echo "live555src lacks $prop"; exit 1; }
done

nm -D --defined-only "$libdir/libqosdkmm.so" | awk '{print $3}' | c++filt |
  grep -v -E '^(qo_Video(Stream|File)[A-Za-z]+|qo::mm::(FileInput|VideoInput)[:(].*|(vtable|typeinfo|typeinfo name) for qo::mm::(FileInput|VideoInput)|_init|_fini|gst_plugin_.*)$' \
  >"$work/extra" || true
if [ -s "$work/extra" ]; then echo "unexpected exported symbols:"; cat "$work/extra"; exit 1; fi
echo "install test passed"
