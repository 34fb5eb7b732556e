#!/usr/bin/env bash
# Installs the build into a scratch prefix, as a user with a custom prefix
# would, and uses it from outside the tree without LD_LIBRARY_PATH: the
# libraries find each other by their run path; the README's host example and a
# host program build against it with pkg-config and with find_package and run;
# qomm plays an installed sample; the GStreamer element loads from there;
# the README's Python example runs on the installed module (found by Debian's
# python3 itself for /usr and /usr/local, through PYTHONPATH elsewhere);
# nothing of ours beyond the API is exported.
set -euo pipefail
build_dir=$1
src_dir=$(cd "$(dirname "$0")" && pwd)
readme=$src_dir/../../../README.md
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH
fail() { echo "install test: $*" >&2; exit 1; }
# Matches a command's whole output. Under pipefail, `cmd | grep -q` fails
# whenever grep leaves early and cmd is still writing (ldd writes line by line).
output_has() { # grep-options... -- command...
  local opts=() out
  while [ "$1" != -- ]; do opts+=("$1"); shift; done
  shift
  out=$("$@") || return 1
  grep "${opts[@]}" <<<"$out"
}

# DESTDIR keeps every file, absolute destinations included, inside $work.
DESTDIR="$work/stage" cmake --install "$build_dir" >/dev/null
libdir=$(dirname "$(find "$work/stage" -name libqosdkmm.so -print -quit)")
prefix=$(find "$work/stage" -path '*/bin/qomm' -print -quit)
prefix=${prefix%/bin/qomm}
sample=$(find "$work/stage" -path '*/qosdkmm/samples/sample.h264' -print -quit)
export PKG_CONFIG_PATH=$libdir/pkgconfig
# A build for /usr leaves finding the libraries to the system (ldconfig), so
# its pkg-config file carries no run path.
if ! output_has -q -e '-rpath' -- pkg-config --libs qosdkmm; then export LD_LIBRARY_PATH=$libdir; fi

for lib in libqocore.so libqosdkmm.so; do
  output_has -qF "Library runpath: [\$ORIGIN]" -- readelf -d "$libdir/$lib" || fail "$lib has no \$ORIGIN run path"
done
output_has -qF "libqocore.so.0 => $libdir/libqocore.so.0" -- env -u LD_LIBRARY_PATH ldd "$libdir/libqosdkmm.so" ||
  fail "libqosdkmm.so does not find libqocore.so.0 beside it"

# The README's example, word for word, on the installed sample.
awk '/^```c\+\+$/ {f = 1; next} /^```$/ {f = 0} f' "$readme" >"$work/readme_host.cc"
# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/readme-host" "$work/readme_host.cc" $(pkg-config --cflags --libs qosdkmm)
"$work/readme-host" "$sample" >"$work/readme-host.out" 2>"$work/readme-host.err"
# (The decoder layer's own messages to standard output may precede a line.)
frames=$(grep -o 'frame of [0-9]* bytes$' "$work/readme-host.out" | wc -l)
[ "$frames" -gt 0 ] || fail "the README's host example printed no frames"

# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/host-pc" "$src_dir/host.cc" $(pkg-config --cflags --libs qosdkmm)
output_has -qx "created file_in node" -- "$work/host-pc" || fail "the pkg-config host did not create its node"

mkdir -p "$work/cm"
printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(host CXX)' \
  'find_package(qosdkmm REQUIRED)' "add_executable(host $src_dir/host.cc)" \
  'target_link_libraries(host PRIVATE qosdkmm::qosdkmm)' >"$work/cm/CMakeLists.txt"
cmake -S "$work/cm" -B "$work/cm/build" -G Ninja -Dqosdkmm_DIR="$libdir/cmake/qosdkmm" >/dev/null
cmake --build "$work/cm/build" >/dev/null
output_has -qx "created file_in node" -- "$work/cm/build/host" || fail "the find_package host did not create its node"

# The installed qomm loads the installed library and plays the same frames.
"$prefix/bin/qomm" play "$sample" --framerate 0 -q >"$work/qomm.out" 2>&1 ||
  { cat "$work/qomm.out"; fail "installed qomm failed"; }
grep -q "^  frames: *$frames," "$work/qomm.out" ||
  { cat "$work/qomm.out"; fail "installed qomm did not report $frames frames"; }

# The README's Python example, word for word, on the installed module and
# sample. Debian's python3 searches a /usr or /usr/local install by itself; a
# staged one, or another prefix, needs PYTHONPATH.
python=/usr/bin/python3
if [ -n "$(find "$work/stage" -name '_qosdkmm*.so' -print -quit)" ]; then
  pydir=$(dirname "$(dirname "$(find "$work/stage" -name '_qosdkmm*.so' -print -quit)")")
  case ${prefix#"$work/stage"} in
    /usr | /usr/local)
      output_has -qxF "${pydir#"$work/stage"}" -- \
        env -u PYTHONPATH "$python" -c 'import sys; print("\n".join(sys.path))' ||
        fail "${pydir#"$work/stage"} is not on $python's default path" ;;
  esac
  awk '/^```python$/ {f = 1; next} /^```$/ {f = 0} f' "$readme" >"$work/readme_camera.py"
  run_example() { # python-path sample
    env -u LD_LIBRARY_PATH PYTHONPATH="$1" "$python" "$work/readme_camera.py" "file://$2" >"$work/py.out" 2>"$work/py.err" ||
      { cat "$work/py.err"; fail "the README's Python example failed"; }
    grep -q '(240, 320, 3)' "$work/py.out" || { cat "$work/py.out"; fail "the Python example decoded nothing"; }
  }
  run_example "$pydir" "$sample"
  # Another prefix, moved after installing: the extension still finds the
  # libraries by its run path.
  cmake --install "$build_dir" --prefix "$work/custom" >/dev/null
  mv "$work/custom" "$work/moved"
  run_example "$(dirname "$(dirname "$(find "$work/moved" -name '_qosdkmm*.so' -print -quit)")")" \
    "$(find "$work/moved" -path '*/qosdkmm/samples/sample.h264' -print -quit)"
fi

inspect=$(GST_PLUGIN_PATH=$libdir/gstreamer-1.0 GST_REGISTRY=$work/registry.bin \
  gst-inspect-1.0 live555src)
for prop in location max-bytes protocols eos; do
  grep -q "^  $prop  *:" <<<"$inspect" || fail "live555src lacks $prop"
done

nm -D --defined-only "$libdir/libqosdkmm.so" | awk '{print $3}' | c++filt |
  grep -v -E '^(qo_Video(Stream|File)[A-Za-z]+|qo::mm::(FileInput|VideoInput)[:(].*|(vtable|typeinfo|typeinfo name) for qo::mm::(FileInput|VideoInput)|_init|_fini|gst_plugin_.*)$' \
  >"$work/extra" || true
if [ -s "$work/extra" ]; then echo "unexpected exported symbols:"; cat "$work/extra"; exit 1; fi
echo "install test passed"
