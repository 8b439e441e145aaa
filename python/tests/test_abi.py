# SPDX-License-Identifier: MIT
"""The package's declarations against the public header."""

from __future__ import annotations

import ctypes
import re
from pathlib import Path

import quorvel_avformat as q
from quorvel_avformat import _errors, _lib

HEADER = (Path(__file__).resolve().parents[2] / "include" / "Quorvel_AVFormat.h").read_text()


def header_functions() -> dict[str, int]:
    """Every exported function of the header and its number of arguments."""
    found = {}
    for declaration in re.findall(r"^QUORVEL_AVFORMAT_API ([^;]*);", HEADER, re.M):
        name, arguments = re.match(r".*?(\w+)\((.*)\)$", " ".join(declaration.split())).groups()
        found[name] = 0 if arguments.strip() in ("", "void") else arguments.count(",") + 1
    return found


def test_every_function_declared_with_its_argument_count() -> None:
    functions = header_functions()
    declared = {**_lib.FUNCTIONS, **_lib.OPTIONAL_FUNCTIONS}
    assert len(functions) > 40
    assert set(functions) - set(_lib.OPTIONAL_FUNCTIONS) == set(_lib.FUNCTIONS)
    assert functions == {name: len(declared[name][1]) for name in functions}
    exported = set(re.findall(r"extern QUORVEL_AVFORMAT_API \w+ (\w+);", HEADER))
    assert exported == set(_lib.VARIABLES)


def test_record_sizes_and_offsets_match_the_header() -> None:
    records = {record.__name__: record for record in _lib.RECORD_SIZES}
    by_c_name = {"AVCODEC_TIMEBASE": "TimeBase", "AVCODEC_PACKETINFO": "PacketInfo",
                 "AVCODEC_FORMATINFO": "FormatInfo", "AVFORMAT_TASK_REPORT": "TaskReportRecord"}
    sizes = re.findall(r"sizeof\((\w+)\) == (\d+)", HEADER)
    offsets = re.findall(r"offsetof\((\w+), (\w+)\) == (\d+)", HEADER)
    assert len(sizes) == 4 and len(offsets) >= 10
    for name, size in sizes:
        assert ctypes.sizeof(records[by_c_name[name]]) == int(size), name
    for name, field, offset in offsets:
        assert getattr(records[by_c_name[name]], field).offset == int(offset), (name, field)


def test_error_codes_match_the_header() -> None:
    defined = {int(code, 16): name for name, code in re.findall(r"#define (ERROR_AVFORMAT_\w+) (0x[0-9A-F]+)", HEADER)}
    assert {code: name for code, (name, _) in _errors.CODES.items()} == defined
    for code, name in defined.items():
        # the library's own names, where it has them, may leave out the common prefix
        assert q.error_name(code).endswith(name.removeprefix("ERROR_AVFORMAT_")) and q.error_text(code)
        assert issubclass(_errors.error_class(code), q.QuorvelError)
