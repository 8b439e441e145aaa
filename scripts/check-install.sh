#!/usr/bin/env bash
# Installs the library the ways a user would and uses the installed copy only:
# a program outside the build made with pkg-config and with find_package, the
# installed tool, and the Debian package installed with apt-get, run and
# removed again.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-debian.sh
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
build=${BUILD_DIR:-build-install}
work=$(mktemp -d)
package_installed=0
cleanup() {
  [ "$package_installed" -eq 0 ] || $sudo apt-get purge -y -qq quorvel-avformat >/dev/null || true
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

step "The Debian package"
rm -f "$build"/quorvel-avformat_*.deb
(cd "$build" && cpack -G DEB >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; exit 1; }
deb=$(ls "$build"/quorvel-avformat_*.deb)
dpkg-deb -f "$deb" Package Version Depends | sed 's/^/  /'
package_installed=1
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "$(realpath "$deb")" \
  >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; exit 1; }
quorvel-avformat --version
quorvel-avformat streams "$clip"
quorvel-avformat --quiet convert "$clip" "$work/d.mkv"
probe "$work/d.mkv"
pkg-config --modversion quorvel-avformat
$sudo apt-get purge -y -qq quorvel-avformat >/dev/null 2>&1
package_installed=0
! command -v quorvel-avformat >/dev/null
echo "installed, ran and removed $(basename "$deb")"
