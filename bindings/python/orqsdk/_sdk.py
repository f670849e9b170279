"""The SDK object and the cameras it lists."""

from __future__ import annotations

import atexit
import contextlib
import ctypes
import logging
import threading
import time
import weakref
from typing import Callable, List, Optional, Sequence, Set

from ._errors import ClosedError, OrqError, Result, check, error_for
from ._events import Subscription, in_callback
from ._lib import Library, load_sdk
from ._records import CameraInfo, CameraInfoRecord, read_text
from ._session import Session


class Camera:
    """An attached camera, as listed by :meth:`SDK.cameras`; :meth:`open` starts a session."""

    def __init__(self, sdk: "SDK", info: CameraInfo) -> None:
        self._sdk = sdk
        self.info = info

    id = property(lambda self: self.info.id, doc="The id the SDK gives the camera.")
    name = property(lambda self: self.info.name, doc="The product name the camera reports.")
    model = property(lambda self: self.info.model, doc="The model code.")
    path = property(lambda self: self.info.path, doc="The system's device path.")
    serial = property(lambda self: self.info.serial, doc="The camera's serial number.")
    version = property(lambda self: self.info.version, doc="Version of the on-camera module.")

    def open(self) -> Session:
        """Opens a session; raises :class:`SessionBusy` if one is open on this camera."""
        return self._sdk._open_session(self)

    def __repr__(self) -> str:
        return f"<Camera {self.model} serial={self.serial!r} path={self.path!r}>"


log = logging.getLogger("orqsdk")
_DRAIN_SECONDS = 30.0
_open_sdks: "weakref.WeakSet[SDK]" = weakref.WeakSet()


@atexit.register
def _close_at_exit() -> None:
    # Before the interpreter tears down, while the SDK's threads can still call into Python.
    for sdk in list(_open_sdks):
        sdk.close()


