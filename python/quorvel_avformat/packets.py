# SPDX-License-Identifier: MIT
"""Packet-level work: Demuxer hands out an input's packets, Muxer writes packets
into a new container. Neither starts a worker thread."""

from __future__ import annotations

import ctypes
import struct
from fractions import Fraction
from typing import Any, Iterator, Mapping

from . import _lib
from ._bridge import Destination, Source
from ._errors import ParameterError, error_class, last_error
from .tasks import MEDIA_TYPES, Task, _seconds

_NOPTS = _lib.NOPTS
_ERROR_READ = 0x80D1003
_ERROR_BUFFERSIZE = 0x80D1012


class CodecParameters:
    """An input stream's codec parameters (FFmpeg's AVCodecParameters), opaque:
    good for :meth:`Muxer.add_stream` while its demuxer is open."""

    __slots__ = ("_address", "_demuxer", "type", "codec_id", "__weakref__")

    def __init__(self, address: int, demuxer: "Demuxer") -> None:
        self._address, self._demuxer = address, demuxer
        # codec_type and codec_id lead the record in every FFmpeg version.
        media, self.codec_id = struct.unpack("ii", ctypes.string_at(address, 8))
        self.type = MEDIA_TYPES.get(media, "unknown")

    @property
    def address(self) -> int:
        if self._demuxer._state.handle is None:
            raise ParameterError(0, "codec parameters", "their demuxer has been closed")
        return self._address

    @property
    def name(self) -> str:
        avcodec = _lib.avcodec()
        if avcodec is None:
            return "unknown"
        return (avcodec.avcodec_get_name(self.codec_id) or b"unknown").decode()

    def __del__(self) -> None:
        _lib.libc_free(self._address)  # a shallow copy: free() alone, never avcodec_parameters_free()


class Stream:
    """One stream of a demuxer's input."""

    __slots__ = ("index", "codec_parameters", "time_base")

    def __init__(self, index: int, codec_parameters: CodecParameters, time_base: Fraction) -> None:
        self.index, self.codec_parameters, self.time_base = index, codec_parameters, time_base

    @property
    def type(self) -> str:
        """'video', 'audio', 'subtitle', 'data', 'attachment' or 'unknown'."""
        return self.codec_parameters.type

    @property
    def codec_name(self) -> str:
        return self.codec_parameters.name

    def __repr__(self) -> str:
        return f"<Stream {self.index} {self.type} {self.codec_name} time_base={self.time_base}>"


# What one ReadSized call fills beside the packet's bytes, in one record: the
# packet's info (pts, dts, duration), its time base, stream index, size and
# flags. A Packet keeps a copy of it and unpacks a field when it is asked for.
_META = struct.Struct("=qqqiiiiii")
_INFO, _TIME_BASE, _STREAM, _SIZE, _FLAGS = 0, 24, 32, 36, 40
# One field at a time: a one-item unpack costs a third less than the whole record's.
_INT64, _INT32_PAIR = struct.Struct("=q").unpack_from, struct.Struct("=ii").unpack_from
_INT32 = struct.Struct("=i").unpack_from
_time_bases: dict[tuple[int, int], Fraction] = {}


def _fraction(num: int, den: int) -> Fraction:
    fraction = _time_bases.get((num, den))
    if fraction is None:
        fraction = _time_bases[num, den] = Fraction(num, den or 1)
    return fraction


