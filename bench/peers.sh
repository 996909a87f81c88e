#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The plugin's raw road against FFmpeg and GStreamer on the same NV21 frames
# with the same x264 settings (ultrafast, zerolatency, sliced threads - both
# peers default to frame threads, which trade latency for throughput -, the
# plugin's bit rate with a VBV ceiling of the same rate and half a second of
# buffer, an IDR every 60 frames). Each tool runs as a whole process under
# GNU time, interleaved, ROUNDS times; the table gives medians.
#   sh bench/peers.sh [frames] [rounds] [sizes...]
set -eu
cd "$(dirname "$0")/.."
FRAMES=${1:-600}
ROUNDS=${2:-5}
shift 2 2>/dev/null || shift $#
SIZES=${*:-1280x720 1920x1080}
# 0 lets x264 choose the thread count in all three, as the encoder library does.
THREADS=${TALVO_VENC_THREADS:-0}

sh scripts/install-deps.sh time gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-ugly
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target kxcamera_pipeline >/dev/null
PIPELINE=build/release/bin/pipeline
WORK=build/release/bench/peers
mkdir -p "$WORK"

# Prints "wall user+system" seconds of the command.
timed() {
  /usr/bin/time -f "%e %U %S" -o "$WORK/time" "$@" >/dev/null 2>"$WORK/stderr" || {
    echo "peers: failed: $*" >&2
    cat "$WORK/stderr" >&2
    exit 1
  }
  awk '{ printf "%s %.3f\n", $1, $2 + $3 }' "$WORK/time"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

for size in $SIZES; do
  w=${size%x*}
  h=${size#*x}
  frames="$WORK/frames-$size-$FRAMES.nv21"
  [ -s "$frames" ] || $PIPELINE --write-frames "$frames" --sizes "$size" --frames "$FRAMES"
  kbps=$($PIPELINE --print-bitrate --sizes "$size")
  : >"$WORK/results-$size"
  round=1
  while [ "$round" -le "$ROUNDS" ]; do
    echo "plugin $(TALVO_VENC_THREADS=$THREADS timed $PIPELINE --input "$frames" --sizes "$size" --frames "$FRAMES" --only plugin)" >>"$WORK/results-$size"
    echo "ffmpeg $(timed ffmpeg -nostdin -hide_banner -loglevel error -f rawvideo -pix_fmt nv21 -s "$size" -r 30 \
      -i "$frames" -c:v libx264 -preset ultrafast -tune zerolatency -threads "$THREADS" -thread_type slice \
      -b:v "${kbps}k" -maxrate "${kbps}k" -bufsize "$((kbps / 2))k" -g 60 -f null -)" >>"$WORK/results-$size"
    # Without the caps filter videoconvert picks Y444 and the encode costs twice as much.
    echo "gstreamer $(timed gst-launch-1.0 -q filesrc location="$frames" blocksize=$((w * h * 3 / 2)) \
      ! rawvideoparse width="$w" height="$h" format=nv21 framerate=30/1 ! videoconvert \
      ! video/x-raw,format=I420 ! x264enc speed-preset=ultrafast tune=zerolatency sliced-threads=true \
      threads="$THREADS" bitrate="$kbps" vbv-buf-capacity=500 key-int-max=60 ! fakesink)" >>"$WORK/results-$size"
    round=$((round + 1))
  done
  plugin_fps=$(awk -v n="$FRAMES" '$1 == "plugin" { print n / $2 }' "$WORK/results-$size" | median)
  echo "peers $size, $FRAMES frames, $ROUNDS rounds, $kbps kbit/s, medians:"
  printf '  %-10s %10s %14s %16s\n' tool "frames/s" "CPU ms/frame" "plugin/tool fps"
  for tool in plugin ffmpeg gstreamer; do
    fps=$(awk -v t="$tool" -v n="$FRAMES" '$1 == t { print n / $2 }' "$WORK/results-$size" | median)
    cpu=$(awk -v t="$tool" -v n="$FRAMES" '$1 == t { print $3 * 1000 / n }' "$WORK/results-$size" | median)
    awk -v t="$tool" -v f="$fps" -v c="$cpu" -v p="$plugin_fps" \
      'BEGIN { printf "  %-10s %10.1f %14.2f %16.2f\n", t, f, c, p / f }'
  done
done
