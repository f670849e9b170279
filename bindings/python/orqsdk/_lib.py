"""Finding and loading the SDK library, with the C functions declared as _records lists them."""

from __future__ import annotations

import ctypes
import os
import sys
import threading
from pathlib import Path
from typing import Dict, List

from ._events import Dispatch
from ._records import API, SIM_API


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
        for name, (restype, argtypes) in {**API, **(SIM_API if sim else {})}.items():
            function = getattr(dll, name)
            function.restype = restype
            function.argtypes = argtypes
        # The library outlives every SDK object (it is never unloaded), so the one set of
        # callback thunks made here stays valid for any late call from an SDK thread.
        self.dispatch = Dispatch(dll.OrqFree)

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
