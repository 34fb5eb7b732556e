#!/usr/bin/env bash
# Installs the Debian 12 packages of one tier, and of the tiers below it:
#   build  compile the library, qomm and the Python module, run the demo,
#          make install/package (file: CPack's DEB generator needs it for
#          dpkg-shlibdeps; python3-numpy and gstreamer1.0-libav: the
#          README's Python example decodes H.264 to NumPy)
#   test   + the test suite (GoogleTest, encoders for test streams, decoders
#          for snapshots, gst-inspect-1.0, iproute2 and iptables for the
#          packet-loss tests in a network namespace, pytest for the Python
#          module's tests)
#   dev    + sanitizer builds, fuzzing (clang) and benchmarks
#   fresh  debootstrap and git for scripts/check-fresh-machine.sh (alone)
# Safe to run again: apt-get is called only when something is missing.
set -euo pipefail

tier_packages() {
  case $1 in
    build) echo \
      make build-essential cmake ninja-build pkg-config file \
      libglib2.0-dev libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev \
      libgstrtspserver-1.0-dev libdlpack-dev pybind11-dev python3-dev python3-numpy \
      gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad \
      gstreamer1.0-libav libsoup-3.0-dev ;;
    test) echo "$(tier_packages build)" \
      libgtest-dev libgmock-dev gstreamer1.0-tools \
      gstreamer1.0-plugins-ugly iproute2 iptables python3-pytest prometheus curl ;;
    dev) echo "$(tier_packages test)" \
      clang libclang-rt-14-dev libbenchmark-dev ffmpeg gnuplot-nox gstreamer1.0-x ;;
    fresh) echo debootstrap git ;;
    *) return 1 ;;
  esac
}

if [ $# -eq 0 ]; then set -- build; fi
packages=()
for tier in "$@"; do
  if ! list=$(tier_packages "$tier"); then
    echo "install-deps: unknown tier '$tier' (build, test, dev or fresh)" >&2
    exit 2
  fi
  read -ra words <<<"$list"
  packages+=("${words[@]}")
done

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: need root to install: ${missing[*]}" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
echo "install-deps ($*): updating the package lists"
apt-get update -q
echo "install-deps ($*): installing ${missing[*]} and what they need"
# apt's summary stays visible, with one line as each phase (download,
# unpacking, configuration) starts; package lists and per-package lines do not.
apt-get install -y -q --no-install-recommends -o Dpkg::Use-Pty=0 "${missing[@]}" |
  while IFS= read -r line; do
    case $line in
      Get:*) phase="downloading" ;;
      Unpacking*) phase="unpacking" ;;
      "Setting up"*) phase="configuring" ;;
      "Selecting previously"* | "Preparing to unpack"* | "(Reading database"* | " "* | *:) continue ;;
      *) echo "$line"; continue ;;
    esac
    case " ${shown:-} " in
      *" $phase "*) ;;
      *) echo "install-deps ($*): $phase"; shown="${shown:-} $phase" ;;
    esac
  done
