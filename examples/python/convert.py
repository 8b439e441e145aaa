#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Remuxes a file into another container, optionally cut, with a progress bar.

    convert.py INPUT OUTPUT [START END]      e.g. convert.py in.mkv out.mp4 10 20
"""
import sys

import quorvel_avformat as q

if len(sys.argv) not in (3, 5):
    sys.exit(__doc__)
start, end = (float(sys.argv[3]), float(sys.argv[4])) if len(sys.argv) == 5 else (None, None)
try:
    report = q.convert(sys.argv[1], sys.argv[2], start=start, end=end, progress=True)
except q.QuorvelError as error:
    sys.exit(f"convert: {error}")
print(f"{report.packets_written} packets, {report.bytes_written} bytes written to {sys.argv[2]}")
