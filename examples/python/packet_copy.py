#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Copies a file packet by packet through Python: Demuxer to Muxer.

    packet_copy.py INPUT OUTPUT             e.g. packet_copy.py in.mkv out.mkv
"""
import sys

import quorvel_avformat as q

if len(sys.argv) != 3:
    sys.exit(__doc__)
with q.Demuxer(sys.argv[1]) as demuxer, q.Muxer(sys.argv[2]) as muxer:
    for stream in demuxer.streams:
        print(f"stream {stream.index}: {stream.type} {stream.codec_name}, time base {stream.time_base}")
        muxer.add_stream(stream)
    keyframes = 0
    for packet in demuxer.packets():
        keyframes += packet.is_keyframe
        muxer.write(packet)
print(f"{keyframes} key frames")
