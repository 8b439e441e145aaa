#!/bin/sh
# Runs one guide example on clips made here by the ffmpeg tool and checks its
# outputs with ffprobe.
#   run-example.sh NAME EXAMPLE FFMPEG FFPROBE WORKDIR
set -eu
name=$1 example=$2 ffmpeg=$3 ffprobe=$4 work=$5/$1
rm -rf "$work" && mkdir -p "$work"
clip() { "$ffmpeg" -nostdin -v error -y "$@"; }
clip -f lavfi -i testsrc=d=2:s=160x120:r=25 -f lavfi -i sine=d=2 -c:v mpeg4 -g 10 -c:a aac "$work/av.mkv"
clip -f lavfi -i testsrc=d=2:s=160x120:r=25 -c:v mpeg4 "$work/video.mkv"
clip -f lavfi -i sine=d=2 -c:a aac "$work/audio.mka"
# ffprobe's list of stream types, e.g. "video,audio"
streams() { "$ffprobe" -v error -show_entries stream=codec_type -of csv=p=0 "$1" | paste -sd, -; }
expect() {
  got=$(streams "$1")
  [ "$got" = "$2" ] || { echo "$1: streams '$got', expected '$2'" >&2; exit 1; }
}

case $name in
  convert)
    "$example" "$work/av.mkv" "$work/cut.mp4" 0.4 1.2
    expect "$work/cut.mp4" video,audio ;;
  unpack)
    "$example" "$work/av.mkv" "$work"
    expect "$work/stream-0.mkv" video
    expect "$work/stream-1.mkv" audio ;;
  packet)
    "$example" "$work/video.mkv" "$work/audio.mka" "$work/av.mkv" "$work"
    expect "$work/muxed.mkv" video,audio
    expect "$work/fed.mkv" video,audio ;;
  link)
    "$example" "$work/joined.mkv" "$work/av.mkv" "$work/av.mkv"
    expect "$work/joined.mkv" video,audio ;;
  *) echo "no run for $name" >&2; exit 1 ;;
esac
