"""A collected picture's identity in its EXIF: which camera took it, when, at what focal length.

Only the Exif APP1 segment is replaced (where the file has one) or inserted after SOI; every
other byte, the image data above all, is copied as it stands. What the camera wrote is kept:
a tag is added only where the file lacks it. Reads and writes the Exif block with piexif
(Debian: python3-piexif), imported only when a picture is stamped.
"""

from __future__ import annotations

import os
import shutil
import struct
import time
from pathlib import Path
from typing import Any, Dict, Tuple

SOI = b"\xff\xd8"
EXIF_HEADER = b"Exif\x00\x00"
LARGEST_SEGMENT = 0xFFFF - 2  # a segment's length field counts itself
MOST_SEGMENTS = 256  # before the image data; a file with more is not stamped


def find_exif(f: Any) -> Tuple[int, int, bytes]:
    """(offset, length, payload) of the first Exif APP1 segment before the image data, or
    (2, 0, b"") where there is none (a new one goes right after SOI). ValueError unless every
    segment up to the scan lies inside the file and the image data ends with EOI: a file cut
    short is told apart here, before anything is written."""
    f.seek(0, os.SEEK_END)
    size = f.tell()
    f.seek(0)
    if f.read(2) != SOI:
        raise ValueError("not a JPEG (no SOI)")
    offset, found = 2, (2, 0, b"")
    for _ in range(MOST_SEGMENTS):
        f.seek(offset)
        head = f.read(2)
        if len(head) < 2:
            raise ValueError("the file ends before the image data")
        if head[0] != 0xFF:
            raise ValueError("no marker where a segment should start (byte %d)" % offset)
        while head[1] == 0xFF and offset + 2 < size:  # fill bytes
            offset += 1
            head = head[1:] + f.read(1)
        marker = head[1]
        if marker in (0xD8, 0xD9, 0x00, 0xFF):
            raise ValueError("a stray marker before the image data")
        if 0xD0 <= marker <= 0xD7 or marker == 0x01:  # markers without a length
            offset += 2
            continue
        raw = f.read(2)
        length = struct.unpack(">H", raw)[0] if len(raw) == 2 else 0
        if length < 2 or length > size - offset - 2:
            raise ValueError("a segment runs past the end of the file")
        if marker == 0xE1 and not found[1] and length >= 2 + len(EXIF_HEADER):
            payload = f.read(length - 2)
            if payload.startswith(EXIF_HEADER):
                found = (offset, length + 2, payload)
        offset += length + 2
        if marker == 0xDA:
            if not ends_with_eoi(f, offset):
                raise ValueError("the image data has no end (EOI): the file is cut short")
            return found
    raise ValueError("more than %d segments before the image data" % MOST_SEGMENTS)


def ends_with_eoi(f: Any, offset: int) -> bool:
    """Whether FF D9 follows offset: in coded data 0xFF is followed by 0x00 or a restart
    marker, so it is the end alone."""
    f.seek(offset)
    last = b""
    for block in iter(lambda: f.read(1 << 16), b""):
        if b"\xff\xd9" in last[-1:] + block:
            return True
        last = block
    return False


def check_block(payload: bytes) -> None:
    """ValueError unless piexif can read the block safely and write it again whole: every entry
    of the IFDs it reads counts no more values than the block has bytes (piexif builds a struct
    format as long as a count before it reads), and every tag is one piexif knows (it drops the
    others without a word, and they are the camera's)."""
    import piexif

    tiff = payload[len(EXIF_HEADER):]
    if tiff[:4] not in (b"II*\x00", b"MM\x00*"):
        raise ValueError("no TIFF header")
    order = "<" if tiff[:2] == b"II" else ">"
    below = {"Image": {0x8769: "Exif", 0x8825: "GPS"}, "Exif": {0xA005: "Interop"}}
    unknown = []

    def u32(at: int) -> int:
        if at < 0 or at + 4 > len(tiff):
            raise ValueError("an offset past the block")
        return struct.unpack(order + "L", tiff[at:at + 4])[0]

    def walk(at: int, kind: str, first: bool = False) -> None:
        if at + 2 > len(tiff):
            raise ValueError("an IFD past the block")
        entries = struct.unpack(order + "H", tiff[at:at + 2])[0]
        if at + 2 + 12 * entries + (4 if first else 0) > len(tiff):
            raise ValueError("an IFD runs past the block")
        for k in range(entries):
            entry = at + 2 + 12 * k
            tag, _, count = struct.unpack(order + "HHL", tiff[entry:entry + 8])
            if count > len(tiff):
                raise ValueError("tag 0x%04X counts %d values" % (tag, count))
            if tag not in piexif.TAGS[kind]:
                unknown.append("0x%04X" % tag)
            elif first and tag in below.get(kind, {}) or kind == "Exif" and tag in below[kind]:
                walk(u32(entry + 8), below[kind][tag])
        if first and u32(at + 2 + 12 * entries):
            walk(u32(at + 2 + 12 * entries), "Image")  # the thumbnail's

    walk(u32(4), "Image", True)
    if unknown:
        raise ValueError("tags piexif would drop: %s" % " ".join(unknown[:8]))


