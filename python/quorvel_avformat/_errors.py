# SPDX-License-Identifier: MIT
"""The library's failure codes as Python exceptions."""

from __future__ import annotations

import os

from . import _lib

#: The failure codes of the header: code -> (name, what it means). Used for
#: the names and texts when the library has no AVFormat_GetErrorName/-Text.
CODES: dict[int, tuple[str, str]] = {
    0x80D0002: ("ERROR_AVFORMAT_CONVERT_MALLOC", "Conversion: task, I/O buffer, format context or stream map not allocated."),
    0x80D0010: ("ERROR_AVFORMAT_CONVERT_PARAMETER", "Conversion: null task handle, or a call out of order."),
    0x80D0011: ("ERROR_AVFORMAT_CONVERT_OPEN", "Conversion: the input could not be opened, or the output file not opened for writing."),
    0x80D0012: ("ERROR_AVFORMAT_CONVERT_STREAMINFO", "Conversion: the input's streams could not be analysed."),
    0x80D0021: ("ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT", "Conversion: no output container for that name (unknown format or file extension)."),
    0x80D0032: ("ERROR_AVFORMAT_CONVERT_NEWSTREAM", "Conversion: an output stream could not be created."),
    0x80D0033: ("ERROR_AVFORMAT_CONVERT_CODECPAR", "Conversion: codec parameters could not be copied into an output stream."),
    0x80D0034: ("ERROR_AVFORMAT_CONVERT_WRITEHEADER", "Conversion: the output container refused its header (streams it can't hold, no streams, ...)."),
    0x80D0035: ("ERROR_AVFORMAT_CONVERT_THREAD", "Conversion: the worker thread could not be started."),
    0x80D0040: ("ERROR_AVFORMAT_CONVERT_STATUS", "Conversion: GetStatus was given no place for the status."),
    0x80D0061: ("ERROR_AVFORMAT_CONVERT_SEEK", "Conversion: the input could not seek there."),
    0x80D1001: ("ERROR_AVFORMAT_PACKET_MALLOC", "Multiplexing and demultiplexing: an allocation failed."),
    0x80D1002: ("ERROR_AVFORMAT_PACKET_PARAMETER", "Multiplexing and demultiplexing (and concatenation's GetStatus, Suspend): null task handle, a required pointer is null, an index out of range, or a call out of order."),
    0x80D1003: ("ERROR_AVFORMAT_PACKET_READ", "Demultiplexing Read: no further packet (end of input or read error)."),
    0x80D1004: ("ERROR_AVFORMAT_PACKET_OPEN", "An input could not be opened, or an output file not opened for writing."),
    0x80D1005: ("ERROR_AVFORMAT_PACKET_OUTPUTFORMAT", "No output container for that name (unknown format or file extension)."),
    0x80D1006: ("ERROR_AVFORMAT_PACKET_CODECPAR", "Codec parameters could not be copied into a new output stream."),
    0x80D1007: ("ERROR_AVFORMAT_PACKET_WRITEHEADER", "The output container refused its header."),
    0x80D1008: ("ERROR_AVFORMAT_PACKET_THREAD", "The worker could not be started, or the call is refused because the worker runs."),
    0x80D1009: ("ERROR_AVFORMAT_PACKET_STATUS", "GetStatus was given no place for the status."),
    0x80D1010: ("ERROR_AVFORMAT_PACKET_SEEK", "Demultiplexing Seek failed; GetAVCodec: null handle, no input, or no such stream."),
    0x80D1011: ("ERROR_AVFORMAT_PACKET_WRITEFRAME", "Multiplexing StreamWrite: the muxer refused the packet."),
    0x80D1012: ("ERROR_AVFORMAT_PACKET_BUFFERSIZE", "Demultiplexing AVFormat_UNPack_ReadSized: the packet is larger than the buffer (its size is stored)."),
    0x80D2002: ("ERROR_AVFORMAT_LINK_MALLOC", "Concatenation: task or input list not allocated."),
    0x80D2003: ("ERROR_AVFORMAT_LINK_PARAMETER", "Concatenation: null task handle, null input file name, or a call out of order."),
    0x80D2004: ("ERROR_AVFORMAT_LINK_OPEN", "Concatenation: an input could not be opened, or the output file not opened for writing."),
    0x80D2005: ("ERROR_AVFORMAT_LINK_STREAMINFO", "Concatenation: an input's streams could not be analysed."),
    0x80D2006: ("ERROR_AVFORMAT_LINK_OUTPUTFORMAT", "Concatenation: no output container for that file name."),
    0x80D2007: ("ERROR_AVFORMAT_LINK_CODECPAR", "Concatenation: codec parameters could not be copied into an output stream."),
    0x80D2008: ("ERROR_AVFORMAT_LINK_WRITEHEADER", "Concatenation: the output container refused its header."),
    0x80D2009: ("ERROR_AVFORMAT_LINK_THREAD", "Concatenation: the worker thread could not be started."),
    0x80D0070: ("ERROR_AVFORMAT_CONVERT_OPTION", "Conversion SetOption: no such option for this family."),
    0x80D0071: ("ERROR_AVFORMAT_CONVERT_OPTION_VALUE", "Conversion SetOption: the option does not take that value."),
    0x80D0072: ("ERROR_AVFORMAT_CONVERT_OPTION_LATE", "Conversion SetOption: too late, the call that the option acts on was made."),
    0x80D0073: ("ERROR_AVFORMAT_CONVERT_OPTION_UNUSED", "Conversion Input or Start: FFmpeg did not use an input. or output. option."),
    0x80D0074: ("ERROR_AVFORMAT_CONVERT_POLICY", "Conversion Input: the strict policy refuses the input (a URL, a protocol, a demuxer)."),
    0x80D1013: ("ERROR_AVFORMAT_PACKET_OPTION", "Multiplexing and demultiplexing SetOption: no such option for this family."),
    0x80D1014: ("ERROR_AVFORMAT_PACKET_OPTION_VALUE", "Multiplexing and demultiplexing SetOption: the option does not take that value."),
    0x80D1015: ("ERROR_AVFORMAT_PACKET_OPTION_LATE", "Multiplexing and demultiplexing SetOption: too late, the call that the option acts on was made."),
    0x80D1016: ("ERROR_AVFORMAT_PACKET_OPTION_UNUSED", "Multiplexing and demultiplexing Input, Output or Start: FFmpeg did not use an input. or output. option."),
    0x80D1017: ("ERROR_AVFORMAT_PACKET_POLICY", "Multiplexing and demultiplexing Input: the strict policy refuses the input."),
    0x80D2010: ("ERROR_AVFORMAT_LINK_OPTION", "Concatenation SetOption: no such option for this family."),
    0x80D2011: ("ERROR_AVFORMAT_LINK_OPTION_VALUE", "Concatenation SetOption: the option does not take that value."),
    0x80D2012: ("ERROR_AVFORMAT_LINK_OPTION_LATE", "Concatenation SetOption: too late, the call that the option acts on was made."),
    0x80D2013: ("ERROR_AVFORMAT_LINK_OPTION_UNUSED", "Concatenation Input or Start: FFmpeg did not use an input. or output. option."),
    0x80D2014: ("ERROR_AVFORMAT_LINK_POLICY", "Concatenation Input: the strict policy refuses the input."),
}


