#!/bin/sh
# SPDX-License-Identifier: MIT
# Runs one example program on clips made here by the ffmpeg tool and checks
# what it wrote with ffprobe: the stream types and packet counts.
#   run-example.sh NAME PROGRAM FFMPEG FFPROBE WORKDIR
set -eu
name=$1 program=$2 ffmpeg=$3 ffprobe=$4 work=$5/run/$1
rm -rf "$work" && mkdir -p "$work" && cd "$work"
clip() { "$ffmpeg" -nostdin -v error -y "$@"; }
clip -f lavfi -i testsrc=d=2:s=160x120:r=25 -f lavfi -i sine=d=2 -c:v mpeg4 -g 10 -c:a aac av.mkv
clip -i av.mkv -map 0:v -c copy video.mkv
clip -i av.mkv -map 0:a -c copy audio.mka

# a file's streams as TYPE:PACKETS,..., e.g. "video:50,audio:88"
probe() {
  "$ffprobe" -v error -count_packets -show_entries stream=codec_type,nb_read_packets -of csv=p=0 "$1" |
    tr , : | paste -sd, -
}
packets() { probe "$1" | tr , '\n' | awk -F: '{ n += $2 } END { print n }'; }
failed() { echo "$1: $(probe "$1"), expected $2" >&2; exit 1; }
# FILE PATTERN: probe's output matches the shell pattern
expect() { case $(probe "$1") in $2) ;; *) failed "$1" "$2" ;; esac; }

any='video:[1-9]*,audio:[1-9]*'
case $name in
  convert_file)
    "$program" av.mkv cut.mp4 0.4 1.2
    expect cut.mp4 "$any"
    [ "$(packets cut.mp4)" -lt "$(packets av.mkv)" ] || failed cut.mp4 "fewer packets than av.mkv" ;;
  unpack_split)
    "$program" av.mkv part
    expect part.0.mkv "$(probe video.mkv)"
    expect part.1.mkv "$(probe audio.mka)" ;;
  packet_mux)
    "$program" video.mkv audio.mka muxed.mkv
    # one packet of each in turn until the shorter input, the video, runs out
    n=$(packets video.mkv)
    expect muxed.mkv "video:$n,audio:$n" ;;
  packet_rebuild)
    "$program" av.mkv rebuilt.mp4
    expect rebuilt.mp4 "$(probe av.mkv)" ;;
  link_join)
    "$program" joined.mkv av.mkv av.mkv@0,0,0,1
    expect joined.mkv "$(probe av.mkv | awk -F'[:,]' '{ printf "%s:%d,%s:%d", $1, 2 * $2, $3, 2 * $4 }')" ;;
  *) echo "no run for $name" >&2; exit 1 ;;
esac
