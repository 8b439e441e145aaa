# SPDX-License-Identifier: MIT
"""Task objects of the four families, and the one-call functions built on them."""

from __future__ import annotations

import ctypes
import os
import threading
import time
import weakref
from typing import Any, Callable, Iterable, Mapping, NamedTuple, Sequence

from . import _bridge, _lib
from ._bridge import Destination, Progress, Source
from ._errors import ParameterError, QuorvelError, WriteError, last_error

MEDIA_TYPES = {-1: "unknown", 0: "video", 1: "audio", 2: "data", 3: "subtitle", 4: "attachment"}
_POLL_SECONDS = 0.002
_inside_callback = threading.local()


class TaskReport(NamedTuple):
    """What a task did (AVFORMAT_TASK_REPORT)."""

    write_error: int
    packets_read: int
    packets_written: int
    packets_refused: int
    bytes_written: int
    trailer_written: bool
    trailer_result: int

    @classmethod
    def _of(cls, record: _lib.TaskReportRecord) -> "TaskReport":
        return cls(
            record.nWriteError,
            record.llPacketsRead,
            record.llPacketsWritten,
            record.llPacketsRefused,
            record.llBytesWritten,
            bool(record.bTrailerWritten),
            record.nTrailerResult,
        )

    @property
    def failed_write(self) -> int:
        """The first I/O error of the output or of its trailer (a negative AVERROR), 0 if none."""
        return self.write_error or self.trailer_result


def _record() -> _lib.TaskReportRecord:
    return _lib.TaskReportRecord(dwSize=ctypes.sizeof(_lib.TaskReportRecord))


class _State:
    """A task's handle and everything the C side holds a pointer to (the
    callbacks, the file objects), kept apart from the task object so that the
    task's finalizer can stop the task without keeping the object alive."""

    def __init__(self, family: str, progress: Progress, kinds: Callable[[int], Any]) -> None:
        self.family = family
        self.functions = {op: getattr(_lib.lib, f"AVFormat_{family}_{op}") for op in _lib._per_family}
        self.lock = threading.Lock()
        self.failed = threading.Event()
        self.error: BaseException | None = None
        self.keep: list[object] = []
        # Copies of the handle that per-packet loops pass to the library; set to
        # NULL when the task stops, so that a loop's next call fails cleanly.
        self.copies: list[ctypes.c_void_p] = []
        self.closers: list[Callable[[], object]] = []
        self.bar = _bridge.Bar(family) if progress is True else None
        callback = self.bar if self.bar is not None else progress
        function = _lib.NO_PROGRESS
        if callable(callback):
            function = _lib.PROGRESS_CALLBACK(self._progress(callback, kinds))
            self.keep.append(function)
        handle = self.functions["Init"](function, None)
        if not handle:
            raise last_error(f"AVFormat_{family}_Init")
        self.handle: int | None = handle

    def _progress(self, callback: Callable[..., object], kinds: Callable[[int], Any]) -> Callable[..., None]:
        def function(_reserved: int, kind: int, number: int, seconds: float, _context: int) -> None:
            if self.error is not None:
                return
            _inside_callback.state = self
            try:
                callback(kinds(kind), number, seconds)
            except BaseException as error:  # noqa: B036 - re-raised in the caller's thread
                self.fail(error)
            finally:
                _inside_callback.state = None

        return function

    def fail(self, error: BaseException) -> None:
        """Keeps the first exception of a callback; the task is stopped by the caller's thread."""
        if self.error is None:
            self.error = error
        self.failed.set()

    def call(self, op: str, *arguments: Any) -> None:
        function = self.functions.get(op) or getattr(_lib.lib, f"AVFormat_{self.family}_{op}")
        with self.lock:
            if self.handle is None:
                raise ParameterError(0, f"AVFormat_{self.family}_{op}", "the task has been stopped")
            ok = function(self.handle, *arguments)
        if not ok:
            raise last_error(f"AVFormat_{self.family}_{op}")

    def set_options(self, mode: str | None, options: Mapping[str, object] | None) -> None:
        entries = dict(options or {})
        if mode is not None:
            self.call("SetOption", b"mode", mode.encode())
        for name, value in entries.items():
            if isinstance(value, bool):
                value = int(value)
            self.call("SetOption", str(name).encode(), str(value).encode())

    def running(self) -> bool:
        flag = ctypes.c_bool()
        with self.lock:
            if self.handle is None:
                return False
            self.functions["GetStatus"](self.handle, ctypes.byref(flag))
        return flag.value and not self.failed.is_set()

    def report(self) -> TaskReport:
        record = _record()
        self.call("GetReport", ctypes.byref(record))
        return TaskReport._of(record)

    def close(self) -> TaskReport | None:
        """Stops the task (once), and closes what the task opened."""
        with self.lock:
            handle, self.handle = self.handle, None
            for copy in self.copies:
                copy.value = None
        report = None
        if handle is not None:
            record = _record()
            if self.family == "Link":
                self.functions["Suspend"](handle, False)  # a paused concatenation's Stop waits for a resume
            if self.functions["StopWithReport"](handle, ctypes.byref(record)):
                report = TaskReport._of(record)
        while self.closers:
            self.closers.pop()()
        if self.bar is not None:
            self.bar.close()
            self.bar = None
        return report


