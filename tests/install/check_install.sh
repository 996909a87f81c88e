#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Usage: check_install.sh BUILD_DIR SOURCE_DIR [PREFIX]
# Installs into a temporary prefix (or takes PREFIX, where the packages were
# unpacked) and uses nothing but what is there: camhost and kxprobe run from
# it, and a C host that loads the plugin is built once through find_package
# and once through pkg-config, linking only what the package names.
set -eu
build=$1
src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=${3:-$tmp/prefix}
fail() { echo "FAIL: $*" >&2; exit 1; }
clean() { env -u LD_LIBRARY_PATH -u TALVO_VENDOR_PATH "$@"; }

[ $# -gt 2 ] || cmake --install "$build" --prefix "$prefix" > "$tmp/install.log"
[ -z "$(find "$prefix" -name testing.h)" ] || fail "the test controls were installed"
[ -f "$prefix/include/talvo/securec.h" ] || fail "securec.h not under talvo/"
[ ! -e "$prefix/include/securec.h" ] || fail "securec.h at the top of the include tree"

out=$(clean "$prefix/bin/kxprobe" 2>&1) || fail "installed kxprobe: $out"
case $out in *"version 1.0.0.0"*) ;; *) fail "installed kxprobe said: $out" ;; esac
# Camera "1" encodes its own stream, so this holds in a build without libyuv too.
clean "$prefix/bin/camhost" --camera 1 --frames 5 --output "$tmp/camera1.h264" > "$tmp/camhost.log" 2>&1 ||
  { cat "$tmp/camhost.log" >&2; fail "installed camhost"; }
grep -q "Camera_1: 5 frames" "$tmp/camhost.log" || { cat "$tmp/camhost.log" >&2; fail "installed camhost streamed nothing"; }

# A sanitizer build of libtalvo needs its runtime loaded ahead of everything
# in a host that is not instrumented itself.
talvo=$(find "$prefix" -name libtalvo.so | head -n1)
runtimes=$(ldd "$talvo" | awk '/lib(asan|tsan|ubsan)\.so/ {print $3}' | tr '\n' ' ')
export ASAN_OPTIONS=detect_leaks=0

cmake -S "$src/tests/install/consumer" -B "$tmp/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" > "$tmp/consumer.log"
cmake --build "$tmp/consumer" >> "$tmp/consumer.log"
clean LD_PRELOAD="$runtimes" "$tmp/consumer/consumer"

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name kxcamera.pc)")
export PKG_CONFIG_PATH
for dir in $(pkg-config --variable=vendorpath kxcamera | tr : ' '); do
  ls "$dir"/libtalvo*.so > /dev/null || fail "no vendor library in $dir"
done
# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -Werror $(pkg-config --cflags kxcamera) \
  -DKXCAMERA_CONSUMER_PLUGIN="\"$(pkg-config --variable=plugindir kxcamera)/libkxcamera.so\"" \
  "$src/tests/install/consumer/main.c" -o "$tmp/pc-consumer" $(pkg-config --libs kxcamera) -ldl
clean LD_LIBRARY_PATH="$(pkg-config --variable=libdir kxcamera)" LD_PRELOAD="$runtimes" "$tmp/pc-consumer"
echo "install ok: $prefix"
