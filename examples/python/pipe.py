#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Remuxes what comes in on standard input into Matroska on standard output,
through the library's caller I/O bridge.

    cat in.mp4 | pipe.py > out.mkv
"""
import sys

import quorvel_avformat as q

report = q.convert(sys.stdin.buffer, sys.stdout.buffer, format="matroska")
print(f"{report.packets_written} packets", file=sys.stderr)
