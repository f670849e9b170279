"""Finding and loading the SDK library, and the C declarations the package calls through."""

from __future__ import annotations

import ctypes
import os
import sys
import threading
from pathlib import Path
from typing import Dict, List, Optional

OrqChar = ctypes.c_uint16  # 16-bit units on every platform; ctypes.c_wchar is 4 bytes on Linux


class CameraInfoRecord(ctypes.Structure):
    _fields_ = [
        ("id", ctypes.c_uint32),
        ("name", OrqChar * 128),
        ("path", OrqChar * 256),
        ("version", OrqChar * 256),
        ("serial", OrqChar * 64),
    ]


class FileInfoRecord(ctypes.Structure):
    _fields_ = [("id", ctypes.c_int32), ("name", OrqChar * 128), ("size", ctypes.c_uint32)]


class SizeRecord(ctypes.Structure):
    _fields_ = [("width", ctypes.c_int32), ("height", ctypes.c_int32)]


class PropertyDescRecord(ctypes.Structure):
    _fields_ = [
        ("values", ctypes.POINTER(ctypes.c_int32)),
        ("sizes", ctypes.POINTER(SizeRecord)),
        ("count", ctypes.c_int32),
        ("readOnly", ctypes.c_uint8),
    ]


# Callback types, one per signature of the C API.
NotifyCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p)
IntCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int)
IntPathCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_void_p)
FileCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(FileInfoRecord))
CameraCallback = ctypes.CFUNCTYPE(
    None, ctypes.c_void_p, ctypes.POINTER(CameraInfoRecord), ctypes.c_int
)

_p = ctypes.c_void_p
_i = ctypes.c_int
_pi = ctypes.POINTER(ctypes.c_int)
_pp = ctypes.POINTER(ctypes.c_void_p)

# name: (result type, argument types). Handles are plain void pointers here.
_API = {
    "OrqInitializeSDK": (_i, []),
    "OrqTerminateSDK": (None, []),
    "OrqGetSDKVersion": (None, [_pp]),
    "OrqFree": (None, [_p]),
    "OrqGetCameraManager": (_p, []),
    "OrqCameraListChangedSubscribe": (_p, [_p, CameraCallback, _p]),
    "OrqCameraInitializationErrorSubscribe": (_p, [_p, IntPathCallback, _p]),
    "OrqGetCameraList": (_i, [_p, _pp, _pi]),
    "OrqOpenSession": (_i, [_p, _i, _pp]),
    "OrqGetCameraConnectionState": (_i, [_p, _pi]),
    "OrqGetCameraInfo": (_i, [_p, ctypes.POINTER(CameraInfoRecord)]),
    "OrqResetCamera": (_i, [_p]),
    "OrqCameraErrorSubscribe": (_p, [_p, IntCallback, _p]),
    "OrqUpdateAEAF": (_i, [_p]),
    "OrqShoot": (_i, [_p]),
    "OrqShootSynchronized": (_i, [_pp, _i, _pi]),
    "OrqShootCompletedSubscribe": (_p, [_p, FileCallback, _p]),
    "OrqGetFileList": (_i, [_p, _pp, _pi]),
    "OrqDownloadFile": (_i, [_p, _i, _i]),
    "OrqDownloadFileTo": (_i, [_p, _i, _p, _i]),
    "OrqDeleteFile": (_i, [_p, _i]),
    "OrqDownloadCompletedSubscribe": (_p, [_p, IntPathCallback, _p]),
    "OrqIsVideoSupported": (_i, [_p]),
    "OrqStartVideo": (_i, [_p]),
    "OrqStopVideo": (_i, [_p, ctypes.POINTER(FileInfoRecord)]),
    "OrqGetPropertyData": (_i, [_p, _i, _pi]),
    "OrqSetPropertyData": (_i, [_p, _i, _i]),
    "OrqGetPropertyList": (_i, [_p, _pp, _pi]),
    "OrqGetPropertyDesc": (_i, [_p, _i, _pp]),
    "OrqPropertyListChangedSubscribe": (_p, [_p, NotifyCallback, _p]),
    "OrqPropertyChangedSubscribe": (_p, [_p, IntCallback, _p]),
    "OrqGetPropertyName": (_i, [_i, _pp]),
    "OrqGetPropertyValName": (_i, [_i, _i, _pp]),
    "OrqGetMaximumZoom": (_i, [_p, _pi]),
    "OrqGetZoom": (_i, [_p, _pi]),
    "OrqSetZoom": (_i, [_p, _i]),
    "OrqZoomChangedSubscribe": (_p, [_p, NotifyCallback, _p]),
    "OrqZoomCompletedSubscribe": (_p, [_p, NotifyCallback, _p]),
    "OrqGetFocus": (_i, [_p, _pi]),
    "OrqSetFocus": (_i, [_p, _i]),
    "OrqFocusShift": (_i, [_p, _i]),
    "OrqFocusChangedSubscribe": (_p, [_p, NotifyCallback, _p]),
    "OrqGetPreviewFrame": (_i, [_p, _pp, _pi]),
    "OrqSetPreviewState": (_i, [_p, _i]),
    "OrqGetPreviewState": (_i, [_p, _pi]),
    "OrqNewPreviewFrameSubscribe": (_p, [_p, NotifyCallback, _p]),
}

