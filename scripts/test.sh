#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The test job: install what is missing, build the debug preset and run every
# suite. Pass a preset name (asan, tsan, nolibyuv) to test another build.
set -eu
cd "$(dirname "$0")/.."
preset=${1:-debug}
sh scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset" -j2
ctest --preset "$preset" -j2
