"""Collected shot sets without a broker: the EXIF stamp on pictures, the rig map, and a collect
from a node's file server played here (a record, its files), in both layouts."""

import base64
import hashlib
import http.server
import io
import json
import struct
import threading

import pytest

piexif = pytest.importorskip("piexif", reason="the collect stamps EXIF with python3-piexif")
from orqsdk import _exif, _rigfiles, _rigmap  # noqa: E402

# 16 x 8 grey JPEG with a JFIF APP0 segment and no Exif, as an encoder writes it.
JFIF = base64.b64decode(
    "/9j/4AAQSkZJRgABAQAAAQABAAD/2wBDAAMCAgMCAgMDAwMEAwMEBQgFBQQEBQoHBwYIDAoMDAsKCwsNDhIQDQ4RDgsL"
    "EBYQERMUFRUVDA8XGBYUGBIUFRT/wAALCAAIABABAREA/8QAHwAAAQUBAQEBAQEAAAAAAAAAAAECAwQFBgcICQoL/8QA"
    "tRAAAgEDAwIEAwUFBAQAAAF9AQIDAAQRBRIhMUEGE1FhByJxFDKBkaEII0KxwRVS0fAkM2JyggkKFhcYGRolJicoKSo0"
    "NTY3ODk6Q0RFRkdISUpTVFVWV1hZWmNkZWZnaGlqc3R1dnd4eXqDhIWGh4iJipKTlJWWl5iZmqKjpKWmp6ipqrKztLW2"
    "t7i5usLDxMXGx8jJytLT1NXW19jZ2uHi4+Tl5ufo6erx8vP09fb3+Pn6/9oACAEBAAA/APCv2bfht/x6/uvTtX2r8WPi"
    "H/wzF+zhrHiqzPleJLzbpGg/JnF/MrbJOY3T90iSz7ZBtfydhILiv//Z")
SENT = 1764109801000153  # 2025-11-25 22:30:01.000153 UTC
IDENTITY = {"make": "Orqwerk", "model": "SX160", "serial": "4A2F0001", "sent": SENT,
            "focal": (460, 100), "focal35": 26}
IMAGE, PHOTO = piexif.ImageIFD, piexif.ExifIFD


def with_exif(tags, jpeg=JFIF, after_app0=False):
    """jpeg with an Exif APP1 of the tags ({ifd: {tag: value}}), after SOI or after APP0."""
    block = piexif.dump(tags)
    segment = b"\xff\xe1" + struct.pack(">H", len(block) + 2) + block
    at = 20 if after_app0 else 2  # APP0 ends at byte 20
    return jpeg[:at] + segment + jpeg[at:]


def without_exif(data):
    """The bytes with the Exif APP1 segment cut out."""
    offset, length, _ = _exif.find_exif(io.BytesIO(data))
    return data[:offset] + data[offset + length:]


# name, the camera's file, identity, tags expected after (None: absent)
STAMPS = [
    ("no Exif: all of ours after SOI", JFIF, IDENTITY,
     {IMAGE.Make: b"Orqwerk", IMAGE.Model: b"SX160", PHOTO.BodySerialNumber: b"4A2F0001",
      PHOTO.DateTimeOriginal: b"2025:11:25 22:30:01", PHOTO.SubSecTimeOriginal: b"000153",
      PHOTO.OffsetTimeOriginal: b"+00:00", PHOTO.FocalLength: (460, 100),
      PHOTO.FocalLengthIn35mmFilm: 26}),
    ("the camera's serial, maker and time kept", with_exif(
        {"0th": {IMAGE.Make: b"Cam"}, "Exif": {PHOTO.BodySerialNumber: b"KEEP",
                                                PHOTO.DateTimeOriginal: b"2020:01:02 03:04:05"}},
        after_app0=True), dict(IDENTITY, focal=None, focal35=None),
     {IMAGE.Make: b"Cam", IMAGE.Model: b"SX160", PHOTO.BodySerialNumber: b"KEEP",
      PHOTO.DateTimeOriginal: b"2020:01:02 03:04:05", PHOTO.SubSecTimeOriginal: b"000153",
      PHOTO.OffsetTimeOriginal: None, PHOTO.FocalLength: None}),
    ("nothing unknown: no time, no lens, no maker", JFIF,
     dict(IDENTITY, make="", sent=None, focal=None, focal35=None),
     {IMAGE.Make: None, IMAGE.Model: b"SX160", PHOTO.DateTimeOriginal: None,
      PHOTO.SubSecTimeOriginal: None}),
]


