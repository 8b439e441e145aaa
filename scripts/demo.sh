#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Sets up what is needed, builds the library and its command-line tool, makes
# a small sample clip, remuxes it with a cut while showing the progress, and
# shows the streams of the result as the library reads them back.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-debian.sh
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target quorvel-avformat >/dev/null
tool=build/tools/quorvel-avformat/quorvel-avformat

sample=build/sample.mp4
if [ ! -s "$sample" ]; then
  echo "Making a 10-second sample clip (MPEG-4 video and AAC audio): $sample"
  ffmpeg -nostdin -v error -y -f lavfi -i testsrc=d=10:s=320x240:r=25 -f lavfi -i sine=f=440:d=10 \
    -c:v mpeg4 -g 25 -c:a aac "$sample"
fi

echo "\$ quorvel-avformat convert $sample build/sample-cut.mkv --start 2 --end 6"
"$tool" -y --progress=bar convert "$sample" build/sample-cut.mkv --start 2 --end 6
echo
echo "\$ quorvel-avformat info build/sample-cut.mkv"
"$tool" info build/sample-cut.mkv
echo
echo "What ffprobe sees in the result:"
ffprobe -v error -show_entries stream=index,codec_type,codec_name:format=format_name,start_time,duration \
  -of compact=p=0 build/sample-cut.mkv
