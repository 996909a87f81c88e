#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian 12 packages the build and the tests need, if missing.
# Packages named as arguments are installed as well (used by the scripts
# that need more than the build, such as bench/peers.sh).
set -eu

PACKAGES="build-essential cmake ninja-build pkg-config binutils
googletest libgtest-dev libgmock-dev nlohmann-json3-dev libyuv-dev
libx264-dev libx265-dev"
# camhost: option parsing, decoding for snapshots, PNG output.
# ffmpeg: ffprobe judges the end-to-end streams.
PACKAGES="$PACKAGES ffmpeg libcli11-dev libavcodec-dev libavutil-dev libswscale-dev libpng-dev"
# camhost: containers and network output.
PACKAGES="$PACKAGES libavformat-dev"
# camhost's manual page is made from its --help.
PACKAGES="$PACKAGES help2man"
# jq: the compliance tests read the checker's JSON report.
PACKAGES="$PACKAGES jq"
# The benchmarks build with the default configuration.
PACKAGES="$PACKAGES libbenchmark-dev"
PACKAGES="$PACKAGES $*"

missing=""
for pkg in $PACKAGES; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $pkg"
  fi
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  SUDO=""
elif command -v sudo >/dev/null 2>&1; then
  SUDO="sudo"
else
  echo "install-deps: missing packages:$missing; run as root to install them" >&2
  exit 1
fi
echo "install-deps: installing$missing"
# Another apt user on the machine gets a few minutes to finish.
$SUDO apt-get update -qq -o DPkg::Lock::Timeout=300
# shellcheck disable=SC2086
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends \
  -o DPkg::Lock::Timeout=300 $missing