@pytest.mark.parametrize("name,original,identity,expected", STAMPS, ids=[s[0] for s in STAMPS])
def test_stamp(tmp_path, name, original, identity, expected):
    (tmp_path / "in.jpg").write_bytes(original)
    assert _exif.stamp(tmp_path / "in.jpg", tmp_path / "out.jpg", identity) == ""
    stamped = (tmp_path / "out.jpg").read_bytes()
    tags = piexif.load(stamped)
    for tag, value in expected.items():
        ifd = "0th" if tag in (IMAGE.Make, IMAGE.Model) else "Exif"
        assert tags[ifd].get(tag) == value, (name, hex(tag))
    # Every byte but the Exif segment's as it was, where it was: the image data above all.
    assert without_exif(stamped) == without_exif(original)
    assert stamped[stamped.index(b"\xff\xda"):] == original[original.index(b"\xff\xda"):]
    if original == JFIF:
        assert stamped[:4] == b"\xff\xd8\xff\xe1"  # inserted right after SOI

    # Stamped again: it lacks nothing now, and stays byte for byte.
    assert _exif.stamp(tmp_path / "out.jpg", tmp_path / "again.jpg", identity) == ""
    assert (tmp_path / "again.jpg").read_bytes() == stamped


def one_tag_exif(tag, count):
    """JFIF with an Exif of one BYTE tag in IFD0 that claims count values."""
    tiff = b"MM\x00*\x00\x00\x00\x08\x00\x01" + struct.pack(">HHLL", tag, 1, count, 8) + bytes(4)
    block = b"Exif\x00\x00" + tiff
    return JFIF[:2] + b"\xff\xe1" + struct.pack(">H", len(block) + 2) + block + JFIF[2:]


@pytest.mark.parametrize("data,why", [
    (JFIF[:30], "segment runs past the end"),
    (JFIF[:-2], "no end (EOI)"),
    (b"\xff\xd8\xff\xe1\x00\x01" + JFIF[2:], "segment runs past the end"),
    (one_tag_exif(0x010E, 0xFFFFFFF0), "counts 4294967280 values"),
    (one_tag_exif(0xC0DE, 1), "tags piexif would drop: 0xC0DE"),
    (with_exif({"0th": {IMAGE.Make: b"x" * 65450}}), "grows past one segment"),
], ids=["truncated", "no EOI", "segment length 1", "a count past the block", "a tag piexif does not know",
    "Exif past one segment"])
def test_stamp_refuses(tmp_path, data, why):
    (tmp_path / "in.jpg").write_bytes(data)
    assert why in _exif.stamp(tmp_path / "in.jpg", tmp_path / "out.jpg", IDENTITY)
    assert not (tmp_path / "out.jpg").exists()


MAP = "# booth, left to right\n000 AAA\n\n  # spare\n002   CCC\t\n"


@pytest.mark.parametrize("text,result", [
    (MAP, {"AAA": "000", "CCC": "002"}),
    ("# edited elsewhere\r\n0010 X\r\n\t\r\n", {"X": "0010"}),
    ("000 A\n12 B\n", "line 2: not 'NNN SERIAL'"),
    ("0123456789 A\n", "line 1: not"),
    ("000 A\n001 B C\n", "line 2"),
    ("000 A\n# x\n000 B\n", "line 3: number 000 is given on line 1 too"),
    ("000 A\n0000 B\n", "line 2: number 0000 is given on line 1 too"),
    ("000 A\n001 A\n", "line 2: serial A is given on line 1 too"),
])
def test_map_parse(text, result):
    if isinstance(result, dict):
        assert _rigmap.parse(text) == result
    else:
        with pytest.raises(_rigmap.MapError, match=result.replace("(", r"\(")):
            _rigmap.parse(text)


