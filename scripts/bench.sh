#!/usr/bin/env bash
# The whole benchmark: builds in release mode, generates the inputs with
# Debian's encoders (cached under the build directory), serves the H.264 one
# over RTSP on 127.0.0.1 from another process, runs every qo-bench area and
# writes bench/results.md and bench/plots/*.png.
#
#   make bench            (or scripts/bench.sh)
#
# Environment: BUILD (default build/release), RUNS (repetitions, default 5),
# STREAMS (1080p30 scale steps, default 16,64,256), STREAMS_360 (360p30 scale
# steps, default 64,256,1000), SCALE_ROUNDS (interleaved rounds per scale step,
# the median kept, default 3), CYCLES (churn, default 1000), AREAS (default
# all: throughput latency startstop scale churn; e.g. AREAS=scale).
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD=${BUILD:-build/release}
RUNS=${RUNS:-5}
STREAMS=${STREAMS:-16,64,256}
STREAMS_360=${STREAMS_360:-64,256,1000}
AREAS=${AREAS:-throughput latency startstop scale churn}
CYCLES=${CYCLES:-1000}
SCALE_ROUNDS=${SCALE_ROUNDS:-3}
MEDIA=$BUILD/bench-media
OUT=$BUILD/bench-out
started=$(date +%s)
load() { cut -d' ' -f1-3 /proc/loadavg; }
load_start=$(load)

cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD" --target qo-bench qo-rtsp-server
# The command-line host serves files when it is built; else the test server.
if cmake --build "$BUILD" --target qomm >/dev/null 2>&1 &&
  "$BUILD/tools/qomm" serve --help 2>&1 | grep -- '--port' >/dev/null; then
  server_kind=qomm
else
  server_kind=qo-rtsp-server