class SDK:
    """The started SDK. One per process; use it as a context manager::

        with orqsdk.SDK() as sdk:
            for camera in sdk.cameras():
                ...

    Closing it closes every session and subscription it handed out and stops the SDK.
    """

    def __init__(self, library: Optional[Library] = None) -> None:
        self._lib = library or load_sdk()
        self._lock = threading.RLock()
        self._sessions: Set[Session] = set()
        self._subscriptions: Set[Subscription] = set()
        check(self._lib.OrqInitializeSDK(), "OrqInitializeSDK")
        self._open = True
        self._manager: Optional[int] = self._lib.OrqGetCameraManager()
        _open_sdks.add(self)

    @property
    def library(self) -> Library:
        """The loaded SDK library."""
        return self._lib

    @property
    def closed(self) -> bool:
        return not self._open

    def __enter__(self) -> "SDK":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def close(self) -> None:
        """Closes open sessions and subscriptions, then stops the SDK. A second call does nothing."""
        if in_callback():
            raise RuntimeError("the SDK cannot be stopped from inside one of its callbacks")
        with self._lock:
            if not self._open:
                return
            sessions, self._sessions = list(self._sessions), set()
            subscriptions, self._subscriptions = list(self._subscriptions), set()
        for session in sessions:
            session.close()
        # Termination invalidates every handle, so calls still running on other threads (the
        # SDK's own threads never get here) are let finish first, within a bound.
        for session in sessions:
            if not session._drain(_DRAIN_SECONDS):
                log.warning("stopping the SDK while a call on %r is still running", session)
        for subscription in subscriptions:
            subscription.close()
        with self._lock:
            manager, self._manager = self._manager, None
            self._free(manager)
            self._open = False
            self._lib.OrqTerminateSDK()
        _open_sdks.discard(self)

    def _free(self, address: Optional[int]) -> None:
        # After termination every pointer is dead, and its address may already belong to a new
        # allocation: nothing is released then.
        if address and self._open:
            self._lib.OrqFree(address)

    def _manager_handle(self) -> int:
        with self._lock:
            if not self._open or not self._manager:
                raise ClosedError("the SDK is closed")
            return self._manager

    @staticmethod
    def version(library: Optional[Library] = None) -> str:
        """The SDK's version text."""
        text = ctypes.c_void_p()
        (library or load_sdk()).OrqGetSDKVersion(ctypes.byref(text))
        return read_text(text.value)

    def cameras(self) -> List[Camera]:
        """The cameras attached now."""
        pointer, count = ctypes.c_void_p(), ctypes.c_int()
        check(
            self._lib.OrqGetCameraList(self._manager_handle(), ctypes.byref(pointer), ctypes.byref(count)),
            "OrqGetCameraList",
        )
        try:
            records = ctypes.cast(pointer, ctypes.POINTER(CameraInfoRecord))
            return [Camera(self, CameraInfo._from_record(records[i])) for i in range(count.value)]
        finally:
            self._free(pointer.value)

    def camera(self, model: Optional[str] = None, timeout: float = 5.0) -> Camera:
        """The first camera (of that model, if given), waiting up to ``timeout`` seconds for one
        to be attached, since a camera plugged in is listed only once the SDK has enumerated it;
        raises :class:`DeviceNotReady` if none came."""
        deadline = time.monotonic() + max(timeout, 0.0)
        while True:
            for camera in self.cameras():
                if model is None or camera.model == model:
                    return camera
            if time.monotonic() >= deadline:
                break
            time.sleep(0.02)
        raise error_for(Result.DEVICE_NOT_READY, f"no camera{' ' + model if model else ''} attached")

    def shoot_synchronized(self, sessions: Sequence[Session]) -> List[Optional[OrqError]]:
        """Takes a picture with each camera at the same moment (OrqShootSynchronized); blocks
        until every camera's Shoot command is answered, at most about 40 s.

        Returns one entry per session: None where the shot went out, else the error saying why
        not. Each shot ends as :meth:`Session.shoot`'s does, with the ``shoot_completed`` event:
        subscribe before calling to get the files. Not from an SDK callback."""
        if in_callback():
            raise RuntimeError("a synchronised shot inside an SDK callback would wait for itself")
        if not sessions:
            return []
        results = (ctypes.c_int * len(sessions))()
        with contextlib.ExitStack() as stack:
            handles = (ctypes.c_void_p * len(sessions))(
                *[stack.enter_context(session._call()) for session in sessions]
            )
            outcome = self._lib.OrqShootSynchronized(handles, len(sessions), results)
        if outcome != Result.OK and all(result == Result.OK for result in results):
            check(outcome, "OrqShootSynchronized")  # refused as a whole: bad arguments
        return [
            None if result == Result.OK else error_for(result, f"OrqShootSynchronized {session.camera.model}")
            for session, result in zip(sessions, results)
        ]

    def _open_session(self, camera: Camera) -> Session:
        handle = ctypes.c_void_p()
        with self._lock:
            check(
                self._lib.OrqOpenSession(self._manager_handle(), camera.id, ctypes.byref(handle)),
                "OrqOpenSession",
                camera.model,
            )
            session = Session(self, camera, handle.value or 0)
            self._sessions.add(session)
        return session

    def _forget(self, session: Session) -> None:
        with self._lock:
            self._sessions.discard(session)

    def subscribe(self, event: str, callback: Callable[..., None]) -> Subscription:
        """Calls `callback` on an SDK thread for each event of the camera manager:

        - ``"camera_list_changed"``: ``callback(camera: Camera, connected: bool)``
        - ``"camera_init_error"``: ``callback(error: OrqError, path: str)``
        """
        dispatch = self._lib.dispatch
        if event == "camera_list_changed":
            def handler(record: Optional[CameraInfoRecord], state: int) -> None:
                if record is not None:
                    callback(Camera(self, CameraInfo._from_record(record)), state == 0)

            function, thunk = self._lib.OrqCameraListChangedSubscribe, dispatch.camera
        elif event == "camera_init_error":
            def handler(result: int, path: str) -> None:  # type: ignore[misc]
                callback(error_for(result, path), path)

            function, thunk = self._lib.OrqCameraInitializationErrorSubscribe, dispatch.int_path
        else:
            raise ValueError(f"unknown event {event!r}")
        with self._lock:
            manager = self._manager_handle()
            key = dispatch.add(handler)
            handle = function(manager, thunk, key)
            if not handle:
                dispatch.remove(key)
                raise error_for(Result.ERROR, f"subscribing to {event}")
            subscription = Subscription(
                event, dispatch, key, lambda: self._release_subscription(subscription, handle)
            )
            self._subscriptions.add(subscription)
        return subscription

    def _release_subscription(self, subscription: Subscription, handle: int) -> None:
        with self._lock:
            self._subscriptions.discard(subscription)
            self._free(handle)
