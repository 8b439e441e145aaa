#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the library the ways a user would and uses the installed copy only:
# a program outside the build made with pkg-config and with find_package, the
# installed tool, and the three Debian packages (runtime library, development
# files, tool) installed with apt-get: the tool, its man page and completion,
# and both consumers built against /usr, then removed again.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-debian.sh help2man man-db bash-completion
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
build=${BUILD_DIR:-build-install}
work=$(mktemp -d)
package_installed=0
packages="libquorvel-avformat0 libquorvel-avformat-dev quorvel-avformat"
cleanup() {
  # shellcheck disable=SC2086
  [ "$package_installed" -eq 0 ] || $sudo apt-get purge -y -qq $packages >/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
step() { printf '\n--- %s\n' "$*"; }
probe() { ffprobe -v error -show_entries stream=codec_type -of csv=p=0 "$1" | tr '\n' ' '; echo; }

step "Building for /usr and installing into a scratch prefix"
cmake -S . -B "$build" -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=Release -DQUORVEL_WERROR=ON \
  -DQUORVEL_BUILD_TESTS=OFF -DQUORVEL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" >/dev/null
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
find "$prefix" -type f -o -type l | sed "s|^$prefix|  |" | sort

clip=$work/clip.mkv
ffmpeg -nostdin -v error -y -f lavfi -i testsrc=d=1:s=160x120:r=25 -f lavfi -i sine=d=1 \
  -c:v mpeg4 -c:a aac "$clip"

step "A consumer built with pkg-config"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name quorvel-avformat.pc)")
echo "  pkg-config: $(pkg-config --cflags --libs quorvel-avformat)"
# shellcheck disable=SC2046
cc -Wall -Wextra -Werror tests/consumer/consumer.c -o "$work/consumer-pkg-config" \
  $(pkg-config --cflags --libs quorvel-avformat)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir quorvel-avformat) "$work/consumer-pkg-config" "$clip" "$work/a.nut"
probe "$work/a.nut"
unset PKG_CONFIG_PATH

step "A consumer built with CMake's find_package"
cmake -S tests/consumer -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="-Wall -Werror" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer" "$clip" "$work/b.nut"
probe "$work/b.nut"

step "The tool from the scratch prefix"
"$prefix/bin/quorvel-avformat" --quiet convert "$clip" "$work/c.mkv"
probe "$work/c.mkv"

step "The Debian packages"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; exit 1; }
debs=()
for package in $packages; do
  deb=$(ls "$build/${package}_"*.deb)
  dpkg-deb -f "$deb" Package Version Depends | sed 's/^/  /'
  dpkg-deb -c "$deb" >"$work/$package.contents"
  grep -q "usr/share/doc/$package/copyright" "$work/$package.contents" || { echo "$deb has no copyright file"; exit 1; }
  debs+=("$(realpath "$deb")")
done
grep -q "usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/libQuorvel_AVFormat.so." "$work/libquorvel-avformat0.contents" ||
  { echo "the library is not in the multiarch folder"; exit 1; }
package_installed=1
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${debs[@]}" \
  >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; exit 1; }
quorvel-avformat --version
quorvel-avformat info "$clip"
quorvel-avformat --quiet convert "$clip" "$work/d.mkv"
probe "$work/d.mkv"
man -w quorvel-avformat
man quorvel-avformat 2>/dev/null | grep -q -- "--overwrite" || { echo "the man page lacks the options"; exit 1; }
# shellcheck disable=SC1091
completions=$(bash -c 'source /usr/share/bash-completion/bash_completion; source /usr/share/bash-completion/completions/quorvel-avformat
  COMP_LINE="quorvel-avformat ex"; COMP_POINT=${#COMP_LINE}; COMP_WORDS=(quorvel-avformat ex); COMP_CWORD=1
  _quorvel_avformat; echo "${COMPREPLY[*]}"')
[ "$completions" = "extract" ] || { echo "completion gave \"$completions\""; exit 1; }
echo "  pkg-config: $(pkg-config --modversion quorvel-avformat) $(pkg-config --print-requires-private quorvel-avformat | tr '\n' ' ')"
# shellcheck disable=SC2046
cc -Wall -Wextra -Werror tests/consumer/consumer.c -o "$work/consumer-usr" $(pkg-config --cflags --libs quorvel-avformat)
"$work/consumer-usr" "$clip" "$work/e.nut"
probe "$work/e.nut"
cmake -S tests/consumer -B "$work/consumer-usr-cmake" -DCMAKE_C_FLAGS="-Wall -Werror" >/dev/null
cmake --build "$work/consumer-usr-cmake" >/dev/null
"$work/consumer-usr-cmake/consumer" "$clip" "$work/f.nut"
probe "$work/f.nut"
# shellcheck disable=SC2086
$sudo apt-get purge -y -qq $packages >/dev/null 2>&1
package_installed=0
! command -v quorvel-avformat >/dev/null
echo "installed, ran and removed: $packages"
