#!/usr/bin/env bash
# Remakes the fuzz targets' starting corpus (tests/fuzz/corpus/) with the ffmpeg
# tool: a fraction of a second of tiny video and audio in the containers the
# test fixtures use, each a few kilobytes.
set -euo pipefail
cd "$(dirname "$0")/corpus"

video="-f lavfi -i testsrc=d=0.24:s=32x24:r=25"
audio="-f lavfi -i sine=f=440:d=0.24:r=8000"
make() { local name=$1; shift; ffmpeg -nostdin -v error -y -bitexact "$@" -fflags +bitexact "$name"; }

make av.mkv $video $audio -c:v mpeg4 -c:a aac -b:a 16k
make av.mp4 $video $audio -c:v mpeg4 -c:a aac -b:a 16k
make av.ts $video $audio -c:v mpeg4 -c:a aac -b:a 16k
make av.flv $video $audio -c:v flv1 -c:a aac -b:a 16k
make av.nut $video $audio -c:v mpeg4 -c:a pcm_s16le
make video.h264 $video -c:v libx264 -preset ultrafast -f h264
make audio.wav $audio -c:a pcm_s16le
make audio.adts $audio -c:a aac -b:a 16k -f adts
# Hostile inputs. Timestamps near 2^62 (in Matroska's milliseconds): a file
# joined to itself takes its times past 64 bits unless every sum is checked.
make extreme-ts.mkv -f lavfi -i testsrc=d=0.04:s=16x16:r=25 -c:v mpeg4 -enc_time_base:v 1:1000 \
  -bsf:v setts=ts=4611686018427387904+TS
# A playlist whose segments are a neighbour file and a network URL (port 9,
# nothing listens): read through a caller read function it may open neither.
printf '#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:0.24,\nav.ts\n#EXTINF:0.24,\nhttp://127.0.0.1:9/x.ts\n#EXT-X-ENDLIST\n' \
  >playlist.m3u8
ls -l