class Packet:
    """One packet: its stream, bytes and times (``None`` where unknown), in
    ticks of ``time_base``."""

    __slots__ = ("stream", "data", "_meta")

    def __init__(
        self,
        data: bytes,
        *,
        stream: Stream | int = 0,
        pts: int | None = None,
        dts: int | None = None,
        duration: int = 0,
        time_base: Fraction = Fraction(1, 1000),
        is_keyframe: bool = False,
    ) -> None:
        self.stream, self.data = stream, bytes(data)
        time_base = Fraction(time_base)
        self._meta = _META.pack(
            _NOPTS if pts is None else pts, _NOPTS if dts is None else dts, duration,
            time_base.numerator, time_base.denominator, 0, len(data), _lib.PKT_FLAG_KEY if is_keyframe else 0, 0,
        )

    @property
    def pts(self) -> int | None:
        pts = _INT64(self._meta)[0]
        return None if pts == _NOPTS else pts

    @property
    def dts(self) -> int | None:
        dts = _INT64(self._meta, 8)[0]
        return None if dts == _NOPTS else dts

    @property
    def duration(self) -> int:
        return _INT64(self._meta, _INFO + 16)[0]

    @property
    def time_base(self) -> Fraction:
        return _fraction(*_INT32_PAIR(self._meta, _TIME_BASE))

    @property
    def pts_time(self) -> float | None:
        """The presentation time in seconds."""
        pts = self.pts
        return None if pts is None else float(pts * self.time_base)

    @property
    def stream_index(self) -> int:
        return self.stream if isinstance(self.stream, int) else self.stream.index

    @property
    def flags(self) -> int:
        return _INT32(self._meta, _FLAGS)[0]

    @property
    def is_keyframe(self) -> bool:
        return bool(self.flags & _lib.PKT_FLAG_KEY)

    @property
    def is_corrupt(self) -> bool:
        return bool(self.flags & _lib.PKT_FLAG_CORRUPT)

    @property
    def is_discard(self) -> bool:
        return bool(self.flags & _lib.PKT_FLAG_DISCARD)

    @property
    def size(self) -> int:
        return len(self.data)

    def __repr__(self) -> str:
        return (
            f"<Packet stream={self.stream_index} size={len(self.data)} pts={self.pts} dts={self.dts} "
            f"duration={self.duration} time_base={self.time_base}{' key' if self.is_keyframe else ''}>"
        )


class Demuxer(Task):
    """Reads an input's packets one by one (no worker thread)::

        with Demuxer("in.mkv") as demuxer:
            for packet in demuxer.packets():
                ...
    """

    _family = "UNPack"

    def __init__(
        self, src: Source, *, options: Mapping[str, object] | None = None, mode: str | None = "practical"
    ) -> None:
        self._src = src
        super().__init__(mode=mode, options=options, progress=None)

    def _setup(self) -> None:
        self._call("Input", *self._source(self._src), None)
        self.streams: list[Stream] = []
        address, time_base = ctypes.c_void_p(), _lib.TimeBase()
        get = _lib.lib.AVFormat_UNPack_GetAVCodec
        while get(self._state.handle, len(self.streams), ctypes.byref(address), ctypes.byref(time_base)):
            parameters = CodecParameters(address.value or 0, self)
            self.streams.append(Stream(len(self.streams), parameters, Fraction(time_base.num, time_base.den or 1)))
        self._meta = ctypes.create_string_buffer(_META.size)
        self._buffer = ctypes.create_string_buffer(64 * 1024)

    def close(self) -> None:
        self.stop()

    def seek(self, timestamp: int, stream: Stream | int = -1) -> None:
        """Moves back to the key frame at or before ``timestamp``, in ticks of
        the stream's time base (stream -1: microseconds)."""
        index = stream if isinstance(stream, int) else stream.index
        self._call("Seek", index, timestamp)

    def packets(self) -> Iterator[Packet]:
        """Every packet of the input from the current position, in the input's order."""
        # One ReadSized per packet into one reused record and buffer, whose
        # addresses are made into ctypes objects once; a packet costs the call,
        # two copies (its record and its bytes, by slicing: ctypes.string_at is
        # a foreign call of its own, four times slower) and one object.
        read, new, meta = _lib.untyped("AVFormat_UNPack_ReadSized"), Packet.__new__, self._meta
        streams, count, state = self.streams, len(self.streams), self._state
        base = ctypes.addressof(self._meta)
        stream, size = ctypes.c_int.from_address(base + _STREAM), ctypes.c_int.from_address(base + _SIZE)
        handle = ctypes.c_void_p(state.handle)
        state.copies.append(handle)
        pointers = [ctypes.c_void_p(base + offset) for offset in (_STREAM, _SIZE, _FLAGS, _INFO, _TIME_BASE)]
        try:
            while True:
                buffer = self._buffer
                data, capacity = ctypes.addressof(buffer), ctypes.c_int(len(buffer))
                arguments = (handle, pointers[0], ctypes.c_void_p(data), capacity, *pointers[1:])
                while read(*arguments):
                    packet = new(Packet)
                    index = stream.value
                    packet.stream = streams[index] if index < count else index
                    packet.data = buffer[: size.value]
                    packet._meta = meta.raw
                    yield packet
                if state.handle is None:
                    return
                code = _lib.lib.AVFormat_GetLastError(None)
                if code == _ERROR_READ:
                    return
                if code != _ERROR_BUFFERSIZE:
                    raise error_class(code)(code, "AVFormat_UNPack_ReadSized")
                # The packet is kept by the library: grow to its size and read it again.
                self._buffer = ctypes.create_string_buffer(max(size.value, 2 * capacity.value))
        finally:
            state.copies.remove(handle)

    def __iter__(self) -> Iterator[Packet]:
        return self.packets()


