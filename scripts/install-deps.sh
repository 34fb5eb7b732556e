#!/usr/bin/env bash
# Installs the Debian 12 packages needed to build, test and benchmark the
# library. Safe to run again: it only calls apt-get when something is missing.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build pkg-config git
  # GStreamer core, base/app/video libraries and the RTSP server library
  libglib2.0-dev libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  libgstrtspserver-1.0-dev
  # run-time elements: parsers, RTSP client, v4l2src, encoders, decoders
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
  # the time overlay drawn on the bundled samples (scripts/gen-samples.sh)
  gstreamer1.0-x
  # tensor record layouts
  libdlpack-dev
  # the libFuzzer run (make fuzz): clang and its sanitizer runtimes
  clang libclang-rt-14-dev
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev ffmpeg gnuplot-nox
  python3 procps psmisc
)

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

echo "install-deps: installing ${#missing[@]} package(s): ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