class Task:
    """A task of one family. Set up by the constructor; ``start()`` starts its
    worker, ``wait()`` waits for the end, ``stop()`` ends it and returns its
    report. Leaving a ``with`` block stops the task, and so does garbage
    collection of a task that was never stopped."""

    _family = ""
    _kinds: Callable[[int], Any] = staticmethod(lambda kind: MEDIA_TYPES.get(kind, kind))

    def __init__(self, *, mode: str | None, options: Mapping[str, object] | None, progress: Progress) -> None:
        self._state = _State(self._family, progress, type(self)._kinds)
        self._finalizer = weakref.finalize(self, self._state.close)
        try:
            self._state.set_options(mode, options)
            self._setup()
        except BaseException:
            self._finalizer()
            raise

    def _setup(self) -> None:
        raise NotImplementedError

    def _source(self, source: Source) -> tuple[bytes | None, Any]:
        if _bridge.is_path(source):
            return os.fsencode(source), _lib.NO_IO
        if not (hasattr(source, "read") or hasattr(source, "readinto")):
            raise TypeError(f"a source is a path or a binary file object, not {type(source).__name__}")
        return None, self._keep(_bridge.reader(source, self._state.fail))

    def _destination(self, destination: Destination, format: str | None) -> tuple[bytes, Any]:
        """A file by its name, or a container format name and a write function."""
        if _bridge.is_path(destination):
            if format is None:
                return os.fsencode(destination), _lib.NO_IO
            file = open(destination, "wb")  # a forced container: written through the bridge
            self._state.closers.append(file.close)
            destination = file
        elif not hasattr(destination, "write"):
            raise TypeError(f"a destination is a path or a binary file object, not {type(destination).__name__}")
        if not format:
            raise ValueError("format= (a container's short name, e.g. 'matroska') is needed to write to a file object")
        return format.encode(), self._keep(_bridge.writer(destination, self._state.fail))

    def _keep(self, value: Any) -> Any:
        self._state.keep.append(value)
        return value

    def _call(self, op: str, *arguments: Any) -> None:
        self._state.call(op, *arguments)

    def start(self) -> "Task":
        """Writes the output's header and starts the worker."""
        self._call("Start")
        return self

    def pause(self) -> None:
        self._call("Suspend", True)

    def resume(self) -> None:
        self._call("Suspend", False)

    @property
    def running(self) -> bool:
        """Whether the worker still runs (also while paused)."""
        return self._state.running()

    @property
    def report(self) -> TaskReport:
        """What the task has done so far."""
        return self._state.report()

    def wait(self, timeout: float | None = None) -> bool:
        """Waits until the worker ends; False if ``timeout`` seconds passed first.
        An exception raised in a progress or I/O callback stops the task and is
        raised here."""
        state = self._state
        deadline = None if timeout is None else time.monotonic() + timeout
        while state.running():
            left = _POLL_SECONDS if deadline is None else min(_POLL_SECONDS, deadline - time.monotonic())
            if left <= 0:
                return False
            state.failed.wait(left)
        self._raise_callback_error()
        return True

    def _raise_callback_error(self) -> None:
        if self._state.error is not None:
            self.stop()
            error, self._state.error = self._state.error, None
            raise error

    def stop(self) -> TaskReport | None:
        """Ends the task (writes the trailer, releases everything) and returns
        its final report. Safe at any moment and more than once; from inside
        the task's own progress callback it asks the caller's thread to stop
        the task instead."""
        if getattr(_inside_callback, "state", None) is self._state:
            self._state.failed.set()
            return None
        return self._finalizer()

    def __enter__(self) -> "Task":
        return self

    def __exit__(self, *_exc: object) -> None:
        self.stop()

    def _run(self) -> TaskReport:
        """start, wait and stop: what the one-call functions do."""
        with self:
            self.start()
            self.wait()
            report = self.stop()
            self._raise_callback_error()
        if report is None:
            raise QuorvelError(0, f"AVFormat_{self._family}_StopWithReport", "no report")
        if report.failed_write:
            error = WriteError(report.failed_write, f"AVFormat_{self._family}_StopWithReport")
            error.report = report
            raise error
        return report


class _Job(Task):
    """A job of one family, set up from its source(s) and destination."""

    def __init__(
        self,
        src: Any,
        dst: Any,
        *,
        start: float | None = None,
        end: float | None = None,
        format: str | None = None,
        options: Mapping[str, object] | None = None,
        mode: str | None = "practical",
        progress: Progress = None,
    ) -> None:
        self._src, self._dst, self._format = src, dst, format
        self._start, self._end, self._options = _seconds(start), _seconds(end), dict(options or {})
        super().__init__(mode=mode, options=options, progress=progress)


