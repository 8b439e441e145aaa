#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Static analysis of the library's sources (src/): clang-tidy with the
# checked-in .clang-tidy (every finding is an error there) over a
# compile_commands.json build, then cppcheck. Fails on any finding.
#
#   scripts/lint.sh
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-debian.sh clang-tidy cppcheck
build_dir=${BUILD_DIR:-build-lint}

cmake -S . -B "$build_dir" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
  -DQUORVEL_BUILD_TESTS=OFF -DQUORVEL_BUILD_EXAMPLES=OFF -DQUORVEL_BUILD_TOOL=OFF >/dev/null

echo "clang-tidy: $(clang-tidy --version | grep -m1 -o 'version [0-9.]*')"
run-clang-tidy -p "$build_dir" -quiet -j "$(nproc)" "$PWD/src/.*\.cpp" >"$build_dir/clang-tidy.log" 2>&1 || {
  # run-clang-tidy colours its output whatever the terminal
  sed 's/\x1b\[[0-9;]*m//g' "$build_dir/clang-tidy.log" | grep -E -A3 'error:|warning:' || cat "$build_dir/clang-tidy.log"
  echo "clang-tidy found problems" >&2
  exit 1
}

echo "$(cppcheck --version)"
# System headers (FFmpeg's, the standard library's) are not analysed, only the library's own code.
cppcheck --std=c++17 --language=c++ --enable=warning,performance,portability --error-exitcode=1 \
  --inline-suppr --quiet -I include -I src src/
echo "Static analysis: clean"
