#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The whole test suite under a sanitizer lane:
#
#   scripts/sanitize.sh address   AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer
#   scripts/sanitize.sh thread    ThreadSanitizer
#
# Any report fails the test that caused it. Suppressions, in
# tests/sanitizers/<lane>.supp, are only for reports inside FFmpeg itself.
set -euo pipefail
cd "$(dirname "$0")/.."

suppressions() {
  local file=$PWD/tests/sanitizers/$1.supp
  [ -f "$file" ] && printf ':suppressions=%s' "$file"
  return 0
}

case ${1:-} in
  address)
    export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1"
    export LSAN_OPTIONS="print_suppressions=0$(suppressions lsan)"
    export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1$(suppressions ubsan)"
    BUILD_DIR=${BUILD_DIR:-build-asan} \
      CMAKE_ARGS="-DQUORVEL_SANITIZE=address,undefined -DCMAKE_BUILD_TYPE=Debug" exec scripts/test.sh
    ;;
  thread)
    export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1$(suppressions tsan)"
    BUILD_DIR=${BUILD_DIR:-build-tsan} CMAKE_ARGS="-DQUORVEL_SANITIZE=thread" exec scripts/test.sh
    ;;
  *)
    echo "usage: $0 address|thread" >&2
    exit 2
    ;;
esac
