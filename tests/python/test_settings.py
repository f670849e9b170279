"""Settings by name and value name, and the refusals."""

import re
import time
from pathlib import Path

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
    session.settings[orqsdk.Property.ISO_SPEED] = 200
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


def test_tables_match_the_c_header():
    header = (Path(__file__).resolve().parents[2] / "include").glob("orqsdk*.h")
    text = "\n".join(path.read_text() for path in header)

    def enum_in_header(name, prefix):
        body = re.search(r"typedef enum %s \{(.*?)\}" % name, text, re.S).group(1)
        return {key: int(value) for key, value in re.findall(prefix + r"(\w+) = (\d+)", body)}

    assert enum_in_header("OrqResult", "ORQ_") == {r.name: r.value for r in orqsdk.Result}
    assert enum_in_header("OrqPropertyId", "ORQ_PROP_") == {p.name: p.value for p in orqsdk.Property}
