"""Fixtures over the virtual-camera SDK library, found through $ORQSDK_SIM_LIBRARY."""

import os
import sys
import threading
from pathlib import Path

import pytest

try:
    import orqsdk  # noqa: F401 - installed
except ImportError:
    sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "bindings" / "python"))

from orqsdk import sim


@pytest.fixture(scope="session", autouse=True)
def state_folder(tmp_path_factory):
    # The SDK writes its logs there; it is read when the library first logs.
    folder = tmp_path_factory.mktemp("state")
    os.environ["XDG_STATE_HOME"] = str(folder)
    return folder


@pytest.fixture
def sdk_log(state_folder):
    """The SDK's main log as written since the test began."""
    path = state_folder / "orqdll.log"
    start = path.stat().st_size if path.exists() else 0

    def read(own=False):
        """`own`: only the lines the calling thread logged (each line ends with its thread's
        id), as other processes of the run (the rig tests' nodes) write to the same log."""
        with open(path, "rb") as log:
            log.seek(start)
            text = log.read().decode("utf-8", "replace")
        if own:
            mark = "[%d]" % threading.get_native_id()
            text = "".join(line for line in text.splitlines(True) if line.rstrip().endswith(mark))
        return text

    return read


@pytest.fixture
def sdk():
    sim.remove_all()
    with sim.SDK() as started:
        yield started
    sim.remove_all()


@pytest.fixture
def camera(sdk):
    return sim.VirtualCamera("SX160")


@pytest.fixture
def session(sdk, camera):
    with sdk.camera().open() as opened:
        yield opened
