# SPDX-License-Identifier: MIT
"""Sources and destinations: paths, or binary file objects read and written
through the library's caller I/O bridge; and the progress bar."""

from __future__ import annotations

import ctypes
import os
import sys
from typing import IO, Any, Callable, Union

from . import _lib

PathLike = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
Source = Union[PathLike, IO[bytes], Any]
Destination = Union[PathLike, IO[bytes], Any]
Progress = Union[Callable[[Any, int, float], object], bool, None]

_EIO = -5  # AVERROR(EIO)


def is_path(value: object) -> bool:
    return isinstance(value, (str, bytes, os.PathLike))


def reader(source: Any, fail: Callable[[BaseException], None]) -> Any:
    """An IO_FUNCTION that reads from a binary file object. It takes what one
    underlying read gives (readinto1/read1 where the object has them), so that
    a pipe or a socket is not waited on until the whole bridge buffer fills."""
    into = getattr(source, "readinto1", None) or getattr(source, "readinto", None)
    read = getattr(source, "read1", None) or source.read

    def function(_context: int, buffer: int, size: int) -> int:
        try:
            if into is not None:
                count = into((ctypes.c_char * size).from_address(buffer))
            else:
                data = read(size)
                count = None if data is None else len(data)
                if count is not None and count <= size:
                    ctypes.memmove(buffer, data, count)
            if count is None:
                raise BlockingIOError("the file object has no data ready (non-blocking)")
            if count > size:
                raise ValueError("the file object gave more bytes than asked for")
            return count if count > 0 else _lib.IO_EOF
        except BaseException as error:  # noqa: B036 - kept and re-raised in the caller's thread
            fail(error)
            return _EIO

    return _lib.IO_FUNCTION(function)


def writer(destination: Any, fail: Callable[[BaseException], None]) -> Any:
    """An IO_FUNCTION that writes every byte it is given to a binary file object."""
    write = destination.write

    def function(_context: int, buffer: int, size: int) -> int:
        try:
            view = memoryview(ctypes.string_at(buffer, size))
            while view:
                count = write(view)
                view = view[len(view) if count is None else count :]
            return size
        except BaseException as error:  # noqa: B036
            fail(error)
            return _EIO

    return _lib.IO_FUNCTION(function)


def null_writer() -> Any:
    return _lib.IO_FUNCTION(lambda _context, _buffer, size: size)


class Bar:
    """progress=True: tqdm's bar when tqdm is installed, else one line on stderr."""

    def __init__(self, description: str) -> None:
        try:
            from tqdm import tqdm  # type: ignore[import-untyped]

            self._tqdm: Any = tqdm(desc=description, unit=" packets", mininterval=0.2)
        except ImportError:
            self._tqdm = None
        self._description, self._count, self._seconds = description, 0, 0.0

    def __call__(self, _kind: object, _number: int, seconds: float) -> None:
        self._count += 1
        self._seconds = max(self._seconds, seconds)
        if self._tqdm is not None:
            self._tqdm.update(1)
        elif self._count % 500 == 0:
            sys.stderr.write(f"\r{self._description}: {self._count} packets, {self._seconds:.1f} s")

    def close(self) -> None:
        if self._tqdm is not None:
            self._tqdm.close()
        elif self._count:
            sys.stderr.write(f"\r{self._description}: {self._count} packets, {self._seconds:.1f} s\n")
