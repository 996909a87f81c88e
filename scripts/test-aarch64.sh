#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Cross-builds the plugin, the framework layer, the vendor fakes and their
# suites for 64-bit Arm and runs the suites under qemu-user. Installs what is
# missing first: the cross toolchain, qemu, and the arm64 libraries through
# Debian multiarch. The reference vendor libraries, camhost and the tools
# other than the vendor checker are not part of the cross build; the checker
# builds without libavcodec there, so it does not decode encoder output.
set -eu
cd "$(dirname "$0")/.."
start=$(date +%s)
build=build/aarch64

HOST_PACKAGES="cmake ninja-build binutils file g++-aarch64-linux-gnu qemu-user-static nlohmann-json3-dev"
TARGET_PACKAGES="libyuv-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64"

# The arm64 packages come through multiarch; install-deps then fetches their
# lists with its apt-get update.
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  echo "test-aarch64: adding the arm64 architecture"
  if [ "$(id -u)" -eq 0 ]; then
    dpkg --add-architecture arm64
  else
    sudo dpkg --add-architecture arm64
  fi
fi
# shellcheck disable=SC2086
sh scripts/install-deps.sh $HOST_PACKAGES $TARGET_PACKAGES

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
cmake --build "$build" -j2

for lib in "$build/lib/libkxcamera.so" "$build/lib/libtalvo.so" "$build/bin/kxcamera-compliance"; do
  description=$(file -bL "$lib")
  echo "$lib: $description"
  case $description in
    *"ARM aarch64"*) ;;
    *) echo "test-aarch64: $lib is not an aarch64 object" >&2; exit 1 ;;
  esac
done

# The checker starts on the target; there are no vendor libraries to check.
qemu-aarch64-static -L /usr/aarch64-linux-gnu -E LD_LIBRARY_PATH=/usr/aarch64-linux-gnu/lib \
  "$build/bin/kxcamera-compliance" --help >/dev/null
echo "kxcamera-compliance: starts on aarch64"

# The record layout checks live in the public headers; each header is
# compiled alone, as C and as C++, for the target.
checked=0
for header in $(cd include && find . -name '*.h' | sed 's|^\./||'); do
  stem=$(echo "$header" | sed 's/[^A-Za-z0-9_]/_/g')
  for lang in c cpp; do
    object=$build/tests/abi/CMakeFiles/kxcamera_header_check.dir/standalone/$stem.$lang.o
    if [ ! -f "$object" ]; then
      echo "test-aarch64: $header was not compiled as $lang for the target" >&2
      exit 1
    fi
    checked=$((checked + 1))
  done
done
echo "layout checks: $checked header compile tests (C and C++) built for aarch64"

echo "test-aarch64: $(ctest --test-dir "$build" -N | sed -n 's/^Total Tests: //p') tests"
ctest --test-dir "$build" -j2 --output-on-failure --timeout 300 --no-tests=error
echo "test-aarch64: done in $(($(date +%s) - start)) s"
