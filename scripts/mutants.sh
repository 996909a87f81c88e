#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Breaks the code on purpose, one fault at a time, and tells which faults a
# test selection notices.
#
# Usage: scripts/mutants.sh [-p PRESET] [-b DIR] [-t TARGET]... LIST [CTEST ARGS...]
#   LIST        tab-separated lines: FILE, TEXT, REPLACEMENT, NOTE. TEXT must
#               occur on exactly one line of FILE; its first occurrence there
#               becomes REPLACEMENT. Blank lines and lines starting with #
#               are skipped.
#   -p PRESET   build preset (debug)
#   -b DIR      its binary directory (build/PRESET)
#   -t TARGET   build only these targets (default: everything)
#   CTEST ARGS  the selection, e.g. -L 'platform|faults'
# A fault may well hang (a missing unlock): a run taking longer than
# MUTANTS_TIMEOUT seconds (default: three times the unbroken run, plus 30)
# is stopped and counts as caught. The first failure ends the run of a fault.
# Each fault is applied in place and the file is restored afterwards, also on
# an interrupt. Prints caught/missed per fault and "N caught, M missed"; a
# fault that does not build is reported apart and counted in neither. Exits
# non-zero when a line no longer applies or the unbroken tree fails.
set -eu
cd "$(dirname "$0")/.."

preset=debug
dir=
targets=
while getopts p:b:t: opt; do
  case $opt in
    p) preset=$OPTARG ;;
    b) dir=$OPTARG ;;
    t) targets="$targets --target $OPTARG" ;;
    *) sed -n '6,21s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
[ $# -ge 1 ] || { sed -n '6,21s/^# \{0,1\}//p' "$0" >&2; exit 2; }
list=$1
shift
dir=${dir:-build/$preset}

work=$(mktemp -d)
current=
restore() {
  if [ -n "$current" ]; then
    # A fresh modification time, so that the next build drops the mutant.
    cat "$work/original" > "$current"
    current=
  fi
}
trap 'restore; rm -rf "$work"' EXIT
trap 'exit 130' INT TERM HUP

build() {
  # shellcheck disable=SC2086 # targets are separate words
  cmake --build --preset "$preset" -j2 $targets > "$work/build.log" 2>&1 < /dev/null
}
limit=0
run_tests() {
  # timeout stops the whole process group, tests included.
  timeout "$limit" ctest --test-dir "$dir" -j2 --stop-on-failure "$@" > "$work/test.log" 2>&1 < /dev/null
}
first_failure() {
  sed -n '/tests FAILED:/{n;s/^[[:space:]]*[0-9]* - //;s/ (.*//;p;q}' "$work/test.log" | grep . || echo "stopped after ${limit}s"
}

build || { cat "$work/build.log" >&2; echo "the unbroken tree does not build" >&2; exit 1; }
start=$(date +%s)
run_tests "$@" || { cat "$work/test.log" >&2; echo "the unbroken tree fails its tests" >&2; exit 1; }
limit=${MUTANTS_TIMEOUT:-$((($(date +%s) - start) * 3 + 30))}

caught=0
missed=0
unbuilt=0
stale=0
tab=$(printf '\t')
while IFS=$tab read -r file text replacement note <&3; do
  case $file in '' | '#'*) continue ;; esac
  label="$file: ${note:-$text}"
  cp "$file" "$work/original"
  if ! TEXT=$text REPLACEMENT=$replacement awk '
      { i = index($0, ENVIRON["TEXT"]) }
      i { n++; $0 = substr($0, 1, i - 1) ENVIRON["REPLACEMENT"] substr($0, i + length(ENVIRON["TEXT"])) }
      { print }
      END { exit n == 1 ? 0 : 3 }' "$work/original" > "$work/mutant"; then
    printf 'STALE    %s (the text is not on exactly one line)\n' "$label"
    stale=$((stale + 1))
    continue
  fi
  current=$file
  cat "$work/mutant" > "$file"
  if ! build; then
    printf 'UNBUILT  %s\n' "$label"
    unbuilt=$((unbuilt + 1))
  elif run_tests "$@"; then
    printf 'missed   %s\n' "$label"
    missed=$((missed + 1))
  else
    printf 'caught   %s  [%s]\n' "$label" "$(first_failure)"
    caught=$((caught + 1))
  fi
  restore
done 3< "$list"

build || true
printf '%d caught, %d missed' "$caught" "$missed"
[ "$unbuilt" -eq 0 ] || printf ', %d did not build' "$unbuilt"
[ "$stale" -eq 0 ] || printf ', %d stale' "$stale"
printf '\n'
[ "$stale" -eq 0 ]
