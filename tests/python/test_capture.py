"""Shots to the card and to the host, downloads, live view and callbacks."""

import logging
import os
import threading
import time

import pytest

import orqsdk
from orqsdk import sim


def test_shots_to_card_and_host(session, camera, tmp_path):
    on_card = camera.file_count
    card = session.shoot(timeout=10)
    assert camera.file_count == on_card + 1 and card in session.files()
    saved = session.download(card, tmp_path)
    assert saved == tmp_path / card.name and saved.stat().st_size == card.size
    with pytest.raises(FileNotFoundError):
        session.download(card, tmp_path / "missing" / "card.jpg")

    host = session.shoot(to_host=True, timeout=10)
    assert host.on_host and camera.file_count == on_card + 1
    assert session.settings["Direct Transfer"] == "Off"
    saved = session.download(host, tmp_path / "host.jpg", delete_after=True)
    data = saved.read_bytes()
    assert data[:2] == b"\xff\xd8" and len(data) == host.size
    with pytest.raises(orqsdk.OrqError):
        session.download(host, tmp_path / "again.jpg")


def test_live_view_frames(session):
    frame = session.next_frame(timeout=5)
    assert (frame.width, frame.height) == (320, 240)
    assert frame.data[:2] == b"BM" and len(frame.data) == 320 * 240 * 3 + 54
    assert len(frame.rgb()) == 320 * 240 * 3
    numpy = pytest.importorskip("numpy")
    pixels = frame.to_numpy()
    assert pixels.shape == (240, 320, 3) and pixels.dtype == numpy.uint8
    assert pixels.tobytes() == frame.rgb()


def test_exception_in_callback_does_not_stop_later_callbacks(session, caplog):
    calls = {"raising": 0, "counting": 0}

    def raising():
        calls["raising"] += 1
        session.shoot(timeout=1)  # refused: its completion would come on this thread

    def counting():
        calls["counting"] += 1

    session.subscribe("preview", raising)
    session.subscribe("preview", counting)
    with caplog.at_level(logging.ERROR, logger="orqsdk"):
        session.preview = True
        deadline = time.monotonic() + 5
        while min(calls.values()) < 3 and time.monotonic() < deadline:
            time.sleep(0.02)
    assert min(calls.values()) >= 3
    assert "inside an SDK callback" in caplog.text
    assert session.next_frame().width == 320


def test_synchronised_shot_fires_every_camera_together(sdk):
    cameras = [sim.VirtualCamera(model) for model in ("SX160", "A810", "G15")]
    deadline = time.monotonic() + 10
    while len(sdk.cameras()) < len(cameras) and time.monotonic() < deadline:
        time.sleep(0.02)
    sessions = [camera.open() for camera in sdk.cameras()]
    # A slow link on one camera: shots fired in turn would reach it most of a second late.
    cameras[2].set_latency(20_000, 0)
    counts = [camera.file_count for camera in cameras]
    shot = threading.Semaphore(0)
    for session in sessions:
        session.subscribe("shoot_completed", lambda file: shot.release())
    assert sdk.shoot_synchronized(sessions) == [None, None, None]
    assert all(shot.acquire(timeout=10) for _ in sessions)
    assert [camera.file_count for camera in cameras] == [count + 1 for count in counts]
    times = [camera.shoot_times() for camera in cameras]
    assert all(len(one) == 1 for one in times), times
    starts = [one[0] for one in times]
    # When the Shoot commands reached the cameras: together, not one preparation apart.
    assert max(starts) - min(starts) < 150_000_000, starts
    sessions[0].close()
    with pytest.raises(orqsdk.ClosedError):
        sdk.shoot_synchronized(sessions)
    assert sdk.shoot_synchronized([]) == []
