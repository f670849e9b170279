"""A session on one camera: shooting, files, settings, zoom, focus, video and live view."""

from __future__ import annotations

import contextlib
import ctypes
import logging
import threading
from pathlib import Path
from typing import Any, Callable, Dict, Iterator, List, Optional, Protocol, Set, Tuple, Union

from ._errors import ClosedError, OrqError, Result, check, error_for
from ._events import Subscription, in_callback
from ._lib import Library
from ._preview import Frame
from ._records import CameraInfo, CameraInfoRecord, FileInfo, FileInfoRecord, make_text
from ._settings import Property, Settings

log = logging.getLogger("orqsdk")


class _Camera(Protocol):
    """The session's camera as it is seen here: an :class:`orqsdk.Camera`."""

    info: CameraInfo

    @property
    def id(self) -> int: ...

    @property
    def name(self) -> str: ...

    @property
    def model(self) -> str: ...

    @property
    def path(self) -> str: ...

    @property
    def serial(self) -> str: ...

    @property
    def version(self) -> str: ...


class _Owner(Protocol):
    """What a session needs of the SDK object that opened it (an :class:`orqsdk.SDK`)."""

    _lib: Library

    @property
    def closed(self) -> bool: ...

    def _free(self, address: Optional[int]) -> None: ...

    def _forget(self, session: "Session") -> None: ...

    def subscribe(self, event: str, callback: Callable[..., None]) -> Subscription: ...


FileLike = Union[FileInfo, int]

_NO_MATCH = object()


class _Waiter:
    """One blocking helper's wait for an event, a camera failure or the session's end."""

    def __init__(self) -> None:
        self.done = threading.Event()
        self.value: Any = None
        self.error: Optional[BaseException] = None

    def finish(self, value: Any) -> None:
        if not self.done.is_set():
            self.value = value
            self.done.set()

    def fail(self, error: BaseException) -> None:
        if not self.done.is_set():
            self.error = error
            self.done.set()


# event name: (subscribe function, thunk attribute of the dispatch)
_EVENTS: Dict[str, Tuple[str, str]] = {
    "preview": ("OrqNewPreviewFrameSubscribe", "notify"),
    "shoot_completed": ("OrqShootCompletedSubscribe", "file"),
    "download_completed": ("OrqDownloadCompletedSubscribe", "int_path"),
    "property_list_changed": ("OrqPropertyListChangedSubscribe", "notify"),
    "property_changed": ("OrqPropertyChangedSubscribe", "integer"),
    "zoom_changed": ("OrqZoomChangedSubscribe", "notify"),
    "zoom_completed": ("OrqZoomCompletedSubscribe", "notify"),
    "focus_changed": ("OrqFocusChangedSubscribe", "notify"),
    "camera_error": ("OrqCameraErrorSubscribe", "integer"),
}


