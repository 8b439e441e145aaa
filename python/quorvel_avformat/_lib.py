# SPDX-License-Identifier: MIT
"""Loading libQuorvel_AVFormat and declaring its C interface for ctypes.

Every function of the public header is declared here with its exact argument
and result types, and every record is laid out field by field; the record
sizes are checked against the sizes that the header asserts when the package
is imported.
"""

from __future__ import annotations

import ctypes
import functools
import os
from typing import Any, Iterator
from ctypes import (
    CFUNCTYPE,
    POINTER,
    Structure,
    c_bool,
    c_char,
    c_char_p,
    c_double,
    c_int,
    c_int32,
    c_int64,
    c_longlong,
    c_ubyte,
    c_uint,
    c_uint32,
    c_uint64,
    c_ulonglong,
    c_void_p,
)

ENVIRONMENT_VARIABLE = "QUORVEL_AVFORMAT_LIBRARY"
SONAME = "libQuorvel_AVFormat.so.0"

#: FFmpeg's AVERROR_EOF, which a read function returns at the end of its input.
IO_EOF = -541478725
#: FFmpeg's AV_NOPTS_VALUE: an unknown time.
NOPTS = -(2**63)
PKT_FLAG_KEY, PKT_FLAG_CORRUPT, PKT_FLAG_DISCARD = 1, 2, 4


class TimeBase(Structure):
    """AVCODEC_TIMEBASE: one tick lasts num/den seconds."""

    _fields_ = [("num", c_int32), ("den", c_int32)]


class PacketInfo(Structure):
    """AVCODEC_PACKETINFO: a packet's times, in ticks of the time base beside it."""

    _fields_ = [("pts", c_int64), ("dts", c_int64), ("duration", c_int64)]


#: int (*)(void* context, unsigned char* buffer, int size); the buffer comes as an address.
IO_FUNCTION = CFUNCTYPE(c_int, c_void_p, c_void_p, c_int)
#: void (*)(void* reserved, int type, long long number, double seconds, void* context)
PROGRESS_CALLBACK = CFUNCTYPE(None, c_void_p, c_int, c_longlong, c_double, c_void_p)
#: The null function pointers: no progress calls, no caller I/O.
NO_IO, NO_PROGRESS = IO_FUNCTION(), PROGRESS_CALLBACK()


class FormatInfo(Structure):
    """AVCODEC_FORMATINFO: one output of a demultiplexing task."""

    _fields_ = [
        ("szName", c_char * 264),
        ("dlStartTime", c_double),
        ("dlEndTime", c_double),
        ("nStreamIndex", c_int32),
        ("nReserved", c_int32),
        ("pWriteFunc", IO_FUNCTION),
        ("pWriteContext", c_void_p),
    ]


class TaskReportRecord(Structure):
    """AVFORMAT_TASK_REPORT: what a task has done so far."""

    _fields_ = [
        ("dwSize", c_uint32),
        ("nWriteError", c_int32),
        ("llPacketsRead", c_int64),
        ("llPacketsWritten", c_int64),
        ("llPacketsRefused", c_int64),
        ("llBytesWritten", c_int64),
        ("bTrailerWritten", c_int32),
        ("nTrailerResult", c_int32),
    ]


#: The sizes that the header asserts for its records.
RECORD_SIZES = {TimeBase: 8, PacketInfo: 24, FormatInfo: 304, TaskReportRecord: 48}

