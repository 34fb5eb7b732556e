#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds a small host program
# against it, once with pkg-config and once with find_package, and runs both.
set -euo pipefail
build_dir=$1
src_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# DESTDIR keeps every file, absolute destinations included, inside $work.
DESTDIR="$work/stage" cmake --install "$build_dir" >/dev/null
pcdir=$(dirname "$(find "$work/stage" -name qosdkmm.pc -print -quit)")
libdir=$(cd "$pcdir/.." && pwd)
prefix=$(cd "$(dirname "$(find "$work/stage" -name qosdkmmConfig.cmake -print -quit)")/../../.." && pwd)
export PKG_CONFIG_PATH=$libdir/pkgconfig
export LD_LIBRARY_PATH=$libdir

# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/host-pc" "$src_dir/host.cc" $(pkg-config --cflags --libs qosdkmm)
"$work/host-pc" | grep -qx "created file_in node"

mkdir -p "$work/cm"
cat > "$work/cm/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.25)
project(host CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(qosdkmm REQUIRED)
add_executable(host $src_dir/host.cc)
target_link_libraries(host PRIVATE qosdkmm::qosdkmm)
CM
cmake -S "$work/cm" -B "$work/cm/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cm/build" >/dev/null
"$work/cm/build/host" | grep -qx "created file_in node"

# Nothing of ours is exported beyond the C API, the node classes and the
# framework surface they derive from.
nm -D --defined-only "$libdir/libqosdkmm.so" | awk '{print $3}' | c++filt |
  grep -v -E '^(qo_Video(Stream|File)[A-Za-z]+|qo::mm::(FileInput|VideoInput)[:(].*|(vtable|typeinfo|typeinfo name) for qo::mm::(FileInput|VideoInput)|_init|_fini|gst_plugin_.*)$' \
  > "$work/extra-symbols" || true
if [ -s "$work/extra-symbols" ]; then
  echo "unexpected exported symbols:"; cat "$work/extra-symbols"; exit 1
fi
echo "install test passed"
