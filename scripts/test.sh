#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Sets up what is needed, builds the library and runs the whole test suite.
#
#   scripts/test.sh                      build in build/ against the system's FFmpeg
#   BUILD_DIR=build-asan CMAKE_ARGS="-DQUORVEL_SANITIZE=address,undefined" scripts/test.sh
#   FFMPEG_PREFIX=/path/to/ffmpeg scripts/test.sh     against another FFmpeg build
#
# After the C suite, the Python package's tests (python/tests) run against the
# library just built.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-debian.sh
build_dir=${BUILD_DIR:-build}
cmake_args=(-DQUORVEL_WERROR=ON -DQUORVEL_BUILD_TESTS=ON)
if [ -n "${FFMPEG_PREFIX:-}" ]; then
  export PKG_CONFIG_PATH="$FFMPEG_PREFIX/lib/pkgconfig"
  export LD_LIBRARY_PATH="$FFMPEG_PREFIX/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
  cmake_args+=(-DCMAKE_BUILD_RPATH="$FFMPEG_PREFIX/lib")
fi
# shellcheck disable=SC2206
cmake_args+=(${CMAKE_ARGS:-})

cmake -S . -B "$build_dir" "${cmake_args[@]}" >/dev/null
cmake --build "$build_dir" -j "$(nproc)"
echo "FFmpeg: libavformat $(pkg-config --modversion libavformat)"
(cd "$build_dir" && ctest -j "$(nproc)" --output-on-failure --timeout 300)

# The Python package against the library just built, with Debian's Python and
# pytest. A sanitized library loads only into a sanitized process: not there.
case ${CMAKE_ARGS:-} in
  *QUORVEL_SANITIZE=*) echo "Python package: not tested against a sanitized build" ;;
  *)
    python=/usr/bin/python3
    [ -x "$python" ] || python=python3
    QUORVEL_AVFORMAT_LIBRARY=$(cd "$build_dir" && pwd)/libQuorvel_AVFormat.so PYTHONPATH=$PWD/python \
      "$python" -m pytest -q -p no:cacheprovider python/tests
    ;;
esac
