"""Camera settings by name: ``session.settings["ISO Speed"] = "ISO 400"``."""

from __future__ import annotations

import ctypes
import enum
import threading
from dataclasses import dataclass
from typing import (
    Callable,
    ContextManager,
    Dict,
    Iterator,
    List,
    MutableMapping,
    Optional,
    Tuple,
    Union,
)

from ._errors import PropertyConstraint, Result, UnknownProperty
from ._lib import Library
from ._records import PropertyDescRecord, read_text

Key = Union[str, int]


class Property(enum.IntEnum):
    """Property ids, the same on every model (the C header's ``ORQ_PROP_...``); a model offers a
    subset. Usable as settings keys: ``session.settings[Property.ISO_SPEED]``."""

    SHOOTING_MODE = 0
    IMAGE_SIZE = 1
    JPEG_QUALITY = 2
    METERING_MODE = 3
    WB_MODE = 4
    FLASH_MODE = 5
    RED_EYE_MODE = 6
    ISO_SPEED = 7
    AV = 8
    TV = 9
    EXPOSURE_COMPENSATION = 10
    FLASH_COMPENSATION = 11
    BATTERY_LEVEL = 13
    FOCUSING_ZONE = 14
    MY_COLORS = 15
    CONTRAST = 16
    SHARPNESS = 17
    SATURATION = 18
    RED = 19
    GREEN = 20
    BLUE = 21
    SKIN_TONE = 22
    FLASH_POWER = 23
    DIRECT_TRANSFER = 24
    MANUAL_FOCUS_MODE = 25


# Property ids are small; the names are fixed in the library, so they are read once.
_ID_LIMIT = 64
_names: Dict[int, Dict[int, str]] = {}
_names_lock = threading.Lock()


def property_names(library: Library) -> Dict[int, str]:
    """Every property id the library names, with its name."""
    with _names_lock:
        table = _names.get(id(library))
        if table is None:
            table = {}
            for prop in range(_ID_LIMIT):
                text = ctypes.c_void_p()
                if library.OrqGetPropertyName(prop, ctypes.byref(text)) == Result.OK:
                    table[prop] = read_text(text.value)
            _names[id(library)] = table
        return table


def value_name(library: Library, prop: int, value: int) -> Optional[str]:
    """The name of a property's value, None if the library names none."""
    text = ctypes.c_void_p()
    if library.OrqGetPropertyValName(prop, value, ctypes.byref(text)) != Result.OK:
        return None
    return read_text(text.value)


@dataclass(frozen=True)
class Description:
    """What a property offers now."""

    id: int
    name: str
    values: Tuple[str, ...]  # names of the values on offer, in the camera's order
    raw_values: Tuple[int, ...]  # the same values as numbers
    sizes: Tuple[Tuple[int, int], ...]  # (width, height) of each value, for Image Size only
    read_only: bool


class Settings(MutableMapping[str, str]):
    """The camera's settings as a mapping from property name to value name.

    Keys are property names (``"ISO Speed"``) or ids; reading gives the value's name, writing
    takes a value name or the number. Iteration lists the properties on offer now. Writes are
    checked by the SDK at once and reach the camera shortly after.

    Made by the session, which hands in what the settings need of it: `call` gives its handle
    for one SDK call, `check` turns a result into its exception, `free` releases what the SDK
    allocated; `owner` names the session in the repr.
    """

    def __init__(
        self,
        library: Library,
        call: Callable[[], ContextManager[int]],
        check: Callable[..., None],
        free: Callable[[Optional[int]], None],
        owner: object = None,
    ) -> None:
        self._lib = library
        self._call = call
        self._check = check
        self._free = free
        self._owner = owner

    def id_of(self, key: Key) -> int:
        """The property id of a name or id; raises :class:`UnknownProperty` for an unknown name."""
        if isinstance(key, int):
            return int(key)
        for prop, name in property_names(self._lib).items():
            if name == key:
                return prop
        raise UnknownProperty(Result.UNKNOWN_PROPERTY, f"no property named {key!r}")

    def name_of(self, prop: int) -> str:
        return property_names(self._lib).get(prop, str(prop))

    def raw(self, key: Key) -> int:
        """The property's current value as a number."""
        prop = self.id_of(key)
        value = ctypes.c_int()
        with self._call() as handle:
            self._check(self._lib.OrqGetPropertyData(handle, prop, ctypes.byref(value)), "OrqGetPropertyData", self.name_of(prop))
        return value.value

    def set_raw(self, key: Key, value: int) -> None:
        """Sets the property to a number; the SDK refuses values not on offer."""
        prop = self.id_of(key)
        with self._call() as handle:
            self._check(self._lib.OrqSetPropertyData(handle, prop, int(value)), "OrqSetPropertyData", f"{self.name_of(prop)} = {value}")

    def describe(self, key: Key) -> Description:
        """The values on offer now and whether the property is read-only."""
        prop = self.id_of(key)
        pointer = ctypes.c_void_p()
        # Read and released inside the call: a close meanwhile waits for it, and the SDK is not
        # stopped while the record is still being read or not yet handed back.
        with self._call() as handle:
            result = self._lib.OrqGetPropertyDesc(handle, prop, ctypes.byref(pointer))
            try:
                self._check(result, "OrqGetPropertyDesc", self.name_of(prop))
                record = ctypes.cast(pointer, ctypes.POINTER(PropertyDescRecord)).contents
                raw = tuple(int(record.values[i]) for i in range(record.count))
                # Sizes come with Image Size alone, one for each of its values.
                sizes = tuple((record.sizes[i].width, record.sizes[i].height) for i in range(record.count)) if record.sizes else ()
                read_only = bool(record.readOnly)
            finally:
                self._free(pointer.value)
        names = tuple(value_name(self._lib, prop, value) or str(value) for value in raw)
        return Description(prop, self.name_of(prop), names, raw, sizes, read_only)

    def __getitem__(self, key: Key) -> str:  # type: ignore[override]
        prop = self.id_of(key)
        value = self.raw(prop)
        return value_name(self._lib, prop, value) or str(value)

    def __setitem__(self, key: Key, value: Union[str, int]) -> None:  # type: ignore[override]
        prop = self.id_of(key)
        if isinstance(value, str):
            description = self.describe(prop)
            if value not in description.values:
                raise PropertyConstraint(
                    Result.PROPERTY_CONSTRAINT,
                    f"{value!r} is not on offer for {description.name}; on offer: {', '.join(description.values)}",
                )
            value = description.raw_values[description.values.index(value)]
        self.set_raw(prop, value)

    def __delitem__(self, key: Key) -> None:  # type: ignore[override]
        raise TypeError("camera settings cannot be deleted")

    def ids(self) -> List[int]:
        """Ids of the properties on offer now."""
        pointer, count = ctypes.c_void_p(), ctypes.c_int()
        with self._call() as handle:
            result = self._lib.OrqGetPropertyList(handle, ctypes.byref(pointer), ctypes.byref(count))
            try:
                self._check(result, "OrqGetPropertyList")
                values = ctypes.cast(pointer, ctypes.POINTER(ctypes.c_int32))
                return [int(values[i]) for i in range(count.value)]
            finally:
                self._free(pointer.value)

    def __iter__(self) -> Iterator[str]:
        return iter([self.name_of(prop) for prop in self.ids()])

    def __len__(self) -> int:
        return len(self.ids())

    def __contains__(self, key: object) -> bool:
        if not isinstance(key, (str, int)):
            return False
        try:
            return self.id_of(key) in self.ids()
        except UnknownProperty:
            return False

    def __repr__(self) -> str:
        return f"<Settings of {self._owner!r}>"
