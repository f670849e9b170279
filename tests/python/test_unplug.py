"""A camera pulled from the bus in the middle of a session."""

import threading
import time

import pytest

import orqsdk
from orqsdk import sim


def test_unplug_mid_shot_raises_disconnected(session, camera):
    # The shot's answer is late, and the cable is pulled meanwhile.
    camera.inject_fault(sim.Fault(kind=sim.Fault.DELAY, opcode=0x9999, subCommand=147, value=3000))
    threading.Timer(0.3, camera.detach).start()
    started = time.monotonic()
    with pytest.raises(orqsdk.Disconnected) as unplugged:
        session.shoot(timeout=10)
    assert unplugged.value.name == "ORQ_DISCONNECTED"
    assert time.monotonic() - started < 2.5
    with pytest.raises(orqsdk.Disconnected):
        session.settings["ISO Speed"]
    assert not session.connected