class OutputStream:
    """A stream of a Muxer: its index and the time base its packets are counted in."""

    __slots__ = ("index", "time_base")

    def __init__(self, index: int, time_base: Fraction) -> None:
        self.index, self.time_base = index, time_base


class Muxer(Task):
    """Writes packets into a new container (no worker thread)::

        with Demuxer("in.mkv") as demuxer, Muxer("out.mkv") as muxer:
            for stream in demuxer.streams:
                muxer.add_stream(stream)
            for packet in demuxer.packets():
                muxer.write(packet)

    The first write writes the container's header; ``close()`` (or leaving the
    ``with`` block) writes its trailer.
    """

    _family = "Packet"

    def __init__(
        self,
        dst: Destination,
        *,
        format: str | None = None,
        options: Mapping[str, object] | None = None,
        mode: str | None = "practical",
    ) -> None:
        self._dst, self._format = dst, format
        super().__init__(mode=mode, options=options, progress=None)

    def _setup(self) -> None:
        name, write = self._destination(self._dst, self._format)
        self._call("Output", name, _seconds(None), _seconds(None), write, None)
        self.streams: list[OutputStream] = []
        self._by_input: dict[int, OutputStream] = {}
        self._meta = ctypes.create_string_buffer(_META.size)
        base = ctypes.addressof(self._meta)
        self._pointers = (ctypes.c_void_p(base + _TIME_BASE), ctypes.c_void_p(base + _INFO))
        self._write = _lib.untyped("AVFormat_Packet_StreamWrite")

    def add_stream(self, codec_parameters: CodecParameters | Stream, time_base: Fraction | None = None) -> OutputStream:
        """Adds an output stream described by an input stream (or its codec
        parameters, with the time base its packets will come in)."""
        source = codec_parameters if isinstance(codec_parameters, Stream) else None
        parameters = source.codec_parameters if source is not None else codec_parameters
        if time_base is None:
            if source is None:
                raise ValueError("time_base is needed with bare codec parameters")
            time_base = source.time_base
        self._call("StreamCreate", parameters.address)
        stream = OutputStream(len(self.streams), Fraction(time_base))
        self.streams.append(stream)
        if source is not None:
            self._by_input[id(source)] = stream
        return stream

    def write(self, packet: Packet, stream: OutputStream | int | None = None) -> None:
        """Writes one packet: into ``stream``, else the output stream added for
        the packet's input stream, else the stream of the packet's index."""
        if stream is None:
            found = self._by_input.get(id(packet.stream))
            index = found.index if found is not None else packet.stream_index
        else:
            index = stream if isinstance(stream, int) else stream.index
        handle = self._state.handle
        if handle is None:
            raise ParameterError(0, "AVFormat_Packet_StreamWrite", "the muxer has been closed")
        ctypes.memmove(self._meta, packet._meta, 32)  # the packet's info and time base
        data = packet.data
        if not self._write(ctypes.c_void_p(handle), index, data, len(data), *self._pointers):
            raise last_error("AVFormat_Packet_StreamWrite")

    def close(self) -> Any:
        """Writes the trailer and releases the output; returns the task's report."""
        return self.stop()
