#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The fuzz job: builds the libFuzzer targets with clang in build/fuzz, then
# runs each one from a scratch copy of its committed seed corpus with a fixed
# seed, for a fixed number of runs (about a minute each on a 2-core machine,
# so that a CI run is reproducible) or at most the given time. Any finding
# (crash, sanitizer report, leak, broken check, timeout) fails the job; the
# input is left in build/fuzz/findings/<target>/.
#   scripts/fuzz.sh [seconds per target, default 120] [runs per target]
# With runs -1 the time alone bounds each target.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-120}
runs=${2:-}
build=build/fuzz
# target:runs
targets="ability_text:70000 neg_params:450000 color_convert:100000 vendor_reports:16000"

# clang and its runtimes (libFuzzer, sanitizers); llvm-14 symbolizes reports.
sh scripts/install-deps.sh clang-14 libclang-rt-14-dev llvm-14

# Everything the targets load is instrumented: coverage for the fuzzer,
# address and undefined-behaviour checks that stop at the first report.
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer -g"
CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" \
  -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=address,undefined" \
  -DKXCAMERA_BUILD_TESTS=OFF -DKXCAMERA_BUILD_BENCHMARKS=OFF -DKXCAMERA_BUILD_FUZZERS=ON
cmake --build "$build" --target kxcamera_fuzzers -j2

export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1:symbolize=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
if command -v llvm-symbolizer-14 >/dev/null 2>&1; then
  ASAN_SYMBOLIZER_PATH=$(command -v llvm-symbolizer-14)
  export ASAN_SYMBOLIZER_PATH
fi

status=0
summary=""
for entry in $targets; do
  target=${entry%%:*}
  target_runs=${runs:-${entry#*:}}
  corpus="$build/corpus/$target"
  findings="$build/findings/$target"
  log="$build/logs/$target.log"
  rm -rf "$corpus" "$findings"
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"
  # The fuzzer grows the scratch copy; the committed seeds stay as they are.
  cp fuzz/corpus/"$target"/* "$corpus"/
  echo "fuzz: $target for $target_runs runs, at most ${seconds}s"
  if "$build/bin/${target}_fuzzer" -seed=1 -runs="$target_runs" -max_total_time="$seconds" -timeout=25 \
      -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" >"$log" 2>&1; then
    result=ok
  else
    result=FAILED
    status=1
    tail -n 60 "$log" >&2
  fi
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  files=$(find "$corpus" -type f | wc -l)
  line="$target: $result, ${execs:-?} executions, corpus $files files"
  echo "fuzz: $line"
  summary="$summary
  $line"
done
echo "fuzz: summary:$summary"
exit $status
