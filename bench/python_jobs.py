#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""The Python rows of bench/run.sh: the package's jobs and PyAV's demux loop.

    python_jobs.py convert INPUT OUTPUT   quorvel_avformat.convert(), the library's defined
                                          behaviour like the C program's, no progress callback
    python_jobs.py pull INPUT             every packet through Demuxer.packets()
    python_jobs.py pyav-pull INPUT        every packet through PyAV's container.demux()

Each pull loop reads every packet's size and presentation time; the package's
packets also carry their bytes (copied), PyAV's only on request.
"""
import sys


def pull(path: str) -> tuple[int, int]:
    import quorvel_avformat

    count = total = 0
    with quorvel_avformat.Demuxer(path) as demuxer:
        for packet in demuxer.packets():
            count += 1
            total += len(packet.data)
            packet.pts
    return count, total


def pyav_pull(path: str) -> tuple[int, int]:
    import av

    count = total = 0
    with av.open(path) as container:
        for packet in container.demux():
            if packet.size == 0 and packet.pts is None:
                continue  # the empty packet that ends each stream
            count += 1
            total += packet.size
            packet.pts
    return count, total


job = sys.argv[1]
if job == "convert":
    import quorvel_avformat

    quorvel_avformat.convert(sys.argv[2], sys.argv[3], mode="defined")
elif job in ("pull", "pyav-pull"):
    count, total = (pull if job == "pull" else pyav_pull)(sys.argv[2])
    print(f"{count} packets, {total} bytes", file=sys.stderr)
else:
    sys.exit(__doc__)
