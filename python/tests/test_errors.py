# SPDX-License-Identifier: MIT
"""Failures and their classes, exceptions in callbacks, stops from elsewhere, and tasks left to the collector."""

from __future__ import annotations

import gc
import io
import threading
import time
from pathlib import Path
from typing import Any, Callable

import pytest

import quorvel_avformat as q
from conftest import os_threads, probe

# (case, call on the clips folder c and an output folder o, exception class, code name or None)
FAILURES: list[tuple[str, Callable[[Path, Path], Any], type[BaseException], str | None]] = [
    ("missing input", lambda c, o: q.convert(c / "none.mkv", o / "x.mkv"), q.OpenError, "CONVERT_OPEN"),
    ("unknown container", lambda c, o: q.convert(c / "av.mkv", o / "x.unknown"), q.FormatError, "CONVERT_OUTPUTFORMAT"),
    ("unknown option", lambda c, o: q.mux([c / "av.mkv"], o / "x.mkv", options={"no_such": 1}), q.OptionError,
     "PACKET_OPTION"),
    ("bad mode", lambda c, o: q.concat([c / "av.mkv"], o / "x.mkv", mode="sloppy"), q.OptionError, "LINK_OPTION_VALUE"),
    ("unused input option", lambda c, o: q.extract(c / "av.mkv", [o / "x.mkv"], options={"input.nonsense": 1}),
     q.OptionError, "PACKET_OPTION_UNUSED"),
    ("strict policy", lambda c, o: q.convert("http://127.0.0.1:9/x.mkv", o / "x.mkv", options={"policy": "strict"}),
     q.PolicyError, "CONVERT_POLICY"),
    ("demuxer on nothing", lambda c, o: q.Demuxer(c / "none.mkv"), q.OpenError, "PACKET_OPEN"),
    ("write with no stream", lambda c, o: q.Muxer(o / "x.mkv").write(q.Packet(b"x")), q.FormatError,
     "PACKET_WRITEHEADER"),
    ("seek in no stream", lambda c, o: q.Demuxer(c / "av.mkv").seek(0, 5), q.SeekError, "PACKET_SEEK"),
    ("file object without format", lambda c, o: q.convert(c / "av.mkv", io.BytesIO()), ValueError, None),
    ("not a source", lambda c, o: q.convert(42, o / "x.mkv"), TypeError, None),
    ("mp4 through a bridge", lambda c, o: q.convert(c / "av.mkv", io.BytesIO(), format="mp4", mode="defined"),
     q.QuorvelError, None),
]


@pytest.mark.parametrize("call, kind, name", [f[1:] for f in FAILURES], ids=[f[0] for f in FAILURES])
def test_failures_raise_their_class(clips: Path, tmp_path: Path, call: Callable[..., Any], kind: type, name: str | None) -> None:
    with pytest.raises(kind) as caught:
        call(clips, tmp_path)
    if name is not None:
        assert caught.value.name.endswith(name) and caught.value.code and caught.value.text


class Boom(Exception):
    pass


def boom(*_: Any) -> None:
    raise Boom("from a callback")


class FailingReader(io.BytesIO):
    def __init__(self, data: bytes, after: int) -> None:
        super().__init__(data)
        self.after = after

    def readinto1(self, buffer: Any) -> int:
        if self.tell() >= self.after:
            raise Boom("read")
        return super().readinto1(memoryview(buffer)[:4096])


class FailingWriter(io.BytesIO):
    def write(self, data: Any) -> int:
        if self.tell() > 20000:
            raise Boom("write")
        return super().write(data)


# an exception in each kind of callback, raised in the caller's thread with nothing left running
CALLBACKS: list[tuple[str, Callable[[Path, Path], Any]]] = [
    ("progress", lambda c, o: q.convert(c / "long.mkv", o / "x.mkv", progress=boom)),
    ("progress, extract", lambda c, o: q.extract(c / "long.mkv", [o / "x.mkv"], progress=boom)),
    ("progress, concat", lambda c, o: q.concat([c / "long.mkv"], o / "x.mkv", progress=boom)),
    ("read", lambda c, o: q.mux([FailingReader((c / "long.mkv").read_bytes(), 30000)], o / "x.mkv")),
    ("write", lambda c, o: q.convert(c / "long.mkv", FailingWriter(), format="matroska")),
]


@pytest.mark.parametrize("call", [c[1] for c in CALLBACKS], ids=[c[0] for c in CALLBACKS])
def test_callback_exception_reaches_the_caller(clips: Path, tmp_path: Path, call: Callable[..., Any]) -> None:
    threads = os_threads()
    with pytest.raises(Boom):
        call(clips, tmp_path)
    assert os_threads(threads) == threads


def test_stop_from_another_thread_and_from_the_callback(clips: Path, tmp_path: Path) -> None:
    started = threading.Event()
    task = q.ConvertTask(clips / "long.mkv", tmp_path / "a.mkv", progress=lambda *_: started.set())
    task.start()
    assert started.wait(30)
    task.pause()
    stopper = threading.Thread(target=task.stop)
    stopper.start()
    assert task.wait(timeout=30)
    stopper.join()
    assert not task.running and probe(tmp_path / "a.mkv").startswith("video:")
    with pytest.raises(q.ParameterError):
        task.resume()

    def stop_at_100(_kind: Any, number: int, _seconds: float) -> None:
        if number == 100:
            inner.stop()
        if number >= 100:
            time.sleep(0.001)  # a slow caller: the stop lands long before the clip's end, however busy the machine
    inner = q.ConvertTask(clips / "long.mkv", tmp_path / "b.mkv", progress=stop_at_100)
    inner.start()
    assert inner.wait(timeout=30)
    report = inner.stop()
    assert report is not None and 100 <= report.packets_read < 1500 and report.trailer_written


def test_no_task_left_after_garbage_collection(clips: Path, tmp_path: Path) -> None:
    threads = os_threads()
    for family, make in [("convert", lambda p: q.ConvertTask(clips / "long.mkv", tmp_path / "c.mkv", progress=p)),
                         ("extract", lambda p: q.ExtractTask(clips / "long.mkv", [tmp_path / "e.mkv"], progress=p)),
                         ("mux", lambda p: q.MuxTask([clips / "long.mkv"], tmp_path / "m.mkv", progress=p)),
                         ("concat", lambda p: q.ConcatTask([clips / "long.mkv"], tmp_path / "j.mkv", progress=p))]:
        started = threading.Event()
        task = make(lambda *_: started.set()).start()
        assert started.wait(30)
        task.pause()
        assert os_threads(threads + 1) == threads + 1, family
        del task
        gc.collect()
        assert os_threads(threads) == threads, family
    for name in "cemj":
        assert probe(tmp_path / f"{name}.mkv").startswith("video:")  # each got its trailer