fi
mkdir -p "$MEDIA" "$OUT" bench/plots
# A partial run keeps the other areas' last results.
[ "$AREAS" = "throughput latency startstop scale churn" ] && rm -f "$OUT"/*
rm -f "$OUT/server.in"

# 10 s encoded once, repeated six times: a minute per codec without a minute
# of x265 encoding.
gen() { # file width height pattern encoder-and-parser
  local f=$MEDIA/$1
  [ -s "$f" ] && return 0
  echo "bench: encoding $f" >&2
  gst-launch-1.0 -q videotestsrc num-buffers=300 pattern="$4" \
    ! "video/x-raw,format=I420,width=$2,height=$3,framerate=30/1" ! $5 \
    ! filesink location="$f.part"
  for _ in 1 2 3 4 5 6; do cat "$f.part"; done >"$f.tmp"
  rm "$f.part"
  mv "$f.tmp" "$f"
}
au="stream-format=byte-stream,alignment=au"
gen h264_1080p30.h264 1920 1080 snow \
  "x264enc speed-preset=ultrafast bitrate=4000 key-int-max=30 ! h264parse ! video/x-h264,$au"
case " $AREAS " in *" throughput "*)
  gen h265_1080p30.h265 1920 1080 snow \
    "x265enc speed-preset=ultrafast bitrate=4000 key-int-max=30 ! h265parse ! video/x-h265,$au"
  gen mjpeg_720p30.mjpeg 1280 720 smpte "jpegenc quality=85 ! jpegparse ! image/jpeg"
  ;;
esac
gen h264_360p30.h264 640 360 snow \
  "x264enc speed-preset=ultrafast bitrate=500 key-int-max=30 ! h264parse ! video/x-h264,$au"
H264=$MEDIA/h264_1080p30.h264
H264_360=$MEDIA/h264_360p30.h264

# The server reads commands on standard input and quits at its end: give it a
# pipe that stays open until we are done.
rm -f "$OUT/server.in"
mkfifo "$OUT/server.in"
if [ "$server_kind" = qomm ]; then
  server_desc="\`qomm serve $H264 $H264_360 --port 0\`"
  "$BUILD/tools/qomm" serve "$H264" "$H264_360" --port 0 <"$OUT/server.in" >"$OUT/server.log" 2>&1 &
else
  server_desc="\`qo-rtsp-server --port 0 --stream h264_1080p30.h264=h264,fps=30,file=$H264 --stream h264_360p30.h264=h264,fps=30,file=$H264_360\`"
  "$BUILD/tools/qo-rtsp-server" --port 0 --stream "h264_1080p30.h264=h264,fps=30,file=$H264" \
    --stream "h264_360p30.h264=h264,fps=30,file=$H264_360" \
    <"$OUT/server.in" >"$OUT/server.log" 2>&1 &
fi
server_pid=$!
# 1000 clients hold several thousand descriptors in the server.
prlimit --pid "$server_pid" --nofile="$(ulimit -Hn):$(ulimit -Hn)" 2>/dev/null || true
exec 7>"$OUT/server.in"
trap 'kill -TERM $server_pid 2>/dev/null; wait $server_pid 2>/dev/null; exec 7>&-' EXIT
url=
for _ in $(seq 100); do
  url=$(grep -o 'rtsp://[^ ]*1080p30[^ ]*' "$OUT/server.log" | head -n 1) && [ -n "$url" ] && break
  sleep 0.1
done
[ -n "$url" ] || { echo "bench: the RTSP server did not start:" >&2; cat "$OUT/server.log" >&2; exit 1; }

bench=$BUILD/bench/qo-bench
declare -A loads
url_360=${url%/*}/h264_360p30.h264
run() { # area options...
  case " $AREAS " in *" $1 "*) ;; *) return 0 ;; esac
  echo "bench: $1" >&2
  loads[$1]=$(load)
  "$bench" "$@" --out "$OUT"
}
run throughput --runs $((RUNS * 3)) --h264 "$H264" --h265 "$MEDIA/h265_1080p30.h265" \
  --mjpeg "$MEDIA/mjpeg_720p30.mjpeg"
# Its Python row: qosdkmm.FileInput against the C++ node in sync mode.
case " $AREAS " in *" throughput "*)
  if cmake --build "$BUILD" --target _qosdkmm >/dev/null 2>&1; then
    /usr/bin/python3 python/bench_throughput.py --build "$BUILD" --h264 "$H264" \
      --runs $((RUNS * 3)) --out "$OUT"
  fi ;;
esac
run latency --runs "$RUNS" --url "$url" --seconds 8
run startstop --runs "$RUNS" --url "$url" --h264 "$H264"
run scale --rounds "$SCALE_ROUNDS" --streams "$STREAMS" --url "$url" --seconds 10 --server-pid "$server_pid" \
  --label 1080p30 --target-at 64
run scale --rounds "$SCALE_ROUNDS" --streams "$STREAMS_360" --url "$url_360" --seconds 10 --server-pid "$server_pid" \
  --label 360p30 --target-at 256
run churn --cycles "$CYCLES" --url "$url" --h264 "$H264"

if [ "$AREAS" != "throughput latency startstop scale churn" ]; then
  case " $AREAS " in
  *" scale "*) gnuplot -e "dir='$OUT'; plots='bench/plots'" bench/plots_scale.gp ;;
  esac
  # A partial run prints its tables; bench/results.md stays one whole run.
  for a in $AREAS; do cat "$OUT/$a"*.md; done
  exit 0
fi
gnuplot -e "dir='$OUT'; plots='bench/plots'" bench/plots.gp
minutes=$((($(date +%s) - started + 59) / 60))
{
  echo "# Benchmark results"
  echo
  echo "Made by \`make bench\` (scripts/bench.sh) on $(date -u '+%Y-%m-%d %H:%M UTC') from commit" \
    "$(git rev-parse --short HEAD 2>/dev/null || echo unknown), in about $minutes minutes."
  echo
  echo "- Machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs)," \
    "$(awk '/MemTotal/ {printf "%.1f GiB", $2 / 1048576}' /proc/meminfo), Linux $(uname -r)"
  echo "- $(gst-launch-1.0 --version | sed -n 2p), $(ffmpeg -version | head -n 1 | cut -d' ' -f1-3)"
  echo "- RTSP server: $server_desc, in its own process"
  echo "- Load average (1/5/15 min) at the start: $load_start; before each area:" \
    "$(for a in throughput latency startstop scale churn; do printf '%s %s; ' "$a" "${loads[$a]}"; done)" \
    "at the end: $(load). The machine is shared with other builds."
  echo "- Inputs: 10 s of videotestsrc encoded once and repeated six times (60 s, 1800 pictures):" \
    "H.264 and H.265 1080p30 (snow, 4 Mbit/s, key frame every 30, ultrafast), MJPEG 720p30" \
    "(SMPTE bars, quality 85)."
  echo
  for a in throughput latency startstop scale_1080p30 scale_360p30 churn; do
    cat "$OUT/$a.md"
    echo "![$a](plots/$a.png)"
    echo
    if [ "$a" = throughput ] && [ -f "$OUT/throughput_python.md" ]; then cat "$OUT/throughput_python.md"; fi
  done
  cat bench/method.md bench/notes.md
} >bench/results.md
echo "bench: wrote bench/results.md and bench/plots/" >&2