_task, _p = c_void_p, POINTER
_report = _p(TaskReportRecord)
_per_family = {
    "GetReport": (c_bool, [_task, _report]),
    "StopWithReport": (c_bool, [_task, _report]),
    "SetOption": (c_bool, [_task, c_char_p, c_char_p]),
    "Init": (c_void_p, [PROGRESS_CALLBACK, c_void_p]),
    "Start": (c_bool, [_task]),
    "Suspend": (c_bool, [_task, c_bool]),
    "GetStatus": (c_bool, [_task, _p(c_bool)]),
    "Stop": (c_bool, [_task]),
}
#: Every function of the header: name -> (result type, argument types).
FUNCTIONS: dict[str, tuple[object, list[object]]] = {
    f"AVFormat_{family}_{op}": signature
    for family in ("Convert", "UNPack", "Packet", "Link")
    for op, signature in _per_family.items()
}
FUNCTIONS.update(
    {
        "AVFormat_GetLastError": (c_uint64, [_p(c_int)]),
        "AVFormat_Convert_Output": (c_bool, [_task, c_char_p, c_double, c_double, IO_FUNCTION, c_void_p]),
        "AVFormat_Convert_Input": (c_bool, [_task, c_char_p, IO_FUNCTION, c_void_p]),
        "AVFormat_Convert_Seek": (c_bool, [_task, c_longlong]),
        "AVFormat_UNPack_Input": (c_bool, [_task, c_char_p, IO_FUNCTION, c_void_p]),
        "AVFormat_UNPack_Output": (c_bool, [_task, _p(_p(_p(FormatInfo))), c_int]),
        "AVFormat_UNPack_Read": (c_bool, [_task, _p(c_int), _p(c_ubyte), _p(c_int), _p(PacketInfo), _p(TimeBase)]),
        "AVFormat_UNPack_ReadSized": (
            c_bool,
            [_task, _p(c_int), _p(c_ubyte), c_int, _p(c_int), _p(c_int), _p(PacketInfo), _p(TimeBase)],
        ),
        "AVFormat_UNPack_Seek": (c_bool, [_task, c_int, c_ulonglong]),
        "AVFormat_UNPack_GetAVCodec": (c_bool, [_task, c_int, _p(c_void_p), _p(TimeBase)]),
        "AVFormat_Packet_Output": (c_bool, [_task, c_char_p, c_double, c_double, IO_FUNCTION, c_void_p]),
        "AVFormat_Packet_Input": (c_bool, [_task, c_char_p, IO_FUNCTION, c_void_p]),
        "AVFormat_Packet_StreamCreate": (c_bool, [_task, c_void_p]),
        "AVFormat_Packet_StreamWrite": (c_bool, [_task, c_int, _p(c_ubyte), c_int, _p(TimeBase), _p(PacketInfo)]),
        "AVFormat_Link_Output": (c_bool, [_task, c_char_p]),
        "AVFormat_Link_Input": (c_bool, [_task, c_char_p, c_double, c_double, c_int, c_int]),
    }
)
#: Functions that a library built before them lacks; the package then does without.
OPTIONAL_FUNCTIONS = {
    "AVFormat_GetErrorName": (c_char_p, [c_uint64]),
    "AVFormat_GetErrorText": (c_char_p, [c_uint64]),
    "AVFormat_GetVersion": (c_uint, []),
}
#: Exported variables: the error state.
VARIABLES = {"AVForamt_IsErrorOccur": c_bool, "AVForamt_dwErrorCode": c_uint64}


def _candidates() -> Iterator[str]:
    given = os.environ.get(ENVIRONMENT_VARIABLE)
    if given:
        yield given
        return
    yield SONAME
    # find_library runs ldconfig (and a compiler): only when the soname did not load
    import ctypes.util

    found = ctypes.util.find_library("Quorvel_AVFormat")
    if found and found != SONAME:
        yield found


def load() -> ctypes.CDLL:
    """Loads the library: the path in QUORVEL_AVFORMAT_LIBRARY, else the installed soname."""
    tried = []
    for name in _candidates():
        try:
            return ctypes.CDLL(name)
        except OSError as error:
            tried.append(f"  {name}: {error}")
    how = (
        f"the path in {ENVIRONMENT_VARIABLE}"
        if os.environ.get(ENVIRONMENT_VARIABLE)
        else f"the installed {SONAME} (set {ENVIRONMENT_VARIABLE} to a built libQuorvel_AVFormat.so to use another)"
    )
    raise ImportError("quorvel_avformat: could not load libQuorvel_AVFormat from " + how + ":\n" + "\n".join(tried))


def check_records() -> None:
    for record, size in RECORD_SIZES.items():
        if ctypes.sizeof(record) != size:
            raise ImportError(f"quorvel_avformat: {record.__name__} is {ctypes.sizeof(record)} bytes, the header's {size}")


def declare(lib: ctypes.CDLL) -> set[str]:
    """Sets the types of every function; returns the optional functions the library has."""
    present = set()
    for table, required in ((FUNCTIONS, True), (OPTIONAL_FUNCTIONS, False)):
        for name, (result, arguments) in table.items():
            if not required and not hasattr(lib, name):
                continue
            function = getattr(lib, name)
            function.restype, function.argtypes = result, arguments
            present.add(name)
    return present


check_records()
lib = load()
present = declare(lib)
is_error_occur = c_bool.in_dll(lib, "AVForamt_IsErrorOccur")
error_code = c_uint64.in_dll(lib, "AVForamt_dwErrorCode")
#: The C library's free(), for the codec-parameter copies that GetAVCodec hands out.
def untyped(name: str) -> Any:
    """A second handle on a function, without argument types: for the per-packet
    calls, whose arguments are ctypes objects made once (no conversion per call,
    which halves ctypes' cost of an eight-argument call)."""
    function = lib._FuncPtr((name, lib))
    function.restype = FUNCTIONS[name][0]
    return function


libc_free = ctypes.CDLL(None).free
libc_free.argtypes, libc_free.restype = [c_void_p], None


def _loaded_avcodec() -> Iterator[str]:
    """The libavcodec that the library itself loaded, else the system's."""
    try:
        with open("/proc/self/maps", encoding="utf-8", errors="replace") as maps:
            yield from dict.fromkeys(line.split(None, 5)[-1].strip() for line in maps if "libavcodec.so" in line)
    except OSError:
        pass
    import ctypes.util

    found = ctypes.util.find_library("avcodec")
    if found:
        yield found


@functools.cache
def avcodec() -> ctypes.CDLL | None:
    """libavcodec, for codec names; looked for on first use."""
    for path in _loaded_avcodec():
        try:
            library = ctypes.CDLL(path)
        except OSError:
            continue
        library.avcodec_get_name.restype, library.avcodec_get_name.argtypes = c_char_p, [c_int]
        return library
    return None
