"""Result codes of the SDK and the exceptions that carry them."""

from __future__ import annotations

import enum
from typing import Dict, Optional, Type


class Result(enum.IntEnum):
    """The SDK's result codes; the names are those of the C header without the prefix."""

    OK = 0
    ERROR = 1
    SESSION_BUSY = 2
    DEVICE_NOT_READY = 3
    NOT_READY = 4
    UNKNOWN_PROPERTY = 6
    PROPERTY_CONSTRAINT = 7
    BATTERY_LOW = 8
    DISCONNECTED = 9
    SECOND_PROCESS = 10
    OLD_MODULE = 13
    NO_PERMISSION = 14
    TOO_LATE = 15

    @property
    def c_name(self) -> str:
        """The name the C header gives, e.g. ``ORQ_DISCONNECTED``."""
        return "ORQ_" + self.name


class OrqError(Exception):
    """A call into the SDK did not succeed.

    ``result`` is the SDK's code (a :class:`Result`, or a bare int for a code this package does not
    know) and ``name`` its C name, e.g. ``ORQ_PROPERTY_CONSTRAINT``.
    """

    def __init__(self, result: int, message: str = "") -> None:
        try:
            self.result: int = Result(result)
            self.name = Result(result).c_name
        except ValueError:
            self.result = result
            self.name = f"ORQ_RESULT_{result}"
        self.message = message
        super().__init__(f"{self.name} ({result})" + (f": {message}" if message else ""))

    def __str__(self) -> str:
        return str(self.args[0])


class SessionBusy(OrqError):
    """The camera's session is already open; for video, a shot is under way."""


class DeviceNotReady(OrqError):
    """The camera is not there, not started, or no longer connected."""


class NotReady(OrqError):
    """No live-view frame has been fetched yet."""


class UnknownProperty(OrqError, KeyError):
    """The camera or its model does not have that property."""


class PropertyConstraint(OrqError):
    """The value is not one the property accepts now."""


class BatteryLow(OrqError):
    """The camera's battery is below the working level."""


class Disconnected(OrqError):
    """The camera has gone from the bus."""


class SecondProcess(OrqError):
    """Another process on this machine runs the SDK."""


class OldModule(OrqError):
    """The module on the camera is older than the SDK requires."""


class NoPermission(OrqError):
    """The camera cannot be opened for lack of permission (install the SDK's udev rule)."""


class ClosedError(OrqError):
    """The session or SDK object was closed; the SDK answers a closed session with ERROR too."""

    def __init__(self, message: str) -> None:
        super().__init__(Result.ERROR, message)


_BY_RESULT: Dict[int, Type[OrqError]] = {
    Result.SESSION_BUSY: SessionBusy,
    Result.DEVICE_NOT_READY: DeviceNotReady,
    Result.NOT_READY: NotReady,
    Result.UNKNOWN_PROPERTY: UnknownProperty,
    Result.PROPERTY_CONSTRAINT: PropertyConstraint,
    Result.BATTERY_LOW: BatteryLow,
    Result.DISCONNECTED: Disconnected,
    Result.SECOND_PROCESS: SecondProcess,
    Result.OLD_MODULE: OldModule,
    Result.NO_PERMISSION: NoPermission,
}


def error_for(result: int, message: str = "") -> OrqError:
    """The exception of the right class for a non-OK result."""
    return _BY_RESULT.get(result, OrqError)(result, message)


def check(result: int, call: str, detail: Optional[str] = None) -> None:
    """Raises for any result but OK, naming the C function."""
    if result != Result.OK:
        raise error_for(result, call + (f" {detail}" if detail else ""))
