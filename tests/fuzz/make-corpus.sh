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
# No playlist here: a playlist opened by name lets FFmpeg's HLS demuxer wait
# on its segments' retries, which a fuzz run takes for a hang. Playlists are
# covered by the hostile-input suite instead, until set-up can be bounded in time.
ls -l