def exif_time(utc_us: int) -> Tuple[bytes, bytes]:
    """("YYYY:MM:DD HH:MM:SS", six digits of microseconds) of a UTC time in microseconds."""
    seconds, micros = divmod(utc_us, 1000000)
    return (time.strftime("%Y:%m:%d %H:%M:%S", time.gmtime(seconds)).encode(),
            b"%06d" % micros)


def additions(exif: Dict[str, dict], identity: dict) -> Dict[str, Dict[int, Any]]:
    """The tags identity gives that exif lacks, by IFD.

    identity: make, model, serial (text, empty when unknown), sent (UTC microseconds or None),
    focal ((numerator, denominator) in mm or None), focal35 (mm or None)."""
    import piexif

    image, photo = piexif.ImageIFD, piexif.ExifIFD
    have0, have = exif.get("0th") or {}, exif.get("Exif") or {}
    add: Dict[str, Dict[int, Any]] = {"0th": {}, "Exif": {}}

    def put(ifd: str, tag: int, value: Any) -> None:
        if value not in (None, b"", "") and tag not in (have0 if ifd == "0th" else have):
            add[ifd][tag] = value.encode("utf-8") if isinstance(value, str) else value

    put("0th", image.Make, identity.get("make"))
    put("0th", image.Model, identity.get("model"))
    put("Exif", photo.BodySerialNumber, identity.get("serial"))
    sent = identity.get("sent")
    if isinstance(sent, int) and sent > 0:
        stamp, micros = exif_time(sent)
        if photo.DateTimeOriginal not in have:
            put("Exif", photo.DateTimeOriginal, stamp)
            put("Exif", photo.OffsetTimeOriginal, "+00:00")
        put("Exif", photo.SubSecTimeOriginal, micros)
    put("Exif", photo.FocalLength, identity.get("focal"))
    put("Exif", photo.FocalLengthIn35mmFilm, identity.get("focal35"))
    return add


def stamp(source: Path, target: Path, identity: dict) -> str:
    """Writes source, with the identity's missing tags in its Exif, to target; "" when done,
    otherwise why not (target is then not written). A file that lacks nothing is copied."""
    import piexif

    try:
        with open(source, "rb") as f:
            offset, length, payload = find_exif(f)
    except (OSError, ValueError) as error:
        return "not a whole JPEG: %s" % error
    try:
        if payload:
            check_block(payload)
        exif = piexif.load(payload) if payload else {}
        add = additions(exif, identity)
        if not any(add.values()):
            shutil.copyfile(source, target)
            return ""
        for ifd, tags in add.items():
            exif.setdefault(ifd, {}).update(tags)
        block = piexif.dump(exif)
    except OSError as error:
        return str(error)
    except Exception as error:  # whatever a camera's Exif makes the reader or writer trip on
        return "its Exif cannot be read or written again: %s: %s" % (type(error).__name__, error)
    if len(block) > LARGEST_SEGMENT:
        return "its Exif grows past one segment"
    try:
        with open(source, "rb") as f, open(target, "wb") as out:
            out.write(f.read(offset))
            out.write(b"\xff\xe1" + struct.pack(">H", len(block) + 2) + block)
            f.seek(offset + length)
            shutil.copyfileobj(f, out, 1 << 16)
    except OSError as error:
        return str(error)
    return ""
