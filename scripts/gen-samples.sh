#!/usr/bin/env bash
# Generates the bundled sample clips in data/: the same three seconds of a
# moving test pattern (320x240, 30 frames per second, a key frame every
# second) as H.264, H.265 and MJPEG elementary streams, made with Debian's
# GStreamer encoders. The files are committed; run this again only to change
# them.
#
# usage: scripts/gen-samples.sh [OUTPUT_DIR]   (default: data/ of this tree)
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
out="${1:-$here/data}"
mkdir -p "$out"

frames=90
caps="video/x-raw,format=I420,width=320,height=240,framerate=30/1"
src="videotestsrc num-buffers=$frames pattern=smpte horizontal-speed=4 ! $caps"

# The running time drawn on each picture makes frame order visible in a
# snapshot. The overlay lives in gstreamer1.0-x; without it the clips are
# made all the same, just without the text.
if gst-inspect-1.0 timeoverlay >/dev/null 2>&1; then
  src="$src ! timeoverlay halignment=center valignment=bottom font-desc=\"Sans 20\" ! videoconvert ! $caps"
else
  echo "gen-samples: timeoverlay not found (package gstreamer1.0-x): no time on the pictures" >&2
fi

encode() {  # encode OUTPUT ENCODER-AND-CAPS
  local file="$out/$1" tmp="$out/.$1.tmp"
  # shellcheck disable=SC2086  # the pipeline is meant to be split into words
  eval gst-launch-1.0 -q $src ! $2 ! filesink location="\"$tmp\""
  mv -f "$tmp" "$file"
  echo "gen-samples: $file ($(stat -c %s "$file") bytes)"
}

# Elementary streams, one access unit after another, no B-frames so that
# decoding order is presentation order.
encode sample.h264 "x264enc bitrate=400 key-int-max=30 bframes=0 speed-preset=medium \
  ! video/x-h264,stream-format=byte-stream,profile=constrained-baseline"
encode sample.h265 "x265enc bitrate=300 key-int-max=30 option-string=bframes=0 \
  ! video/x-h265,stream-format=byte-stream"
encode sample.mjpeg "jpegenc quality=70"
