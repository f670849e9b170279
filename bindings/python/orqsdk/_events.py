"""Callbacks from SDK threads into Python.

Each loaded library has one thunk per C callback signature for the life of the process; a
subscription passes a small integer key as the SDK's context pointer, and the thunk looks the
Python handler up by it. So no ctypes callback object can be collected while an SDK thread may
still call it (the SDK may call a subscriber once more after it was released), and a late call
for a key that is gone is dropped. Payloads the SDK allocates for a subscriber are copied and
released here, once, before the handler runs, whatever the handler does; an exception raised by
a handler is logged and goes no further.
"""

from __future__ import annotations

import ctypes
import itertools
import logging
import threading
from typing import Any, Callable, Dict, Optional

from ._records import (
    CameraCallback,
    CameraInfoRecord,
    FileCallback,
    FileInfoRecord,
    IntCallback,
    IntPathCallback,
    NotifyCallback,
    read_text,
)

log = logging.getLogger("orqsdk")
_state = threading.local()


def in_callback() -> bool:
    """True on a thread that is running an event handler right now."""
    return getattr(_state, "depth", 0) > 0


class Dispatch:
    """The thunks of one library and the table of live handlers; `free` is the library's
    OrqFree, which releases what the SDK allocated for a subscriber."""

    def __init__(self, free: Callable[[int], None]) -> None:
        self._free = free
        self._handlers: Dict[int, Callable[..., None]] = {}
        self._lock = threading.Lock()
        self._keys = itertools.count(1)
        self.notify = NotifyCallback(self._on_notify)
        self.integer = IntCallback(self._on_integer)
        self.int_path = IntPathCallback(self._on_int_path)
        self.file = FileCallback(self._on_file)
        self.camera = CameraCallback(self._on_camera)

    def add(self, handler: Callable[..., None]) -> int:
        with self._lock:
            key = next(self._keys)
            self._handlers[key] = handler
            return key

    def remove(self, key: int) -> None:
        with self._lock:
            self._handlers.pop(key, None)

    def _call(self, key: Optional[int], *args: Any) -> None:
        with self._lock:
            handler = self._handlers.get(key or 0)
        if handler is None:
            return
        _state.depth = getattr(_state, "depth", 0) + 1
        try:
            handler(*args)
        except BaseException:  # noqa: B036 - nothing may unwind into the SDK's thread
            log.exception("exception in an OrqSDK event handler %r", handler)
        finally:
            _state.depth -= 1

    def _release(self, address: Optional[int]) -> None:
        if address:
            self._free(address)

    def _on_notify(self, context: Optional[int]) -> None:
        self._call(context)

    def _on_integer(self, context: Optional[int], value: int) -> None:
        self._call(context, value)

    def _on_int_path(self, context: Optional[int], value: int, path: Optional[int]) -> None:
        try:
            text = read_text(path)
        finally:
            self._release(path)
        self._call(context, value, text)

    def _on_file(self, context: Optional[int], record: "ctypes._Pointer[FileInfoRecord]") -> None:
        address = ctypes.cast(record, ctypes.c_void_p).value
        try:
            copy = FileInfoRecord.from_buffer_copy(record.contents) if address else None
        finally:
            self._release(address)
        self._call(context, copy)

    def _on_camera(
        self, context: Optional[int], record: "ctypes._Pointer[CameraInfoRecord]", state: int
    ) -> None:
        address = ctypes.cast(record, ctypes.c_void_p).value
        try:
            copy = CameraInfoRecord.from_buffer_copy(record.contents) if address else None
        finally:
            self._release(address)
        self._call(context, copy, state)


class Subscription:
    """A live subscription of a Python callable to an SDK event.

    Released by :meth:`close` (or by leaving a ``with`` block), and at the latest when its session
    or SDK object closes. Once :meth:`close` has returned the callable is not called again.
    """

    def __init__(self, event: str, dispatch: Dispatch, key: int, release: Callable[[], None]) -> None:
        self.event = event
        self._dispatch = dispatch
        self._key: Optional[int] = key
        self._release = release
        self._lock = threading.Lock()

    @property
    def active(self) -> bool:
        return self._key is not None

    def close(self) -> None:
        """Unsubscribes; a second call does nothing."""
        with self._lock:
            key, self._key = self._key, None
        if key is None:
            return
        self._dispatch.remove(key)
        self._release()

    def __enter__(self) -> "Subscription":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<Subscription {self.event} {'active' if self.active else 'closed'}>"
