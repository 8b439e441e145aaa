# SPDX-License-Identifier: MIT
"""The packet road: Demuxer's streams and packets against ffprobe, and Demuxer -> Muxer reproducing a file."""

from __future__ import annotations

import ctypes
import io
from fractions import Fraction
from pathlib import Path

import pytest

import quorvel_avformat as q
from conftest import probe_packets


def test_streams_and_packets_match_ffprobe(clips: Path) -> None:
    with q.Demuxer(clips / "av.mkv") as demuxer:
        assert [(s.index, s.type, s.codec_name, s.time_base) for s in demuxer.streams] == [
            (0, "video", "mpeg4", Fraction(1, 1000)), (1, "audio", "aac", Fraction(1, 1000))]
        demuxer._buffer = ctypes.create_string_buffer(16)  # grown on the first larger packet, which is kept
        packets = list(demuxer)
    expected = probe_packets(clips / "av.mkv")
    assert [(p.stream.index, p.pts, p.dts, p.size, p.is_keyframe) for p in packets] == [
        (stream, pts, dts, size, "K" in flags) for stream, pts, dts, size, flags in expected]
    first = packets[0]
    assert first.pts_time == first.pts / 1000 and isinstance(first.data, bytes) and first.time_base == Fraction(1, 1000)


def test_seek_lands_on_a_key_frame(clips: Path) -> None:
    with q.Demuxer(clips / "long.mkv") as demuxer:
        demuxer.seek(30_000, demuxer.streams[0])
        first = next(demuxer.packets())
        assert first.is_keyframe and 29.0 <= first.pts_time <= 30.0
        demuxer.seek(10_000_000)  # microseconds
        packets = iter(demuxer)
        assert next(packets).pts_time == pytest.approx(10.0, abs=1.0)
        demuxer.close()  # a loop over a closed demuxer ends
        assert list(packets) == [] and demuxer._state.copies == []


@pytest.mark.parametrize("source", ["path", "file object"])
def test_demux_to_mux_reproduces_the_packets(clips: Path, tmp_path: Path, source: str) -> None:
    src = clips / "av.mkv" if source == "path" else io.BytesIO((clips / "av.mkv").read_bytes())
    with q.Demuxer(src) as demuxer, q.Muxer(tmp_path / "copy.mkv") as muxer:
        for stream in demuxer.streams:
            muxer.add_stream(stream)
        for packet in demuxer.packets():
            muxer.write(packet)
    key = lambda packets: [(stream, pts, dts, size) for stream, pts, dts, size, _ in packets]  # noqa: E731
    assert key(probe_packets(tmp_path / "copy.mkv")) == key(probe_packets(clips / "av.mkv"))


def test_muxer_to_a_file_object_from_bare_parameters(clips: Path, tmp_path: Path) -> None:
    out = io.BytesIO()
    with q.Demuxer(clips / "audio.mka") as demuxer, q.Muxer(out, format="matroska") as muxer:
        stream = muxer.add_stream(demuxer.streams[0].codec_parameters, Fraction(1, 1000))
        for packet in demuxer:
            muxer.write(q.Packet(packet.data, pts=packet.pts, dts=packet.dts, duration=packet.duration,
                                 time_base=packet.time_base), stream)
    (tmp_path / "a.mka").write_bytes(out.getvalue())
    assert len(probe_packets(tmp_path / "a.mka")) == 88


def test_codec_parameters_die_with_their_demuxer(clips: Path, tmp_path: Path) -> None:
    demuxer = q.Demuxer(clips / "av.mkv")
    stream = demuxer.streams[0]
    demuxer.close()
    with q.Muxer(tmp_path / "x.mkv") as muxer, pytest.raises(q.ParameterError):
        muxer.add_stream(stream)