class Session:
    """An open session on a camera, from :meth:`Camera.open`; use it as a context manager.

    Calls that only queue work on the camera (zoom, focus, settings writes) return at once; the
    blocking helpers (:meth:`shoot`, :meth:`download`, :meth:`set_zoom`, :meth:`next_frame`) wait
    for the outcome up to `timeout` seconds and raise :class:`TimeoutError` after it, or the
    camera's failure as :class:`OrqError`.
    """

    def __init__(self, sdk: _Owner, camera: _Camera, handle: int) -> None:
        self._sdk = sdk
        self._lib = sdk._lib
        self.camera = camera
        self._handle = handle
        self._lock = threading.Condition(threading.RLock())
        self._inflight = 0
        self._closing = False
        self._subscriptions: Set[Subscription] = set()
        self._waiters: Set[_Waiter] = set()
        self._host_files: Set[int] = set()
        self._releasing = self._released = False
        self.settings = Settings(self._lib, self._call, self._check, sdk._free, self)

    # --- lifetime ------------------------------------------------------------------------------

    @contextlib.contextmanager
    def _call(self) -> Iterator[int]:
        """The handle for one SDK call; a close meanwhile releases it once the call is over."""
        with self._lock:
            if self._closing or self._sdk.closed:
                raise ClosedError("the session is closed")
            self._inflight += 1
        try:
            yield self._handle
        finally:
            with self._lock:
                self._inflight -= 1
                release = self._closing and self._inflight == 0
                self._lock.notify_all()
            if release:
                self._release_handle()

    @property
    def closed(self) -> bool:
        return self._closing or self._sdk.closed

    def close(self) -> None:
        """Ends the session and its subscriptions; a second call does nothing."""
        with self._lock:
            if self._closing:
                return
            self._closing = True
            subscriptions, self._subscriptions = list(self._subscriptions), set()
            waiters = list(self._waiters)
        for waiter in waiters:
            waiter.fail(ClosedError("the session was closed while waiting"))
        # Subscriptions go before the session that they belong to.
        for subscription in subscriptions:
            subscription.close()
        with self._lock:
            # A call still running on another thread holds the handle: the last one out releases.
            release = self._inflight == 0
        if release:
            self._release_handle()

    def _release_handle(self) -> None:
        # Both the close and the last call out may get here: the first releases, and it alone
        # says when the release is done.
        with self._lock:
            if self._releasing:
                return
            self._releasing = True
            handle, self._handle = self._handle, 0
        # Forgotten only now, as until then the SDK's close must find the session and wait for it;
        # and before the close is let go, which stops the SDK holding the lock that this takes.
        self._sdk._free(handle)
        self._sdk._forget(self)
        with self._lock:
            self._released = True
            self._lock.notify_all()

    def _drain(self, timeout: float) -> bool:
        """Waits up to `timeout` s for calls on other threads to return and, after a close, for
        the last of them to release the handle: the SDK may be stopped only then."""
        with self._lock:
            return self._lock.wait_for(
                lambda: self._inflight == 0 and (self._released or not self._closing), timeout=timeout
            )

    def __enter__(self) -> "Session":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<Session {self.camera.model} {'closed' if self.closed else 'open'}>"

    def _check(self, result: int, call: str, detail: Optional[str] = None) -> None:
        """Raises for a non-OK result; a camera gone from the bus raises :class:`Disconnected`,
        as the SDK answers such a camera with whichever failure ended its work."""
        if result in (Result.ERROR, Result.DEVICE_NOT_READY) and self._gone():
            result = Result.DISCONNECTED
        check(result, call, detail)

    def _gone(self) -> bool:
        state = ctypes.c_int(0)
        with self._call() as handle:
            self._lib.OrqGetCameraConnectionState(handle, ctypes.byref(state))
        return state.value != 0

    # --- events --------------------------------------------------------------------------------

    def subscribe(self, event: str, callback: Callable[..., None]) -> Subscription:
        """Calls `callback` on an SDK thread for each event of this camera:

        - ``"shoot_completed"``: ``callback(file: FileInfo)``
        - ``"download_completed"``: ``callback(file_id: int, path: Path)``
        - ``"property_changed"``: ``callback(name: str)``
        - ``"camera_error"``: ``callback(error: OrqError)``, after which the camera is unusable
        - ``"preview"``, ``"property_list_changed"``, ``"zoom_changed"``, ``"zoom_completed"``,
          ``"focus_changed"``: ``callback()``

        An exception raised by `callback` is logged (logger ``orqsdk``) and goes no further.
        """
        if event not in _EVENTS:
            raise ValueError(f"unknown event {event!r}; events: {', '.join(_EVENTS)}")
        function_name, thunk_name = _EVENTS[event]
        handler = self._handler(event, callback)
        dispatch = self._lib.dispatch
        with self._call() as handle:
            key = dispatch.add(handler)
            pointer = getattr(self._lib, function_name)(handle, getattr(dispatch, thunk_name), key)
            if pointer:
                subscription = Subscription(
                    event, dispatch, key, lambda: self._release_subscription(subscription, pointer)
                )
                with self._lock:
                    late = self._closing
                    if not late:
                        self._subscriptions.add(subscription)
                if late:  # the session closed meanwhile and has already let go of the others
                    subscription.close()
            else:
                dispatch.remove(key)
        if not pointer:
            self._check(Result.DEVICE_NOT_READY, function_name)
        return subscription

    def _release_subscription(self, subscription: Subscription, pointer: int) -> None:
        with self._lock:
            self._subscriptions.discard(subscription)
        self._sdk._free(pointer)

    def _handler(self, event: str, callback: Callable[..., None]) -> Callable[..., None]:
        if event == "shoot_completed":
            def on_file(record: Optional[FileInfoRecord]) -> None:
                if record is not None:
                    file = FileInfo._from_record(record)
                    if file.on_host:
                        self._host_files.add(file.id)
                    callback(file)

            return on_file
        if event == "download_completed":
            return lambda file_id, path: callback(file_id, Path(path))
        if event == "property_changed":
            return lambda prop: callback(self.settings.name_of(prop))
        if event == "camera_error":
            return lambda result: callback(error_for(result, "the camera failed"))
        return callback

    def _wait(
        self,
        event: str,
        accept: Callable[..., Any],
        start: Callable[[], None],
        timeout: Optional[float],
        what: str,
    ) -> Any:
        """Subscribes, runs `start`, and waits for an event that `accept` turns into a value."""
        if in_callback():
            # The event waited for would come on this very thread, after the wait.
            raise RuntimeError(f"waiting for {what} inside an SDK callback would never end")
        waiter = _Waiter()

        def on_event(*args: Any) -> None:
            value = accept(*args)
            if value is not _NO_MATCH:
                waiter.finish(value)

        def on_camera(camera: _Camera, connected: bool) -> None:
            if camera.id == self.camera.id and not connected:
                waiter.fail(error_for(Result.DISCONNECTED, "the camera was unplugged"))

        with self._lock:
            self._waiters.add(waiter)
        try:
            with self.subscribe(event, on_event), self.subscribe("camera_error", waiter.fail), \
                    self._sdk.subscribe("camera_list_changed", on_camera):
                start()
                if not waiter.done.wait(timeout):
                    raise TimeoutError(f"{what} did not complete within {timeout} s")
        finally:
            with self._lock:
                self._waiters.discard(waiter)
        if waiter.error is not None:
            raise waiter.error
        return waiter.value

    # --- camera --------------------------------------------------------------------------------

    @property
    def info(self) -> CameraInfo:
        """The camera's name, path, serial number and module version."""
        record = CameraInfoRecord()
        with self._call() as handle:
            self._check(self._lib.OrqGetCameraInfo(handle, ctypes.byref(record)), "OrqGetCameraInfo")
        return CameraInfo._from_record(record)

    @property
    def connected(self) -> bool:
        """False once the camera has gone from the bus."""
        state = ctypes.c_int(1)
        with self._call() as handle:
            self._check(self._lib.OrqGetCameraConnectionState(handle, ctypes.byref(state)), "OrqGetCameraConnectionState")
        return state.value == 0

    def _simple(self, name: str, *args: int) -> None:
        with self._call() as handle:
            self._check(getattr(self._lib, name)(handle, *args), name)

    def _read_int(self, name: str) -> int:
        value = ctypes.c_int()
        with self._call() as handle:
            self._check(getattr(self._lib, name)(handle, ctypes.byref(value)), name)
        return value.value

    def update_aeaf(self) -> None:
        """Asks the camera to meter and focus again (queued)."""
        self._simple("OrqUpdateAEAF")

    def reset(self) -> None:
        """Asks the camera to reset (queued)."""
        self._simple("OrqResetCamera")

    # --- shooting and files --------------------------------------------------------------------

    def shoot(self, to_host: bool = False, timeout: Optional[float] = 30.0) -> FileInfo:
        """Takes a picture and waits for it.

        On the card by default; with `to_host` the camera hands the picture straight to the host,
        where it stays in the SDK's memory (a negative id) until :meth:`download` with
        ``delete_after=True`` or :meth:`delete`. Needs the model's "Direct Transfer" property.
        """
        previous: Optional[int] = None
        if to_host:
            previous = self.settings.raw(Property.DIRECT_TRANSFER)
            if previous != 0:
                self.settings.set_raw(Property.DIRECT_TRANSFER, 0)
        elif Property.DIRECT_TRANSFER in self.settings and self.settings.raw(Property.DIRECT_TRANSFER) == 0:
            previous = 0
            self.settings.set_raw(Property.DIRECT_TRANSFER, 1)
        try:
            return self._wait("shoot_completed", lambda file: file, lambda: self._simple("OrqShoot"), timeout, "the shot")
        finally:
            if previous is not None and not self.closed:
                with contextlib.suppress(OrqError):
                    self.settings.set_raw(Property.DIRECT_TRANSFER, previous)

    def files(self) -> List[FileInfo]:
        """The files on the card, as the SDK last listed them."""
        pointer, count = ctypes.c_void_p(), ctypes.c_int()
        with self._call() as handle:
            result = self._lib.OrqGetFileList(handle, ctypes.byref(pointer), ctypes.byref(count))
            try:
                self._check(result, "OrqGetFileList")
                records = ctypes.cast(pointer, ctypes.POINTER(FileInfoRecord))
                return [FileInfo._from_record(records[i]) for i in range(count.value)]
            finally:
                self._sdk._free(pointer.value)

    def _known(self, file: FileLike) -> int:
        # An id the SDK does not hold would end the camera's session when the queued transfer
        # fails, so it is refused here.
        file_id = file.id if isinstance(file, FileInfo) else int(file)
        known = file_id in self._host_files if file_id < 0 else any(f.id == file_id for f in self.files())
        if not known:
            raise OrqError(Result.ERROR, f"file {file_id} is not {'held on the host' if file_id < 0 else 'on the card'}")
        return file_id

    def download(
        self,
        file: FileLike,
        path: Union[str, Path],
        delete_after: bool = False,
        timeout: Optional[float] = 60.0,
    ) -> Path:
        """Downloads a file to `path` (a file name, or an existing folder to keep the camera's
        name) and waits for it; returns the path written. `delete_after` removes it from the
        camera (or the host's memory) once it is written."""
        file_id = self._known(file)
        target = Path(path).absolute()
        if target.is_dir():
            name = file.name if isinstance(file, FileInfo) else self._name_of(file_id)
            target = target / name
        # A target the SDK cannot write fails the camera's whole session, so it is refused here.
        if not target.parent.is_dir():
            raise FileNotFoundError(f"no folder {target.parent} to download into")
        text = make_text(str(target))

        def start() -> None:
            self._simple("OrqDownloadFileTo", file_id, ctypes.cast(text, ctypes.c_void_p), 1 if delete_after else 0)

        written = self._wait(
            "download_completed",
            lambda done_id, done_path: done_path if done_id == file_id else _NO_MATCH,
            start,
            timeout,
            f"the download of file {file_id}",
        )
        if delete_after:
            self._host_files.discard(file_id)
        return Path(written)

    def _name_of(self, file_id: int) -> str:
        for file in self.files():
            if file.id == file_id:
                return file.name
        return f"direct_{-file_id}.jpg" if file_id < 0 else f"file_{file_id}"

    def delete(self, file: FileLike) -> None:
        """Removes a file from the card, or a picture from the host's memory (queued)."""
        file_id = self._known(file)
        self._simple("OrqDeleteFile", file_id)
        self._host_files.discard(file_id)

    # --- settings, zoom and focus --------------------------------------------------------------

    @property
    def max_zoom(self) -> int:
        """The largest zoom step of the model."""
        return self._read_int("OrqGetMaximumZoom")

    @property
    def zoom(self) -> int:
        """The zoom step as far as the SDK knows it."""
        return self._read_int("OrqGetZoom")

    def set_zoom(self, step: int, wait: bool = True, timeout: Optional[float] = 30.0) -> int:
        """Moves the lens to `step` (limited to 0..max_zoom); waits for it unless `wait` is
        false. Returns the step reached (or requested)."""
        target = max(0, min(int(step), self.max_zoom))
        if not wait:
            self._simple("OrqSetZoom", int(step))
            return target
        return self._wait(
            "zoom_completed",
            lambda: target if self.zoom == target else _NO_MATCH,
            lambda: self._simple("OrqSetZoom", int(step)),
            timeout,
            f"zoom to {target}",
        )

    @property
    def focus(self) -> int:
        """The manual focus position as far as the SDK knows it (-1: infinity)."""
        return self._read_int("OrqGetFocus")

    def set_focus(self, position: int, timeout: Optional[float] = 30.0) -> int:
        """Moves the manual focus to `position` and waits for the move; returns the position."""
        return self._wait(
            "focus_changed", lambda: self.focus, lambda: self._simple("OrqSetFocus", int(position)), timeout, "focus"
        )

    def focus_shift(self, steps: int, timeout: Optional[float] = 30.0) -> int:
        """Moves the focus `steps` stops nearer (negative) or farther; returns the position."""
        if steps == 0:
            return self.focus
        return self._wait(
            "focus_changed", lambda: self.focus, lambda: self._simple("OrqFocusShift", int(steps)), timeout, "focus shift"
        )

    # --- video ---------------------------------------------------------------------------------

    @property
    def video_supported(self) -> bool:
        with self._call() as handle:
            return bool(self._lib.OrqIsVideoSupported(handle))

    def start_video(self) -> None:
        """Starts recording a movie; shots are refused until :meth:`stop_video`."""
        self._simple("OrqStartVideo")

    def stop_video(self) -> FileInfo:
        """Stops recording; returns the movie's file on the card."""
        record = FileInfoRecord()
        with self._call() as handle:
            self._check(self._lib.OrqStopVideo(handle, ctypes.byref(record)), "OrqStopVideo")
        return FileInfo._from_record(record)

    # --- live view -----------------------------------------------------------------------------

    @property
    def preview(self) -> bool:
        """Whether live view runs; set it to start or stop it."""
        return self._read_int("OrqGetPreviewState") == 1

    @preview.setter
    def preview(self, on: bool) -> None:
        self._simple("OrqSetPreviewState", 1 if on else 0)

    def preview_frame(self) -> Frame:
        """The newest live-view frame; raises :class:`NotReady` before the first."""
        pointer, size = ctypes.c_void_p(), ctypes.c_int()
        with self._call() as handle:
            result = self._lib.OrqGetPreviewFrame(handle, ctypes.byref(pointer), ctypes.byref(size))
            try:
                self._check(result, "OrqGetPreviewFrame")
                return Frame.from_sdk(pointer.value or 0, size.value)
            finally:
                self._sdk._free(pointer.value)

    def next_frame(self, timeout: Optional[float] = 5.0) -> Frame:
        """Turns live view on if needed, waits for a new frame and returns it."""
        if not self.preview:
            self.preview = True
        self._wait("preview", lambda: True, lambda: None, timeout, "a live-view frame")
        return self.preview_frame()

    def frames(self, timeout: Optional[float] = 5.0) -> Iterator[Frame]:
        """Live-view frames as they come, for ever; stop iterating to stop."""
        while True:
            yield self.next_frame(timeout)