def test_map_extend_keeps_every_line(tmp_path):
    mapped = _rigmap.parse(MAP)
    text, added = _rigmap.extend(MAP.rstrip("\n"), mapped, ["CCC", "DDD", "BBB"])
    assert added == ["DDD", "BBB"] and text == MAP + "003 DDD\n004 BBB\n"
    _rigmap.write(tmp_path, text)
    assert _rigmap.read(tmp_path) == (text, dict(mapped))
    assert [p.name for p in tmp_path.iterdir()] == [_rigmap.NAME]
    assert _rigmap.extend("", {}, ["Q"]) == ("000 Q\n", ["Q"])


class Node:
    """A node's file server: its record of shot "s1" and the pictures it names."""

    def __init__(self, name, cameras):
        self.name, self.files, self.requests = name, {}, []
        self.record = {"v": 1, "id": "s1", "node": name, "at": SENT - 153, "cameras": []}
        for camera, serial, pictures in cameras:
            entry = {"camera": camera, "serial": serial, "model": "SX160", "status": "fired",
                     "result": "ORQ_OK", "sent": SENT + len(self.files), "lateUs": 153,
                     "settings": {"Tv": "1/250"}, "focalLengthMm": 4.6, "focalLength35mm": 26,
                     "files": []}
            for picture in pictures:
                name = "IMG_%04d.JPG" % (100 + len(self.files))
                self.files["/api/rig/shots/s1/%s/%s/%s" % (self.name, camera, name)] = picture
                entry["files"].append({"name": name, "size": len(picture),
                                       "sha256": hashlib.sha256(picture).hexdigest()})
            self.record["cameras"].append(entry)
        node = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                node.requests.append(self.path)
                body = json.dumps(node.record).encode() if self.path == "/api/rig/shots/s1" \
                    else node.files.get(self.path)
                ok = body is not None and self.headers["Authorization"] == "Bearer t"
                self.send_response(200 if ok else 404)
                self.end_headers()
                self.wfile.write(body if ok else b"")

            def log_message(self, *args):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.server.serve_forever, args=(0.05,), daemon=True).start()
        self.state = {"online": True, "files": {"url": "http://127.0.0.1:%d/" %
                                                self.server.server_address[1], "token": "t"}}


@pytest.fixture
def nodes():
    made = {"pa": Node("pa", [("S2", "S2", [JFIF]), ("S1", "S1", [JFIF, b"not a JPEG"])]),
            "pb": Node("pb", [("S9", "S9", [with_exif({"Exif": {PHOTO.BodySerialNumber: b"K"}})])])}
    yield made
    for node in made.values():
        node.server.shutdown()


