#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Usage: check_exports.sh LIB SYMBOL[,SYMBOL...]
# Fails unless LIB defines exactly these dynamic symbols and has no SONAME.
set -eu
defined=$(nm -D --defined-only "$1" | awk '{print $3}' \
  | grep -Ev '^(_init|_fini|__asan|__ubsan|__tsan|__sanitizer|__odr_asan|__bss_start|_edata|_end)' \
  | sort | tr '\n' ' ' || true)
expected=$(echo "$2" | tr ',' '\n' | sort | tr '\n' ' ')
if [ "$defined" != "$expected" ]; then
  echo "FAIL: $1 exports [$defined], expected [$expected]" >&2
  exit 1
fi
if readelf -d "$1" | grep -q SONAME; then
  echo "FAIL: $1 carries a SONAME" >&2
  exit 1
fi
echo "exports ok: $2"
