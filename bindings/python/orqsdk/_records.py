"""What the package and the SDK hand each other: the C records and callback types, the C
functions' declarations, 16-bit text, and the plain records built from the C ones.

Imports no other module of the package, so that every one of them can import it.
"""

from __future__ import annotations

import ctypes
from dataclasses import dataclass
from typing import Optional

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

# The C functions, name: (result type, argument types). Handles are plain void pointers here.
API = {
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

SIM_API = {
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


@dataclass(frozen=True)
class FileInfo:
    """A file on the camera's card (``id`` >= 0) or a picture held on the host (``id`` < 0)."""

    id: int
    name: str
    size: int

    @property
    def on_host(self) -> bool:
        """True for a picture shot straight to the host, held in the SDK's memory."""
        return self.id < 0

    @classmethod
    def _from_record(cls, record: FileInfoRecord) -> "FileInfo":
        return cls(int(record.id), field_text(record.name), int(record.size))


@dataclass(frozen=True)
class CameraInfo:
    """What the SDK knows of a camera: the product name it reports and the strings it read."""

    id: int
    name: str
    path: str
    version: str
    serial: str

    @property
    def model(self) -> str:
        """The model code, the last word of the product name (e.g. ``SX160``)."""
        words = self.name.split()
        return words[-1] if words else ""

    @classmethod
    def _from_record(cls, record: CameraInfoRecord) -> "CameraInfo":
        return cls(
            int(record.id),
            field_text(record.name),
            field_text(record.path),
            field_text(record.version),
            field_text(record.serial),
        )
