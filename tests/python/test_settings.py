"""Settings by name and value name, and the refusals."""

import time

import pytest

import orqsdk

ISO_CASE = 149  # where the SX160 keeps its ISO speed


def _camera_case(camera, case, expected):
    deadline = time.monotonic() + 3
    while camera.prop_case(case) != expected and time.monotonic() < deadline:
        time.sleep(0.02)
    return camera.prop_case(case)


def test_settings_by_name(session, camera):
    session.settings["ISO Speed"] = "ISO 400"
    assert session.settings["ISO Speed"] == "ISO 400"
    assert _camera_case(camera, ISO_CASE, 400) == 400
    session.settings[7] = 200
    assert _camera_case(camera, ISO_CASE, 200) == 200
    iso = session.settings.describe("ISO Speed")
    assert "ISO 1600" in iso.values and not iso.read_only
    assert session.settings.describe("Battery Level").read_only
    assert session.settings.describe("Image Size").sizes[0] == (4608, 3456)
    assert "ISO Speed" in dict(session.settings)


@pytest.mark.parametrize(
    "name, value, error, result",
    [
        ("Image Size", "Huge", orqsdk.PropertyConstraint, "ORQ_PROPERTY_CONSTRAINT"),
        ("ISO Speed", 12345, orqsdk.PropertyConstraint, "ORQ_PROPERTY_CONSTRAINT"),
        ("Battery Level", None, orqsdk.OrqError, "ORQ_ERROR"),
        ("Loudness", "High", orqsdk.UnknownProperty, "ORQ_UNKNOWN_PROPERTY"),
    ],
)
def test_settings_refusals(session, camera, name, value, error, result):
    before = dict(session.settings)
    iso_case = camera.prop_case(ISO_CASE)
    with pytest.raises(error) as refused:
        session.settings[name] = before[name] if value is None else value
    assert refused.value.name == result
    assert dict(session.settings) == before
    assert camera.prop_case(ISO_CASE) == iso_case


def test_value_hidden_by_another_setting_is_refused(session):
    # Superfine quality is not offered with the Large image size.
    session.settings["Image Size"] = "Large"
    assert "Superfine" not in session.settings.describe("JPEG Quality").values
    for value in ("Superfine", 0):
        with pytest.raises(orqsdk.PropertyConstraint):
            session.settings["JPEG Quality"] = value
