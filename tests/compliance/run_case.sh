#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# One row of the compliance table: runs the checker and requires that
# exactly the expected checks fail (none: "-"), in the text report, in the
# JSON report and in the exit status.
# usage: run_case.sh CHECKER EXPECTED [VAR=VALUE...] -- CHECKER-ARGUMENTS...
set -eu
checker=$1 expected=$2
shift 2
while [ "$1" != "--" ]; do export "$1"; shift; done
shift
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
status=0
"$checker" --json "$out/report.json" "$@" >"$out/report.txt" || status=$?
cat "$out/report.txt"
failed=$(sed -n 's/^FAIL  \([^ ]*\).*/\1/p' "$out/report.txt" | sort -u | tr '\n' ' ')
want=$(echo "$expected" | tr ',' '\n' | grep -v '^-$' | sort -u | tr '\n' ' ' || true)
[ "$failed" = "$want" ] || { echo "run_case: failed [$failed], expected [$want]" >&2; exit 1; }
json=$(jq -r '[.checks[] | select(.result == "fail") | .id] | unique | join(" ")' "$out/report.json")
[ "$json " = "$want" ] || [ "$json" = "$want" ] || { echo "run_case: JSON fails [$json]" >&2; exit 1; }
[ "$status" -eq "$([ -n "$want" ] && echo 1 || echo 0)" ] || { echo "run_case: exit status $status" >&2; exit 1; }
