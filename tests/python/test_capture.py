"""Shots to the card and to the host, downloads, live view and callbacks."""

import logging
import os
import time

import pytest

import orqsdk


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
