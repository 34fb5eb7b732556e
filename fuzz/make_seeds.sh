#!/usr/bin/env bash
# Writes a small seed corpus for file_decoder_fuzzer into DIR: a few frames
# of videotestsrc encoded with the system's GStreamer encoders, each behind
# the fuzzer's three header bytes (stream type, largest packet size).
set -euo pipefail
dir=${1:?usage: make_seeds.sh DIR}
mkdir -p "$dir"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

src="videotestsrc num-buffers=4 pattern=ball ! video/x-raw,format=I420,width=64,height=48,framerate=30/1"
encode() {  # name, encoder stage
  gst-launch-1.0 -q $src ! $2 ! filesink location="$tmp/$1" >/dev/null 2>&1
}
encode h264 "x264enc speed-preset=ultrafast key-int-max=2 ! video/x-h264,stream-format=byte-stream"
encode h265 "x265enc speed-preset=ultrafast key-int-max=2 ! video/x-h265,stream-format=byte-stream"
encode mjpeg "jpegenc quality=50"

# seed NAME TYPE-BYTE SIZE-LOW SIZE-HIGH FILE
seed() {
  { printf "\\x$(printf %02x "$2")\\x$(printf %02x "$3")\\x$(printf %02x "$4")"; cat "$5"; } >"$dir/$1"
}
seed h264-whole 0 255 255 "$tmp/h264"
seed h264-small 0 199 0 "$tmp/h264"
seed h265-whole 1 255 255 "$tmp/h265"
seed h265-small 1 99 1 "$tmp/h265"
seed mjpeg-whole 2 255 255 "$tmp/mjpeg"
seed mjpeg-small 2 0 2 "$tmp/mjpeg"
seed raw 3 255 3 "$tmp/mjpeg"
ls "$dir" | wc -l
