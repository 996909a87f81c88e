#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Usage: check_exports.sh LIB EXPECTED
# Fails unless LIB defines exactly the dynamic symbols listed in EXPECTED,
# imports the framework function set, and carries no DT_NEEDED on libtalvo.
set -eu
lib=$1
expected=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

grep -v '^#' "$expected" | sed '/^$/d' | sort > "$tmp/expected"
# Sanitizer runtimes add their own interceptors; only our names are judged.
nm -D --defined-only "$lib" | awk '{print $3}' \
  | grep -Ev '^(_init|_fini|__asan|__ubsan|__tsan|__sanitizer|__odr_asan|__bss_start|_edata|_end)' \
  | sort > "$tmp/defined"
if ! diff -u "$tmp/expected" "$tmp/defined"; then
  echo "FAIL: exported symbols differ from $expected" >&2
  exit 1
fi

nm -D --undefined-only "$lib" | awk '{print $2}' | sed 's/@.*//' | sort > "$tmp/undefined"
for sym in TALVODlOpen TALVODlSym TALVODlClose TALVODlError TALVOLog TalvoDfxlog g_talvoLogFunc TALVOMutexLock TALVOMutexUnlock; do
  if ! grep -qx "$sym" "$tmp/undefined"; then
    echo "FAIL: $sym is not imported from the host" >&2
    exit 1
  fi
done

if readelf -d "$lib" | grep NEEDED | grep -q 'libtalvo'; then
  echo "FAIL: the plugin must not link the framework layer itself" >&2
  exit 1
fi
echo "exports ok: $(wc -l < "$tmp/defined") defined, $(wc -l < "$tmp/undefined") imported"