_SIM_API = {
    "OrqSimAttachCamera": (ctypes.c_int32, [ctypes.c_char_p]),
    "OrqSimDetachCamera": (_i, [ctypes.c_int32]),
    "OrqSimReattachCamera": (_i, [ctypes.c_int32]),
    "OrqSimRemoveCamera": (_i, [ctypes.c_int32]),
    "OrqSimRemoveAll": (None, []),
    "OrqSimGetCameraPath": (_i, [ctypes.c_int32, ctypes.POINTER(OrqChar), _i]),
    "OrqSimSetModeWheel": (_i, [ctypes.c_int32, ctypes.c_int32]),
    "OrqSimSetCameraMode": (_i, [ctypes.c_int32, ctypes.c_int32]),
    "OrqSimSetBattery": (_i, [ctypes.c_int32, ctypes.c_int32, ctypes.c_int32, ctypes.c_int32]),
    "OrqSimSetPropCase": (_i, [ctypes.c_int32, ctypes.c_int32, ctypes.c_int32]),
    "OrqSimGetPropCase": (_i, [ctypes.c_int32, ctypes.c_int32, ctypes.POINTER(ctypes.c_int32)]),
    "OrqSimSetZoom": (_i, [ctypes.c_int32, ctypes.c_int32]),
    "OrqSimSetFocus": (_i, [ctypes.c_int32, ctypes.c_int32]),
    "OrqSimAddFile": (ctypes.c_int32, [ctypes.c_int32, ctypes.POINTER(OrqChar), _p, ctypes.c_uint32]),
    "OrqSimDeleteFile": (_i, [ctypes.c_int32, ctypes.c_int32]),
    "OrqSimGetFileCount": (ctypes.c_int32, [ctypes.c_int32]),
    "OrqSimInjectFault": (_i, [ctypes.c_int32, _p]),
    "OrqSimClearFaults": (_i, [ctypes.c_int32]),
    "OrqSimSetLatency": (_i, [ctypes.c_int32, ctypes.c_uint32, ctypes.c_uint32]),
    "OrqSimCountOperations": (ctypes.c_int32, [ctypes.c_int32, ctypes.c_uint16, ctypes.c_int32]),
    "OrqSimClearOperations": (_i, [ctypes.c_int32]),
    "OrqSimGetShootTimes": (ctypes.c_int32, [ctypes.c_int32, ctypes.POINTER(ctypes.c_int64), ctypes.c_int32]),
}


def read_text(address: Optional[int]) -> str:
    """The NUL-terminated 16-bit text at `address` (the SDK's OrqChar*)."""
    if not address:
        return ""
    units = ctypes.cast(address, ctypes.POINTER(OrqChar))
    length = 0
    while units[length]:
        length += 1
    return ctypes.string_at(address, 2 * length).decode("utf-16-le", "replace")


def field_text(units: "ctypes.Array[ctypes.c_uint16]") -> str:
    """Text of a fixed OrqChar field of a record, up to its NUL."""
    return bytes(units).decode("utf-16-le", "replace").split("\0", 1)[0]


def make_text(text: str) -> "ctypes.Array[ctypes.c_uint16]":
    """A NUL-terminated OrqChar buffer holding `text`."""
    data = text.encode("utf-16-le")
    buffer = (OrqChar * (len(data) // 2 + 1))()
    ctypes.memmove(buffer, data, len(data))
    return buffer


class LibraryNotFound(OSError):
    """No SDK library could be loaded; the message names every place that was tried."""


def _file_names(base: str) -> List[str]:
    if sys.platform == "win32":
        return [f"{base}.dll"]
    if sys.platform == "darwin":
        return [f"lib{base}.dylib"]
    return [f"lib{base}.so"]


class Library:
    """One loaded SDK library with its C functions declared."""

    def __init__(self, dll: ctypes.CDLL, path: str, sim: bool) -> None:
        self.dll = dll
        self.path = path
        self.sim = sim
        for name, (restype, argtypes) in {**_API, **(_SIM_API if sim else {})}.items():
            function = getattr(dll, name)
            function.restype = restype
            function.argtypes = argtypes
        # The library outlives every SDK object (it is never unloaded), so the one set of
        # callback thunks made here stays valid for any late call from an SDK thread.
        from . import _events

        self.dispatch = _events.Dispatch(self)

    def __getattr__(self, name: str):  # the C functions, e.g. lib.OrqShoot
        return getattr(self.dll, name)


_loaded: Dict[str, Library] = {}
_load_lock = threading.Lock()


def load(base: str, variable: str, sim: bool = False) -> Library:
    """Loads lib`base` once: beside the package, then $`variable`, then the system's search."""
    with _load_lock:
        if base in _loaded:
            return _loaded[base]
        tried: List[str] = []
        candidates: List[str] = []
        here = Path(__file__).resolve().parent
        candidates += [str(here / name) for name in _file_names(base) if (here / name).is_file()]
        tried += [str(here / name) for name in _file_names(base)]
        configured = os.environ.get(variable)
        if configured:
            target = Path(configured)
            if target.is_dir():
                target = target / _file_names(base)[0]
            candidates.append(str(target))
            tried.append(f"${variable}={configured}")
        else:
            tried.append(f"${variable} (not set)")
        candidates += _file_names(base)
        tried += [f"{name} on the system's library search path" for name in _file_names(base)]
        errors: List[str] = []
        for candidate in candidates:
            try:
                dll = ctypes.CDLL(candidate)
            except OSError as error:
                errors.append(str(error))
                continue
            library = Library(dll, candidate, sim)
            _loaded[base] = library
            return library
        raise LibraryNotFound(
            f"cannot load the OrqSDK library {_file_names(base)[0]}; looked for: "
            + "; ".join(tried)
            + ". Errors: "
            + " | ".join(errors)
        )


def load_sdk() -> Library:
    return load("orqsdk", "ORQSDK_LIBRARY")


def load_sim() -> Library:
    return load("orqsdk_sim", "ORQSDK_SIM_LIBRARY", sim=True)
