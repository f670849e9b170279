"""OrqSDK from Python: remote control of compact cameras over USB.

::

    import orqsdk

    with orqsdk.SDK() as sdk:
        camera = sdk.camera()
        with camera.open() as session:
            session.settings["ISO Speed"] = "ISO 200"
            picture = session.shoot(to_host=True)
            session.download(picture, "shot.jpg", delete_after=True)

The library (liborqsdk.so, orqsdk.dll) is looked for beside this package, then at
$ORQSDK_LIBRARY (a file or a folder), then on the system's library search path.
:mod:`orqsdk.sim` runs the same API over virtual cameras.
"""

from ._errors import (
    BatteryLow,
    ClosedError,
    DeviceNotReady,
    Disconnected,
    NotReady,
    OldModule,
    NoPermission,
    OrqError,
    PropertyConstraint,
    Result,
    SecondProcess,
    SessionBusy,
    UnknownProperty,
)
from ._events import Subscription
from ._lib import Library, LibraryNotFound, load_sdk
from ._preview import Frame
from ._records import CameraInfo, FileInfo
from ._sdk import SDK, Camera
from ._session import Session
from ._settings import Description, Property, Settings

__all__ = [
    "SDK",
    "Camera",
    "CameraInfo",
    "Session",
    "Settings",
    "Description",
    "Property",
    "FileInfo",
    "Frame",
    "Subscription",
    "Library",
    "LibraryNotFound",
    "load_sdk",
    "Result",
    "OrqError",
    "ClosedError",
    "SessionBusy",
    "DeviceNotReady",
    "NotReady",
    "UnknownProperty",
    "PropertyConstraint",
    "BatteryLow",
    "Disconnected",
    "SecondProcess",
    "OldModule",
    "NoPermission",
]

try:  # written into the package when it is built, from the SDK's own version
    from ._version import version as __version__
except ImportError:  # the source folder itself on the path
    __version__ = "unbuilt"
