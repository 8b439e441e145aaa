# SPDX-License-Identifier: MIT
"""Clips made once per run with the ffmpeg tool, and ffprobe as the independent reader."""

from __future__ import annotations

import json
import subprocess
import time
from pathlib import Path

import pytest


def ffmpeg(*arguments: str) -> None:
    subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", *arguments], check=True)


def probe_packets(path: Path | str) -> list[tuple[int, int | None, int | None, int, str]]:
    """Every packet as ffprobe reads it: (stream, pts, dts, size, flags)."""
    out = subprocess.run(
        ["ffprobe", "-v", "error", "-show_entries", "packet=stream_index,pts,dts,size,flags", "-of", "json", str(path)],
        check=True, capture_output=True, text=True,
    ).stdout
    return [(p["stream_index"], p.get("pts"), p.get("dts"), int(p["size"]), p["flags"])
            for p in json.loads(out)["packets"]]


def probe(path: Path | str) -> str:
    """A file's streams as TYPE:PACKETS,..., e.g. "video:50,audio:88"."""
    out = subprocess.run(
        ["ffprobe", "-v", "error", "-count_packets", "-show_entries", "stream=codec_type,nb_read_packets",
         "-of", "csv=p=0", str(path)], check=True, capture_output=True, text=True,
    ).stdout
    return ",".join(line.replace(",", ":") for line in out.split())


@pytest.fixture(scope="session")
def clips(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """av.mkv (2 s of MPEG-4 video at 25 fps and AAC), its streams alone, and long.mkv (60 s)."""
    d = tmp_path_factory.mktemp("clips")
    ffmpeg("-f", "lavfi", "-i", "testsrc=d=2:s=160x120:r=25", "-f", "lavfi", "-i", "sine=d=2",
           "-c:v", "mpeg4", "-g", "10", "-c:a", "aac", str(d / "av.mkv"))
    ffmpeg("-i", str(d / "av.mkv"), "-map", "0:v", "-c", "copy", str(d / "video.mkv"),
           "-map", "0:a", "-c", "copy", str(d / "audio.mka"))
    ffmpeg("-f", "lavfi", "-i", "testsrc=d=60:s=64x48:r=25", "-c:v", "mpeg4", "-g", "25", str(d / "long.mkv"))
    return d


def matches(found: str, expected: str) -> bool:
    """probe()'s answer against an expectation, which may end in * (any rest)."""
    return found == expected or (expected.endswith("*") and found.startswith(expected[:-1]))


def os_threads(expected: int | None = None) -> int:
    """The process's thread count. The kernel wakes a joiner before it drops the
    joined thread from the count, so a count is read once it has held for 50 ms,
    or, given the count expected, as soon as it is that (up to 2 s)."""
    def count() -> int:
        with open("/proc/self/status") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("Threads:"))
    deadline = time.monotonic() + 2
    last = count()
    while time.monotonic() < deadline and last != expected:
        time.sleep(0.05)
        now, last = last, count()
        if expected is None and now == last:
            break
    return last
