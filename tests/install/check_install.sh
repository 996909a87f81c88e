#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Usage: check_install.sh BUILD_DIR SOURCE_DIR
# Installs into a temporary prefix and builds a C consumer of the headers
# against it, once through find_package and once through pkg-config.
set -eu
build=$1
src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

cmake --install "$build" --prefix "$prefix" > "$tmp/install.log"
lib=$(find "$prefix" -name libkxcamera.so | head -n1)
[ -n "$lib" ] || { echo "FAIL: libkxcamera.so not installed" >&2; exit 1; }
[ -n "$(find "$prefix" -name libtalvo.so)" ] || { echo "FAIL: libtalvo.so not installed" >&2; exit 1; }
[ -x "$prefix/bin/camhost" ] || { echo "FAIL: camhost not installed" >&2; exit 1; }

cmake -S "$src/tests/install/consumer" -B "$tmp/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" > "$tmp/consumer.log"
cmake --build "$tmp/consumer" >> "$tmp/consumer.log"
# The plugin takes its framework functions from the host process. A
# sanitizer build of them needs its runtime loaded ahead of everything.
talvo=$(find "$prefix" -name libtalvo.so | head -n1)
runtimes=$(ldd "$talvo" | awk '/lib(asan|tsan|ubsan)\.so/ {print $3}' | tr '\n' ' ')
LD_PRELOAD="$runtimes$talvo" ASAN_OPTIONS=detect_leaks=0 "$tmp/consumer/consumer" "$lib"

pc=$(dirname "$(find "$prefix" -name kxcamera.pc | head -n1)")
cflags=$(PKG_CONFIG_PATH=$pc pkg-config --cflags kxcamera)
# shellcheck disable=SC2086
cc -std=c11 -Wall -Wextra -Werror $cflags -c "$src/tests/install/consumer/main.c" -o "$tmp/main.o"
echo "install ok: $prefix"