class QuorvelError(Exception):
    """A call into the library failed.

    ``code`` is the library's failure code (an ERROR_AVFORMAT_* value; for a
    failed write, the negative AVERROR of the output's I/O), ``name`` its
    name and ``text`` the library's explanation of it.
    """

    def __init__(self, code: int, call: str = "", text: str | None = None) -> None:
        self.code = code
        self.call = call
        self.name = error_name(code)
        self.text = text if text is not None else error_text(code)
        where = f"{call}: " if call else ""
        super().__init__(f"{where}{self.name} (0x{code & 0xFFFFFFFFFFFFFFFF:X}): {self.text}")


class OpenError(QuorvelError):
    """An input or an output could not be opened."""


class PolicyError(OpenError):
    """The strict input policy refused an input."""


class FormatError(QuorvelError):
    """No container for that name, streams that could not be analysed or
    described, or a header that the container refused."""


class ParameterError(QuorvelError, ValueError):
    """A call out of order, a missing or out-of-range argument."""


class OptionError(ParameterError):
    """An option the family does not know, a value it does not take, an option
    set too late, or one that FFmpeg did not use."""


class ReadError(QuorvelError):
    """No further packet: the end of the input or a read error."""


class WriteError(QuorvelError):
    """The muxer refused a packet, or the output's I/O failed (``report`` then
    holds the task's report)."""

    report: object = None


class SeekError(QuorvelError):
    """The input could not seek there, or no such stream."""


class ResourceError(QuorvelError):
    """An allocation failed, or the worker thread could not be started."""


# The kind of a code, by the end of its name.
_KINDS: list[tuple[str, type[QuorvelError]]] = [
    ("_POLICY", PolicyError),
    ("_OPEN", OpenError),
    ("_OUTPUTFORMAT", FormatError),
    ("_STREAMINFO", FormatError),
    ("_NEWSTREAM", FormatError),
    ("_CODECPAR", FormatError),
    ("_WRITEHEADER", FormatError),
    ("_OPTION", OptionError),
    ("_OPTION_VALUE", OptionError),
    ("_OPTION_LATE", OptionError),
    ("_OPTION_UNUSED", OptionError),
    ("_PARAMETER", ParameterError),
    ("_STATUS", ParameterError),
    ("_BUFFERSIZE", ParameterError),
    ("_READ", ReadError),
    ("_WRITEFRAME", WriteError),
    ("_SEEK", SeekError),
    ("_MALLOC", ResourceError),
    ("_THREAD", ResourceError),
]


def _from_library(function: str, code: int) -> str | None:
    if function not in _lib.present:
        return None
    text = getattr(_lib.lib, function)(code)
    return text.decode("utf-8", "replace") if text else None


def error_name(code: int) -> str:
    """The name of a failure code ("ERROR_AVFORMAT_CONVERT_OPEN"), or of an AVERROR value."""
    if code < 0:
        return f"AVERROR({-code})"
    return _from_library("AVFormat_GetErrorName", code) or CODES.get(code, (f"0x{code:X}", ""))[0]


def error_text(code: int) -> str:
    """What a failure code means."""
    if code < 0:
        return os.strerror(-code) if -code < 4096 else "FFmpeg error"
    return _from_library("AVFormat_GetErrorText", code) or CODES.get(code, ("", "unknown failure code"))[1]


def error_class(code: int) -> type[QuorvelError]:
    name = error_name(code)
    for suffix, kind in _KINDS:
        if name.endswith(suffix):
            return kind
    return QuorvelError


def last_error(call: str) -> QuorvelError:
    """The exception for the failure that the last call into the library stored."""
    code = _lib.lib.AVFormat_GetLastError(None)
    return error_class(code)(code, call)
