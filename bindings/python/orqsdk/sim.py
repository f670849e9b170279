"""The SDK over virtual cameras (liborqsdk_sim.so, orqsdk_sim.dll), for tests and demos.

The library is looked for beside the package, then at $ORQSDK_SIM_LIBRARY (a file or a
folder), then on the system's search path. :class:`SDK` is :class:`orqsdk.SDK` on that library;
:class:`VirtualCamera` plugs a camera of a model into its virtual bus::

    from orqsdk import sim

    with sim.SDK() as sdk:
        camera = sim.VirtualCamera("SX160")
        with sdk.camera().open() as session:
            session.shoot()
"""

from __future__ import annotations

import ctypes
from typing import List, Optional

from ._errors import OrqError, Result, check
from ._lib import Library, load_sim
from ._records import OrqChar, field_text, make_text
from ._sdk import SDK as _SDK

__all__ = ["SDK", "VirtualCamera", "Fault", "library", "remove_all"]


def library() -> Library:
    """The virtual-camera SDK library, loaded once."""
    return load_sim()


class SDK(_SDK):
    """:class:`orqsdk.SDK` over the virtual bus."""

    def __init__(self) -> None:
        super().__init__(load_sim())


class Fault(ctypes.Structure):
    """A misbehaviour of the camera on the wire; the kinds are OrqSimFaultKind of orqsdk_sim.h."""

    GENERAL_ERROR, RESPONSE_CODE, ECHO_CODE, DATA_TYPE, DATA_CODE, RESPONSE_TYPE = range(6)
    DATA_LENGTH, RESPONSE_LENGTH, TRUNCATE_DATA, STALL, STALL_RESPONSE, DISCONNECT = range(6, 12)
    RAW_REPLY, DELAY, TRANSFER_STALL, TRANSFER_ERROR, TRANSFER_DISCONNECT = range(12, 17)
    TRANSFER_SHORT = 17
    _fields_ = [
        ("kind", ctypes.c_int32),
        ("opcode", ctypes.c_uint16),
        ("subCommand", ctypes.c_int32),
        ("skip", ctypes.c_int32),
        ("times", ctypes.c_int32),
        ("pipe", ctypes.c_int32),
        ("transfer", ctypes.c_uint32),
        ("value", ctypes.c_uint32),
        ("bytes", ctypes.c_void_p),
        ("byteCount", ctypes.c_uint32),
    ]


def remove_all() -> None:
    """Unplugs and forgets every virtual camera."""
    load_sim().OrqSimRemoveAll()


class VirtualCamera:
    """A virtual camera of a model ("SX160", ...), plugged in when made."""

    def __init__(self, model: str = "SX160") -> None:
        self._lib = load_sim()
        self.model = model
        self.id: int = self._lib.OrqSimAttachCamera(model.encode())
        if not self.id:
            raise OrqError(Result.ERROR, f"OrqSimAttachCamera {model}")

    def _check(self, name: str, *args: object) -> None:
        check(getattr(self._lib, name)(self.id, *args), name)

    @property
    def path(self) -> str:
        """The device path the SDK knows the camera by."""
        buffer = (OrqChar * 256)()
        self._check("OrqSimGetCameraPath", buffer, 256)
        return field_text(buffer)

    def detach(self) -> None:
        """Pulls the cable; the camera keeps its card and settings."""
        self._check("OrqSimDetachCamera")

    def reattach(self) -> None:
        self._check("OrqSimReattachCamera")

    def remove(self) -> None:
        """Pulls the cable and forgets the camera."""
        self._check("OrqSimRemoveCamera")

    def set_mode_wheel(self, raw_mode: int) -> None:
        self._check("OrqSimSetModeWheel", raw_mode)

    def set_camera_mode(self, mode: int) -> None:
        """1: record, otherwise play."""
        self._check("OrqSimSetCameraMode", mode)

    def set_battery(self, current: int, maximum: int, minimum: int) -> None:
        self._check("OrqSimSetBattery", current, maximum, minimum)

    def set_prop_case(self, prop_case: int, raw: int) -> None:
        self._check("OrqSimSetPropCase", prop_case, raw)

    def prop_case(self, prop_case: int) -> int:
        raw = ctypes.c_int32()
        self._check("OrqSimGetPropCase", prop_case, ctypes.byref(raw))
        return raw.value

    def set_zoom(self, position: int) -> None:
        """The lens moved at the camera itself."""
        self._check("OrqSimSetZoom", position)

    def set_focus(self, position: int) -> None:
        self._check("OrqSimSetFocus", position)

    def add_file(self, name: str, data: bytes) -> int:
        """Puts a file on the card; returns its object handle."""
        buffer = ctypes.create_string_buffer(data, len(data))
        handle = self._lib.OrqSimAddFile(self.id, make_text(name), buffer, len(data))
        if handle < 0:
            raise OrqError(Result.ERROR, f"OrqSimAddFile {name}")
        return int(handle)

    def delete_file(self, handle: int) -> None:
        self._check("OrqSimDeleteFile", handle)

    @property
    def file_count(self) -> int:
        """Files on the card, folders not counted."""
        return int(self._lib.OrqSimGetFileCount(self.id))

    def inject_fault(self, fault: Fault) -> None:
        self._check("OrqSimInjectFault", ctypes.byref(fault))

    def clear_faults(self) -> None:
        self._check("OrqSimClearFaults")

    def set_latency(self, per_transfer_us: int, per_byte_ns: int) -> None:
        self._check("OrqSimSetLatency", per_transfer_us, per_byte_ns)

    def count_operations(self, opcode: int, sub_command: Optional[int] = None) -> int:
        """Operations received of that code (and vendor sub-command) since attach or clear."""
        return int(self._lib.OrqSimCountOperations(self.id, opcode, -1 if sub_command is None else sub_command))

    def clear_operations(self) -> None:
        self._check("OrqSimClearOperations")

    def shoot_times(self) -> List[int]:
        """When the camera received each Shoot command since attach or :meth:`clear_operations`,
        oldest first (the latest 4096), in nanoseconds of one monotonic clock that every virtual
        camera of the process shares: the spread of a synchronised shot, seen from the cameras."""
        held = int(self._lib.OrqSimGetShootTimes(self.id, None, 0))
        if held < 0:
            raise OrqError(Result.ERROR, "OrqSimGetShootTimes: unknown camera")
        times = (ctypes.c_int64 * max(held, 1))()
        got = int(self._lib.OrqSimGetShootTimes(self.id, times, held))
        return list(times[: min(got, held)])

    def __repr__(self) -> str:
        return f"<VirtualCamera {self.model} #{self.id}>"
