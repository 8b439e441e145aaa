#!/usr/bin/env bash
# Sets up what is needed, builds the library and its examples, makes a small
# sample clip and remuxes it with a cut, printing progress and what it wrote.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-debian.sh
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target convert_file >/dev/null

sample=build/sample.mp4
if [ ! -s "$sample" ]; then
  echo "Making a 10-second sample clip (MPEG-4 video and AAC audio): $sample"
  ffmpeg -nostdin -v error -y -f lavfi -i testsrc=d=10:s=320x240:r=25 -f lavfi -i sine=f=440:d=10 \
    -c:v mpeg4 -g 25 -c:a aac "$sample"
fi

echo "Remuxing $sample into Matroska, keeping 2 s to 6 s:"
build/examples/convert_file "$sample" build/sample-cut.mkv 2 6
echo
echo "What ffprobe sees in the result:"
ffprobe -v error -show_entries stream=index,codec_type,codec_name:format=format_name,start_time,duration \
  -of compact=p=0 build/sample-cut.mkv
