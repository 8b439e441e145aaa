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
        if _lib.avcodec is None:
            return "unknown"
        return (_lib.avcodec.avcodec_get_name(self.codec_id) or b"unknown").decode()

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


class Packet:
    """One packet: its stream, bytes and times (``None`` where unknown), in
    ticks of ``time_base``."""

    __slots__ = ("stream", "data", "_pts", "_dts", "duration", "time_base", "flags")

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
        self.stream, self.data, self.duration, self.time_base = stream, bytes(data), duration, time_base
        self._pts = _NOPTS if pts is None else pts
        self._dts = _NOPTS if dts is None else dts
        self.flags = _lib.PKT_FLAG_KEY if is_keyframe else 0

    @property
    def pts(self) -> int | None:
        return None if self._pts == _NOPTS else self._pts

    @property
    def dts(self) -> int | None:
        return None if self._dts == _NOPTS else self._dts

    @property
    def pts_time(self) -> float | None:
        """The presentation time in seconds."""
        return None if self._pts == _NOPTS else float(self._pts * self.time_base)

    @property
    def stream_index(self) -> int:
        return self.stream if isinstance(self.stream, int) else self.stream.index

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


# What one ReadSized call fills: the packet's info (pts, dts, duration), its
# time base, stream index, size and flags, in one record that one unpack reads.
_META = struct.Struct("=qqqiiiii")
_INFO, _TIME_BASE, _STREAM, _SIZE, _FLAGS = 0, 24, 32, 36, 40


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
        read, last_error_code = _lib.lib.AVFormat_UNPack_ReadSized, _lib.lib.AVFormat_GetLastError
        unpack, string_at, new = _META.unpack_from, ctypes.string_at, Packet.__new__
        streams, fractions = self.streams, {}
        meta = self._meta
        base = ctypes.addressof(meta)
        info, time_base, stream, size, flags = (base + offset for offset in (_INFO, _TIME_BASE, _STREAM, _SIZE, _FLAGS))
        state = self._state
        buffer = self._buffer
        data, capacity = ctypes.addressof(buffer), len(buffer)
        while True:
            handle = state.handle
            if handle is None:
                return
            if read(handle, stream, data, capacity, size, flags, info, time_base):
                pts, dts, duration, num, den, index, length, packet_flags = unpack(meta)
                packet = new(Packet)
                packet.stream = streams[index] if index < len(streams) else index
                packet.data = string_at(data, length)
                packet._pts, packet._dts, packet.duration, packet.flags = pts, dts, duration, packet_flags
                key = num << 32 | den
                fraction = fractions.get(key)
                if fraction is None:
                    fraction = fractions[key] = Fraction(num, den or 1)
                packet.time_base = fraction
                yield packet
                continue
            code = last_error_code(None)
            if code == _ERROR_READ:
                return
            if code != _ERROR_BUFFERSIZE:
                raise error_class(code)(code, "AVFormat_UNPack_ReadSized")
            # The packet is kept by the library: grow to its size and read it again.
            self._buffer = buffer = ctypes.create_string_buffer(max(_META.unpack_from(meta)[6], 2 * capacity))
            data, capacity = ctypes.addressof(buffer), len(buffer)

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
        time_base = packet.time_base
        meta = self._meta
        _META.pack_into(
            meta, 0, packet._pts, packet._dts, packet.duration, time_base.numerator, time_base.denominator, 0, 0, 0
        )
        base = ctypes.addressof(meta)
        data = packet.data
        handle = self._state.handle
        if handle is None:
            raise ParameterError(0, "AVFormat_Packet_StreamWrite", "the muxer has been closed")
        if not _lib.lib.AVFormat_Packet_StreamWrite(handle, index, data, len(data), base + _TIME_BASE, base + _INFO):
            raise last_error("AVFormat_Packet_StreamWrite")

    def close(self) -> Any:
        """Writes the trailer and releases the output; returns the task's report."""
        return self.stop()
