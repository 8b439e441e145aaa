#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the fuzz targets (clang, libFuzzer, AddressSanitizer with
# LeakSanitizer, UndefinedBehaviorSanitizer) and runs each one for a while,
# starting from the starting corpus and the kept regression inputs.
#
#   scripts/fuzz.sh          15 seconds per target: CI's smoke run
#   scripts/fuzz.sh 900      a quarter of an hour per target
#
# New inputs that widen coverage collect in build-fuzz/corpus/<target>/. A
# crash, leak or hang leaves its input in build-fuzz/findings/ and fails the
# run: fix it, then keep the input in tests/fuzz/regressions/<target>/, whose
# files the test suite replays.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-15}
scripts/setup-debian.sh clang libclang-rt-14-dev
build_dir=${BUILD_DIR:-build-fuzz}
CC=clang CXX=clang++ cmake -S . -B "$build_dir" -DQUORVEL_BUILD_FUZZ=ON -DQUORVEL_BUILD_TESTS=OFF \
  -DQUORVEL_BUILD_EXAMPLES=OFF -DQUORVEL_BUILD_TOOL=OFF -DQUORVEL_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
targets=$(sed -n 's/^set(QUORVEL_FUZZ_TARGETS \(.*\))$/\1/p' CMakeLists.txt)
# shellcheck disable=SC2086
cmake --build "$build_dir" -j "$(nproc)" --target $targets

export ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=64:malloc_context_size=20
export UBSAN_OPTIONS=print_stacktrace=1
mkdir -p "$build_dir/findings"
status=0
for target in $targets; do
  corpus="$build_dir/corpus/$target"
  mkdir -p "$corpus"
  # The playlist seeds are for the targets that read through the caller read
  # function: concatenation opens its inputs by name, where FFmpeg's HLS
  # demuxer waits on its segments' retries, which this run would take for a hang.
  seeds=(tests/fuzz/corpus "tests/fuzz/regressions/$target")
  [ "$target" = link_fuzz ] || seeds+=(tests/fuzz/bridged-corpus)
  echo "=== $target: $seconds s"
  # -timeout: an input that takes this long is a hang. -rss_limit_mb: each
  # caller-I/O bridge holds a 10 MiB buffer, so a few hundred MB is normal.
  if ! "$build_dir/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=3072 -max_len=65536 \
      -print_final_stats=1 -artifact_prefix="$build_dir/findings/$target-" \
      "$corpus" "${seeds[@]}" >"$build_dir/$target.log" 2>&1; then
    status=1
    grep -E -A40 '^==[0-9]+==|ERROR:|SUMMARY|timeout' "$build_dir/$target.log" | head -80
    echo "=== $target FAILED; input kept in $build_dir/findings/" >&2
  fi
  grep -E 'stat::number_of_executed_units|stat::peak_rss_mb' "$build_dir/$target.log" | sed "s/^/$target /"
done
exit $status