@pytest.mark.parametrize("layout,paths", [
    ("set", {"s1/pa_S2.jpg", "s1/pa_S1.jpg", "s1/pa_S1-2.jpg", "s1/pb_S9.jpg",
             "s1/manifest.json"}),
    ("rig", {"rig/007/s1.jpg", "rig/007/s1-2.jpg", "rig/008/s1.jpg", "rig/009/s1.jpg",
             "manifests/s1.json", "rig-map.txt"}),
])
def test_collect(tmp_path, nodes, layout, paths, monkeypatch):
    states = {n: node.state for n, node in nodes.items()}
    cameras = {"pb/S5": {"node": "pb", "camera": "S5", "serial": "S5", "model": "G15"}}
    if layout == "rig":
        (tmp_path / "rig-map.txt").write_text("# ours\n006 S5\n")
    # Cut short at the second node: what the first gave is not fetched again.
    fetch = _rigfiles.fetch

    def cut(state, remote, *args):
        if "/pb/" in remote:
            raise KeyboardInterrupt
        return fetch(state, remote, *args)
    monkeypatch.setattr(_rigfiles, "fetch", cut)
    with pytest.raises(KeyboardInterrupt):
        _rigfiles.collect("booth", "s1", tmp_path, states, cameras, layout)
    monkeypatch.setattr(_rigfiles, "fetch", fetch)
    fetched, kept, failed, complete, manifest, where = _rigfiles.collect(
        "booth", "s1", tmp_path, states, cameras, layout)
    assert (fetched, kept, failed, complete) == (1, 3, 0, True)
    assert {str(p.relative_to(tmp_path)) for p in tmp_path.rglob("*") if p.is_file()} == paths
    assert json.loads(where.read_text()) == manifest
    assert manifest["v"] == 2 and manifest["layout"] == layout and manifest["spreadUs"] == 1
    assert manifest["missing"] == [{"node": "pb", "camera": "S5", "serial": "S5",
                                    "reason": "not chosen"}]
    for entry in manifest["cameras"]:
        for file in entry["files"]:
            data = (tmp_path / file["path"]).read_bytes()
            node = nodes[entry["node"]].files
            original = node["/api/rig/shots/s1/%s/%s/%s" % (entry["node"], entry["camera"],
                                                           file["name"])]
            assert (file["size"], file["sha256"]) == (len(data), hashlib.sha256(data).hexdigest())
            assert file["node_sha256"] == hashlib.sha256(original).hexdigest()
            if original[:2] == b"\xff\xd8":
                tags = piexif.load(data)
                assert tags["Exif"][PHOTO.BodySerialNumber] == \
                    (b"K" if entry["camera"] == "S9" else entry["serial"].encode())
                assert tags["0th"][IMAGE.Model] == b"SX160"
                assert without_exif(data) == without_exif(original)
            else:
                assert data == original
    if layout == "rig":
        assert (tmp_path / "rig-map.txt").read_text() == "# ours\n006 S5\n007 S1\n008 S2\n009 S9\n"
        assert {e["camera"]: e["rig"] for e in manifest["cameras"]} == \
            {"S1": "007", "S2": "008", "S9": "009", "S5": "006"}

    # Again, one file damaged: only that one is fetched; the rest are verified, not fetched.
    damaged = tmp_path / manifest["cameras"][0]["files"][0]["path"]
    damaged.write_bytes(b"\0damaged")
    asked = sum(len(n.requests) for n in nodes.values())
    again = _rigfiles.collect("booth", "s1", tmp_path, states, cameras, layout)
    assert again[:4] == (1, 3, 0, True)
    assert sum(len(n.requests) for n in nodes.values()) == asked + 2 + 1  # two records, one file
    assert [e["files"] for e in again[4]["cameras"]] == [e["files"] for e in manifest["cameras"]]


def test_rig_map_refused_and_a_serial_twice(tmp_path):
    made = {"pa": Node("pa", [("A", "S1", [JFIF])]), "pb": Node("pb", [("B", "S1", [JFIF])])}
    states = {n: m.state for n, m in made.items()}
    try:
        # A map that does not parse: refused, nothing written, no picture asked for.
        (tmp_path / "rig-map.txt").write_text("1 S1\n")
        with pytest.raises(_rigmap.MapError, match="rig-map.txt line 1: not 'NNN SERIAL'"):
            _rigfiles.collect("booth", "s1", tmp_path, states, {}, "rig")
        assert [p.name for p in tmp_path.iterdir()] == ["rig-map.txt"]
        assert all(m.requests == ["/api/rig/shots/s1"] for m in made.values())

        # Two cameras with one serial: the second waits rather than share the first's folder.
        (tmp_path / "rig-map.txt").unlink()
        fetched, _, _, complete, manifest, _ = _rigfiles.collect(
            "booth", "s1", tmp_path, states, {}, "rig")
        assert (fetched, complete) == (1, False)
        assert manifest["missing"] == [{"node": "pb", "camera": "B", "serial": "S1",
                                        "reason": "its serial is pa/A's too"}]
        assert (tmp_path / "rig-map.txt").read_text() == "000 S1\n"
        assert [e["rig"] for e in manifest["cameras"]] == ["000", None]
    finally:
        for node in made.values():
            node.server.shutdown()
