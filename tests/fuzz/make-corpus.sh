#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Remakes the fuzz targets' starting corpus (tests/fuzz/corpus/) with the ffmpeg
# tool (and python3): a fraction of a second of tiny video and audio in the
# containers the test fixtures use, and a few hostile files, each a few kilobytes.
set -euo pipefail
cd "$(dirname "$0")/corpus"
mkdir -p ../bridged-corpus

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
# Twenty streams, video and audio in turn: more than a demultiplexing task has outputs.
maps=$(for i in 1 2 3 4 5 6 7 8 9 10; do printf ' -map 0:v -map 1:a'; done)
# shellcheck disable=SC2086
make many-streams.nut -f lavfi -i color=black:d=0.04:s=16x16:r=25 -f lavfi -i sine=d=0.005:r=8000:samples_per_frame=40 \
  $maps -c:v mpeg4 -c:a pcm_u8
# Two inputs for concatenation (link_fuzz): video then audio, and audio then
# video, behind the first one's length as 4 little-endian bytes.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
make "$scratch/a.mkv" -f lavfi -i color=black:d=0.08:s=16x16:r=25 -f lavfi -i sine=d=0.08:r=8000 -c:v mpeg4 -c:a pcm_u8
make "$scratch/b.mkv" -f lavfi -i sine=d=0.08:r=8000 -f lavfi -i color=black:d=0.08:s=16x16:r=25 \
  -map 0:a -map 1:v -c:v mpeg4 -c:a pcm_u8
python3 - "$scratch" <<'PYTHON'
import struct, sys, zlib
scratch = sys.argv[1]
a, b = (open(f"{scratch}/{name}.mkv", "rb").read() for name in "ab")
open("two-layouts.link", "wb").write(struct.pack("<I", len(a)) + a + b)

# Matroska whose track has zlib content compression (encoding 0, algorithm 0):
# two blocks, a key frame then another, of a few hundred bytes that inflate to 256 KiB each.
def element(id, *children):
    body = b"".join(children)
    return id.to_bytes((id.bit_length() + 7) // 8, "big") + b"\x01" + len(body).to_bytes(7, "big") + body
def uint(id, value): return element(id, value.to_bytes(max(1, (value.bit_length() + 7) // 8), "big"))
packet = zlib.compress(bytes(256 * 1024), 9)
track = element(0xAE, uint(0xD7, 1), uint(0x73C5, 1), uint(0x83, 1), element(0x86, b"V_MPEG4/ISO/ASP"),
                element(0xE0, uint(0xB0, 64), uint(0xBA, 64)),
                element(0x6D80, element(0x6240, uint(0x5031, 0), uint(0x5032, 1), uint(0x5033, 0),
                                        element(0x5034, uint(0x4254, 0)))))
cluster = element(0x1F43B675, uint(0xE7, 0), element(0xA3, b"\x81\x00\x00\x80" + packet),
                  element(0xA3, b"\x81\x00\x28\x00" + packet))
open("zlib-compressed.mkv", "wb").write(
    element(0x1A45DFA3, element(0x4282, b"matroska"), uint(0x4287, 4)) +
    element(0x18538067, element(0x1549A966, uint(0x2AD7B1, 1000000)), element(0x1654AE6B, track), cluster))
PYTHON
# A playlist, for the targets that read through the caller read function only:
# there it may open neither its neighbour nor the network. Opened by name (as
# concatenation opens its inputs) FFmpeg's HLS demuxer waits on its segments'
# retries, which a fuzz run takes for a hang.
printf '#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:0.24,\nav.ts\n#EXTINF:0.24,\nhttp://127.0.0.1:9/x.ts\n#EXT-X-ENDLIST\n' \
  >../bridged-corpus/playlist.m3u8
ls -l . ../bridged-corpus
