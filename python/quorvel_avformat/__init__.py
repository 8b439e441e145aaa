# SPDX-License-Identifier: MIT
"""libQuorvel_AVFormat from Python: container-level media operations (remux,
demux, mux, concat) without re-encoding, through ctypes and nothing else.

Everyday jobs are one call each (:func:`convert`, :func:`extract`, :func:`mux`,
:func:`concat`); the task classes give control over a running job; Demuxer and
Muxer work packet by packet. Sources and destinations are paths or binary file
objects. The library is found through QUORVEL_AVFORMAT_LIBRARY, else its
installed soname.
"""

from __future__ import annotations

from . import _lib
from ._errors import (
    FormatError,
    OpenError,
    OptionError,
    ParameterError,
    PolicyError,
    QuorvelError,
    ReadError,
    ResourceError,
    SeekError,
    WriteError,
    error_name,
    error_text,
)
from .packets import CodecParameters, Demuxer, Muxer, OutputStream, Packet, Stream
from .tasks import ConcatTask, ConvertTask, ExtractTask, MuxTask, Task, TaskReport, concat, convert, extract, mux

__version__ = "0.1.0"


def library_version() -> int | None:
    """The loaded library's version number as AVFormat_GetVersion() gives it,
    or None for a library that does not report it."""
    if "AVFormat_GetVersion" not in _lib.present:
        return None
    return int(_lib.lib.AVFormat_GetVersion())


__all__ = [
    "CodecParameters", "ConcatTask", "ConvertTask", "Demuxer", "ExtractTask", "FormatError", "MuxTask", "Muxer",
    "OpenError", "OptionError", "OutputStream", "Packet", "ParameterError", "PolicyError", "QuorvelError",
    "ReadError", "ResourceError", "SeekError", "Stream", "Task", "TaskReport", "WriteError", "concat", "convert",
    "error_name", "error_text", "extract", "library_version", "mux",
]
