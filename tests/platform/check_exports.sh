#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Usage: check_exports.sh LIB EXPECTED
# Fails unless LIB defines exactly the dynamic symbols listed in EXPECTED.
set -eu
lib=$1
expected=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

grep -v '^#' "$expected" | sed '/^$/d' | LC_ALL=C sort > "$tmp/expected"
# Sanitizer runtimes add their own symbols; only ours are judged.
nm -D --defined-only "$lib" | awk '{print $3}' \
  | grep -Ev '^(_init|_fini|__asan|__ubsan|__tsan|__sanitizer|__odr_asan|__bss_start|_edata|_end)' \
  | LC_ALL=C sort > "$tmp/defined"
if ! diff -u "$tmp/expected" "$tmp/defined"; then
  echo "FAIL: exported symbols differ from $expected" >&2
  exit 1
fi
echo "exports ok: $(wc -l < "$tmp/defined") symbols"
