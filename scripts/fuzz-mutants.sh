#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Breaks the code on purpose, one fault at a time, and tells which faults the
# fuzzers find from their seed corpora within a fixed number of runs.
#
# Usage: scripts/fuzz-mutants.sh LIST [RUNS]   (after scripts/fuzz.sh has
# configured build/fuzz). LIST has the format of scripts/mutants.sh; RUNS
# per target defaults to 20000. The targets are those of scripts/fuzz.sh.
set -eu
cd "$(dirname "$0")/.."
list=$1
runs=${2:-20000}
build=build/fuzz
targets="ability_text neg_params color_convert vendor_reports"
work=$(mktemp -d)
current=
restore() {
  if [ -n "$current" ]; then
    cat "$work/original" > "$current"
    current=
  fi
}
trap 'restore; rm -rf "$work"' EXIT
trap 'exit 130' INT TERM HUP
export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1" UBSAN_OPTIONS="halt_on_error=1"

# The name of the first target that fails, or nothing.
run_all() {
  for target in $targets; do
    rm -rf "$work/corpus"
    mkdir -p "$work/corpus"
    cp fuzz/corpus/"$target"/* "$work/corpus"/
    if ! "$build/bin/${target}_fuzzer" -seed=1 -runs="$runs" -timeout=25 -artifact_prefix="$work/" \
        "$work/corpus" > "$work/$target.log" 2>&1; then
      echo "$target"
      return
    fi
  done
}

cmake --build "$build" --target kxcamera_fuzzers -j2 > "$work/build.log" 2>&1 || { cat "$work/build.log" >&2; exit 1; }
[ -z "$(run_all)" ] || { echo "the unbroken tree fails its fuzzers" >&2; exit 1; }
caught=0
missed=0
tab=$(printf '\t')
while IFS=$tab read -r file text replacement note <&3; do
  case $file in '' | '#'*) continue ;; esac
  cp "$file" "$work/original"
  TEXT=$text REPLACEMENT=$replacement awk '
    { i = index($0, ENVIRON["TEXT"]) }
    i { $0 = substr($0, 1, i - 1) ENVIRON["REPLACEMENT"] substr($0, i + length(ENVIRON["TEXT"])) }
    { print }' "$work/original" > "$work/mutant"
  current=$file
  cat "$work/mutant" > "$file"
  if ! cmake --build "$build" --target kxcamera_fuzzers -j2 > "$work/build.log" 2>&1; then
    echo "UNBUILT  $file: $note"
  elif found=$(run_all) && [ -n "$found" ]; then
    echo "caught   $file: $note  [$found]"
    caught=$((caught + 1))
  else
    echo "missed   $file: $note"
    missed=$((missed + 1))
  fi
  restore
done 3< "$list"
echo "$caught caught, $missed missed"