def _seconds(value: float | None) -> float:
    return 0.0 if value is None else float(value)


class ConvertTask(_Job):
    """Remuxes one input into another container, optionally cut."""

    _family = "Convert"


    def _setup(self) -> None:
        name, write = self._destination(self._dst, self._format)
        self._call("Output", name, self._start, self._end, write, None)
        self._call("Input", *self._source(self._src), None)

    def seek(self, seconds: int) -> None:
        """Moves the input's read position to whole ``seconds`` on the input's timeline."""
        self._call("Seek", int(seconds))


class ExtractTask(_Job):
    """Splits an input into one container per stream.

    ``dst`` is a sequence whose item i receives stream i, or a mapping from
    stream index to destination; a ``None`` item, or an index missing from the
    mapping, writes that stream nowhere. The progress callback's kind is the
    stream index."""

    _family = "UNPack"
    _kinds = staticmethod(lambda kind: kind)


    def _setup(self) -> None:
        self._call("Input", *self._source(self._src), None)
        dst = self._dst
        if isinstance(dst, Mapping):
            dst = [dst.get(index) for index in range(max(dst, default=-1) + 1)]
        records = []
        for index, destination in enumerate(dst):
            record = _lib.FormatInfo(dlStartTime=self._start, dlEndTime=self._end, nStreamIndex=index)
            if destination is None:  # the record must be there, for stream i is described by record i
                name, write = b"matroska", self._keep(_bridge.null_writer())
                record.nStreamIndex = -1
            else:
                name, write = self._destination(destination, self._format)
            if len(name) >= 264:
                raise ValueError(f"an output name is at most 263 bytes: {name!r}")
            record.szName = name
            record.pWriteFunc = write
            records.append(record)
        pointers = (ctypes.POINTER(_lib.FormatInfo) * len(records))(*map(ctypes.pointer, records))
        array = ctypes.cast(pointers, ctypes.POINTER(ctypes.POINTER(_lib.FormatInfo)))
        self._call("Output", ctypes.byref(array), len(records))


class MuxTask(_Job):
    """Builds one container from the streams of several inputs."""

    _family = "Packet"


    def _setup(self) -> None:
        name, write = self._destination(self._dst, self._format)
        self._call("Output", name, self._start, self._end, write, None)
        for src in self._src:
            self._call("Input", *self._source(src), None)


class ConcatTask(_Job):
    """Joins files end to end. Each item of ``srcs`` is a path, or a tuple
    (path, start, end) with that input's own cut; the output is a path, whose
    name decides the container. Each input's first video and first audio
    stream are copied."""

    _family = "Link"


    def _setup(self) -> None:
        from .packets import Demuxer

        if not _bridge.is_path(self._dst) or self._format is not None:
            raise TypeError("concatenation writes to a path only, whose name decides the container")
        self._call("Output", os.fsencode(self._dst))
        input_options = {name: value for name, value in self._options.items() if name.startswith("input.")}
        for item in self._src:
            path, cut_start, cut_end = item if isinstance(item, tuple) else (item, self._start, self._end)
            if not _bridge.is_path(path):
                raise TypeError("concatenation reads paths only")
            with Demuxer(path, options=input_options, mode=None) as probe:
                types = [stream.type for stream in probe.streams]
            video = types.index("video") if "video" in types else -1
            audio = types.index("audio") if "audio" in types else -1
            self._call("Input", os.fsencode(path), _seconds(cut_start), _seconds(cut_end), video, audio)


def convert(src: Source, dst: Destination, **arguments: Any) -> TaskReport:
    """Remuxes ``src`` into ``dst`` (a container chosen by ``dst``'s name, or
    ``format=``) and returns the task's report. Keyword arguments: ``start``,
    ``end`` (seconds), ``format``, ``options`` (task options by name),
    ``mode`` ("practical" by default; "defined" or None for the library's own
    behaviour), ``progress`` (a callable (kind, number, seconds), or True for a bar)."""
    return ConvertTask(src, dst, **arguments)._run()


def extract(src: Source, dst: Sequence[Destination | None] | Mapping[int, Destination], **arguments: Any) -> TaskReport:
    """Writes streams of ``src`` into containers of their own: ``dst[i]``
    receives stream i. Keyword arguments as for :func:`convert`."""
    return ExtractTask(src, dst, **arguments)._run()


def mux(srcs: Iterable[Source], dst: Destination, **arguments: Any) -> TaskReport:
    """Builds ``dst`` from the streams of ``srcs``. Keyword arguments as for :func:`convert`."""
    return MuxTask(srcs, dst, **arguments)._run()


def concat(srcs: Iterable[Any], dst: Destination, **arguments: Any) -> TaskReport:
    """Joins ``srcs`` end to end into ``dst``. Keyword arguments as for
    :func:`convert`, without ``format``."""
    return ConcatTask(srcs, dst, **arguments)._run()
