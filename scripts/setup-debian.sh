#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the Debian packages that building and testing the library need
# (help2man: the tool's man page).
# Does nothing when they are all there already.
set -euo pipefail

packages=(build-essential cmake pkg-config libavformat-dev libavcodec-dev libavutil-dev
          libgtest-dev ffmpeg xz-utils
          libcli11-dev nlohmann-json3-dev libfmt-dev dpkg-dev python3-pytest help2man "$@")

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}" >&2
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
