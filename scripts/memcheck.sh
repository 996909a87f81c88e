#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# A real run under valgrind's memcheck: camhost streams the raw camera "0"
# (encoded by the plugin's encoder thread through the reference encoder
# library) and the H.264 camera "1" (handed on directly) of the reference
# vendor libraries through the plugin, with a frame-rate change and a key
# frame on the way, and releases everything. Any invalid access, and any
# definite or indirect leak, fails the script. No suppression is needed:
# x264, libavcodec and glibc report nothing in this run (the H.265 camera,
# whose libx265 leaks on every encoder it closes, is not streamed).
#
# Usage: scripts/memcheck.sh [FRAMES [WxH]]   (default 300 frames at 1280x720)
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
frames=${1:-300}
size=${2:-1280x720}
build=$root/build/memcheck

sh scripts/install-deps.sh valgrind

# No sanitizers, optimised as shipped, with line information for the reports.
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKXCAMERA_BUILD_TESTS=OFF -DKXCAMERA_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j2 --target camhost kxcamera kxcamera_camera_handler kxcamera_video_encoder

# camhost writes camera0.mp4 and camera1.mp4 into the working directory.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
cd "$work"
start=$(date +%s)
status=0
# camhost finds the plugin and the vendor libraries of its own build tree.
# --fair-sched: the camera, encoder and host threads all get their turn.
# --keep-debuginfo: the plugin and the vendor libraries are unloaded at
# release, before the leak check, and their frames must still be named.
# The framework heap keeps freed frame buffers for reuse; memcheck must see
# every free, so the cache is off.
TALVO_HEAP_CACHE=0 valgrind --tool=memcheck --leak-check=full --errors-for-leak-kinds=definite,indirect --error-exitcode=1 \
    --num-callers=40 --keep-debuginfo=yes --fair-sched=yes --log-file="$work/memcheck.log" \
    "$build/bin/camhost" -c 0,1 -s "$size" -n "$frames" \
    --fps-change "$((frames / 2)):15" --keyframe-at "$((frames / 3))" || status=$?
end=$(date +%s)
cat "$work/memcheck.log" >&2
echo "memcheck: $frames frames at $size per camera, exit status $status, $((end - start)) s under valgrind" >&2
exit "$status"
