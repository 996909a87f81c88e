#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The main job: install what is missing, build the release preset, and load
# the plugin the way a host does.
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh
cmake --preset release
cmake --build --preset release -j2 --target camhost kxcamera_camera_handler kxcamera_video_encoder
mkdir -p out
./build/release/bin/camhost -y -o out/camera0.mp4
echo "out/camera0.mp4 written; try: ffprobe out/camera0.mp4"
