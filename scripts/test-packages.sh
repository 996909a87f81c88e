#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages into build/package/, runs lintian on them, and
# runs the install test on them unpacked, then installs them into a fresh
# Debian 12 root made by debootstrap, where camhost and kxprobe must run from
# the packages alone. Needs root (for
# debootstrap and chroot). The pristine root is kept in build/bookworm-root
# and the packages apt fetched in build/bookworm-apt, to be reused next time.
# "sh scripts/test-packages.sh build" stops after building the packages.
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh dpkg-dev file lintian debootstrap
top=$(pwd)
out=$top/build/package

# Debian's own compiler and linker flags, hardening included; CMake reads
# no CPPFLAGS, so the preprocessor's go in front of the compilers'.
mkdir -p "$out"
eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
CFLAGS="$CPPFLAGS $CFLAGS" CXXFLAGS="$CPPFLAGS $CXXFLAGS" LDFLAGS="$LDFLAGS" \
  cmake -S . -B "$out" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DKXCAMERA_BUILD_TESTS=OFF -DKXCAMERA_BUILD_BENCHMARKS=OFF > "$out/configure.log"
cmake --build "$out" -j2
rm -f "$out"/*.deb
(cd "$out" && cpack -G DEB > cpack.log 2>&1)
debs=$(ls "$out"/*.deb)
echo "packages:"
for deb in $debs; do echo "  $(basename "$deb")"; done
[ "${1:-}" = build ] && exit 0

# No error, no warning (each override in cmake/debian says why); the
# info-level notes are printed but allowed.
lintian --fail-on error,warning "$out"/*.deb

# The install test on the unpacked packages: the programs run from there and
# hosts build against the development package.
rm -rf "$out/unpacked"
for deb in $debs; do dpkg-deb -x "$deb" "$out/unpacked"; done
sh tests/install/check_install.sh "$out" "$top" "$out/unpacked/usr"

root=$top/build/bookworm-test
pristine=$top/build/bookworm-root
cache=$top/build/bookworm-apt
if [ ! -x "$pristine/bin/sh" ]; then
  # The mirror this machine already uses; no registry is named here.
  # shellcheck disable=SC2016 # apt's own format field, not the shell's
  mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 'Codename: bookworm' | head -n1)
  [ -n "$mirror" ] || { echo "test-packages: no bookworm mirror in this machine's apt sources" >&2; exit 1; }
  rm -rf "$pristine.tmp"
  debootstrap --variant=minbase bookworm "$pristine.tmp" "$mirror" > "$out/debootstrap.log"
  chroot "$pristine.tmp" apt-get clean
  mv "$pristine.tmp" "$pristine"
fi

mounted=""
cleanup() {
  for m in $mounted; do umount "$m" 2>/dev/null || umount -l "$m"; done
  # Never follow a mount that is still there into the host's /dev or /proc.
  for m in $mounted; do
    if mountpoint -q "$m"; then
      echo "test-packages: $m still mounted; leaving $root in place" >&2
      return
    fi
  done
  rm -rf --one-file-system "$root"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
rm -rf --one-file-system "$root"
[ ! -e "$root" ] || { echo "test-packages: $root is still in use" >&2; exit 1; }
cp -a "$pristine" "$root"
mkdir -p "$cache" "$root/debs"
# shellcheck disable=SC2086 # one word per package file
cp $debs "$root/debs/"
for fs in proc sys dev dev/pts var/cache/apt/archives; do
  case $fs in var/*) from=$cache ;; *) from=/$fs ;; esac
  mount --bind "$from" "$root/$fs"
  mounted="$root/$fs $mounted"
done

in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "$@"; }
in_root apt-get update -qq
in_root sh -c 'DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends /debs/*.deb' \
  > "$out/chroot-install.log"
in_root kxprobe
in_root camhost --frames 30 --output /tmp/camera0.h264
frames=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 \
  "$root/tmp/camera0.h264")
[ "$frames" = 30 ] || { echo "test-packages: camhost's stream has $frames frames, not 30" >&2; exit 1; }
# The packages leave nothing behind when purged.
in_root sh -c 'DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq libtalvo1 kxcamera kxcamera-dev kxcamera-tools kxcamera-reference-vendors' \
  >> "$out/chroot-install.log"
left=$(in_root sh -c 'ls /usr/lib/*/kxcamera /usr/lib/*/libtalvo* /usr/bin/camhost 2>/dev/null || true')
[ -z "$left" ] || { echo "test-packages: left after purge: $left" >&2; exit 1; }
echo "test-packages: ok ($(echo "$debs" | wc -w) packages; camhost recorded $frames frames inside a fresh Debian 12 root)"
