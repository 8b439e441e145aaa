#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Splits a file into one file per stream, muxes the streams back together,
and joins two copies end to end: every family once.

    split_join.py INPUT.mkv OUTDIR
"""
import os
import sys

import quorvel_avformat as q

if len(sys.argv) != 3:
    sys.exit(__doc__)
source, out = sys.argv[1], sys.argv[2]
os.makedirs(out, exist_ok=True)
with q.Demuxer(source) as demuxer:
    names = [os.path.join(out, f"stream{s.index}.{s.type}.mkv") for s in demuxer.streams]
q.extract(source, names)
q.mux(names, os.path.join(out, "muxed.mkv"))
q.concat([source, source], os.path.join(out, "joined.mkv"))
print("\n".join(sorted(os.listdir(out))))
