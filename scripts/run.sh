#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The main job: install what is missing, build the release preset, and load
# the plugin the way a host does.
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh
cmake --preset release
cmake --build --preset release -j2 --target camhost kxcamera_camera_handler kxcamera_video_encoder
./build/release/bin/camhost
echo "camera0.h264 written; try: ffprobe camera0.h264"
