"""Sessions, handles and the release of what the SDK hands out."""

import gc
import threading

import pytest

import orqsdk
from orqsdk import sim


@pytest.fixture
def no_gc():
    # What the package hands back must go back when it is closed, not when the cyclic collector
    # happens to run: with the collector off, a release left to it never comes before the SDK stops.
    gc.collect()
    gc.disable()
    yield
    gc.enable()


def test_session_and_sdk_close_and_use_after_close(sdk, camera, sdk_log, no_gc):
    listed = sdk.camera("SX160")
    assert (listed.model, listed.path) == ("SX160", camera.path)
    assert listed.serial
    session = listed.open()
    with pytest.raises(orqsdk.SessionBusy) as busy:
        listed.open()
    assert busy.value.name == "ORQ_SESSION_BUSY"
    subscription = session.subscribe("preview", lambda: None)
    session.close()
    session.close()
    assert not subscription.active
    for use in (lambda: session.settings["ISO Speed"], session.shoot, session.files):
        with pytest.raises(orqsdk.ClosedError):
            use()
    # The SDK saw the session end: the camera opens again.
    with listed.open() as again:
        assert again.settings["Shooting Mode"] == "Auto"
    # Closing the SDK closes what is still open, and what was handed out goes back exactly once.
    left = listed.open()
    left.subscribe("shoot_completed", lambda file: None)
    left.settings.describe("ISO Speed")
    sdk.close()
    sdk.close()
    assert left.closed
    with pytest.raises(orqsdk.ClosedError):
        left.settings["ISO Speed"]
    with pytest.raises(orqsdk.ClosedError):
        sdk.cameras()
    left.close()
    assert "OrqFree: unknown pointer" not in sdk_log()
    # The SDK frees at termination what is still out, on the thread that stops it: this one.
    assert "active free func" not in sdk_log(own=True)
    # A second SDK in the same process starts after the first stopped.
    with sim.SDK() as second:
        with second.camera().open() as reopened:
            assert reopened.settings["Shooting Mode"] == "Auto"


def test_a_call_in_flight_hands_back_before_the_sdk_stops(sdk, camera, sdk_log, no_gc, monkeypatch):
    # A property list held by a call on another thread while the session and then the SDK close,
    # as a callback's call may be: the SDK stops only once that call has read and handed back the
    # list and the session's handle.
    session = sdk.camera().open()
    library = sdk.library
    free, terminate = library.OrqFree, library.OrqTerminateSDK
    inside, stopped = threading.Event(), threading.Event()

    def held_free(address):
        if threading.current_thread() is worker and not inside.is_set():  # the list
            inside.set()
            # Bounded: the SDK stopping meanwhile is the fault; right, the close waits for this.
            stopped.wait(1.0)
        free(address)

    def stop():
        terminate()
        stopped.set()

    monkeypatch.setattr(library, "OrqFree", held_free, raising=False)
    monkeypatch.setattr(library, "OrqTerminateSDK", stop, raising=False)
    listed = []
    worker = threading.Thread(target=lambda: listed.extend(session.settings.ids()))
    worker.start()
    assert inside.wait(10)
    session.close()
    sdk.close()
    worker.join(10)
    assert not worker.is_alive() and orqsdk.Property.ISO_SPEED in listed
    assert "OrqFree: unknown pointer" not in sdk_log()
    assert "active free func" not in sdk_log(own=True)
