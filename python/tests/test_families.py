# SPDX-License-Identifier: MIT
"""Every family from Python, on paths and on file objects both ways, checked with ffprobe."""

from __future__ import annotations

import io
from pathlib import Path
from typing import Any, Callable

import pytest

import quorvel_avformat as q
from conftest import matches, probe

AV, STREAMS = "video:50,audio:88", ("video:50", "audio:88")

# (job, how to run it on the clips folder c and an output folder o, the outputs and what ffprobe finds in each)
JOBS: list[tuple[str, Callable[[Path, Path], Any], dict[str, str]]] = [
    ("convert", lambda c, o: q.convert(c / "av.mkv", o / "out.mp4"), {"out.mp4": AV}),
    ("convert str path, forced format", lambda c, o: q.convert(str(c / "av.mkv"), o / "out.bin", format="matroska"),
     {"out.bin": AV}),
    ("extract", lambda c, o: q.extract(c / "av.mkv", [o / "v.mkv", o / "a.mka"]), dict(zip(["v.mkv", "a.mka"], STREAMS))),
    ("extract one stream", lambda c, o: q.extract(c / "av.mkv", {1: o / "a.mka"}), {"a.mka": STREAMS[1]}),
    ("mux", lambda c, o: q.mux([c / "video.mkv", c / "audio.mka"], o / "m.mkv", options={"until_all_inputs_end": 1}),
     {"m.mkv": "video:50,audio:*"}),
    ("concat", lambda c, o: q.concat([c / "av.mkv", c / "av.mkv"], o / "j.mkv"), {"j.mkv": "video:100,audio:176"}),
    ("task object", lambda c, o: q.ConvertTask(c / "av.mkv", o / "t.mkv", mode="defined")._run(), {"t.mkv": AV}),
]


@pytest.mark.parametrize("run, outputs", [job[1:] for job in JOBS], ids=[job[0] for job in JOBS])
def test_family_writes_what_ffprobe_reads(clips: Path, tmp_path: Path, run: Callable[..., Any], outputs: dict) -> None:
    report = run(clips, tmp_path)
    assert report.packets_written > 0 and report.trailer_written and report.failed_write == 0
    for name, expected in outputs.items():
        assert matches(probe(tmp_path / name), expected), name


def test_file_objects_both_ways(clips: Path, tmp_path: Path) -> None:
    source, written = io.BytesIO((clips / "av.mkv").read_bytes()), io.BytesIO()
    assert q.convert(source, written, format="nut").bytes_written == len(written.getvalue()) > 0
    (tmp_path / "out.nut").write_bytes(written.getvalue())
    assert probe(tmp_path / "out.nut") == AV
    # read(n) only (no readinto), and a write that takes a few bytes at a time
    class Trickle(io.RawIOBase):
        def __init__(self) -> None:
            self.data = bytearray()
        def writable(self) -> bool:
            return True
        def write(self, b: Any) -> int:
            self.data += bytes(b[:1000])
            return min(len(b), 1000)
    class ReadOnly:
        def __init__(self, data: bytes) -> None:
            self.read = io.BytesIO(data).read
    outputs = [Trickle(), io.BytesIO()]
    q.extract(ReadOnly((clips / "av.mkv").read_bytes()), outputs, format="matroska")
    for output, expected in zip(outputs, STREAMS):
        (tmp_path / "part.mkv").write_bytes(bytes(output.data if isinstance(output, Trickle) else output.getvalue()))
        assert probe(tmp_path / "part.mkv") == expected
    with open(clips / "video.mkv", "rb") as video, open(clips / "audio.mka", "rb") as audio:
        q.mux([video, audio], tmp_path / "m.mkv")
    assert probe(tmp_path / "m.mkv").startswith("video:50,audio:")


def test_progress_kinds_and_bar(clips: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    calls: list[tuple[Any, int, float]] = []
    q.convert(clips / "av.mkv", tmp_path / "p.mkv", progress=lambda *call: calls.append(call))
    assert len(calls) == 138 and {kind for kind, _, _ in calls} == {"video", "audio"}
    assert max(seconds for _, _, seconds in calls) == pytest.approx(2.0, abs=0.1)
    calls.clear()
    q.extract(clips / "av.mkv", [tmp_path / "v.mkv"], progress=lambda *call: calls.append(call))
    assert {kind for kind, _, _ in calls} == {0} and [n for _, n, _ in calls] == list(range(50))
    q.convert(clips / "av.mkv", tmp_path / "b.mkv", progress=True)
    assert "packets" in capsys.readouterr().err


def test_task_control(clips: Path, tmp_path: Path) -> None:
    with q.ConvertTask(clips / "long.mkv", tmp_path / "c.mkv", progress=lambda *_: None) as task:
        assert not task.running and task.report.packets_read == 0
        task.pause()  # before start: a conversion then starts paused, however fast its run would be
        task.start()
        assert task.running and not task.wait(timeout=0.05)
        task.resume()
        assert task.wait(timeout=60) and not task.running
        assert task.report.packets_read == 1500
        report = task.stop()
    assert report is not None and report.trailer_written and task.stop() is None
    assert probe(tmp_path / "c.mkv") == "video:1500"
