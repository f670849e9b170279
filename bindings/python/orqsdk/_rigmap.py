"""The rig map, D/rig-map.txt: which rig number each camera's pictures are filed under in the rig
layout. The user may edit it; collect only appends to it, keeping every line as it stands."""

from __future__ import annotations

import os
import re
from pathlib import Path
from typing import Dict, Iterable, List, Tuple

NAME = "rig-map.txt"
_LINE = re.compile(r"(\d{3,})[ \t]+(\S+)[ \t]*\Z")


class MapError(ValueError):
    """A line of the map does not parse, or gives a number or a serial twice."""


def parse(text: str, where: str = NAME) -> Dict[str, str]:
    """Serial -> number as written ("003")."""
    numbers: Dict[int, int] = {}  # number -> line
    serials: Dict[str, int] = {}
    mapped: Dict[str, str] = {}
    for count, line in enumerate(text.split("\n"), 1):
        stripped = line.lstrip("\ufeff" if count == 1 else "").strip()
        if not stripped or stripped.startswith("#"):
            continue
        match = _LINE.match(stripped)
        if not match:
            raise MapError("%s line %d: %r is not a number of three digits or more and a serial"
                           % (where, count, line))
        number, serial = match.groups()
        if int(number) in numbers:
            raise MapError("%s line %d: number %s is given on line %d too"
                           % (where, count, number, numbers[int(number)]))
        if serial in serials:
            raise MapError("%s line %d: serial %s is given on line %d too"
                           % (where, count, serial, serials[serial]))
        numbers[int(number)], serials[serial] = count, count
        mapped[serial] = number
    return mapped


def read(folder: Path) -> Tuple[str, Dict[str, str]]:
    """The map's text and serial -> number; an absent map is empty. MapError, OSError."""
    path = folder / NAME
    try:
        text = path.read_bytes().decode("utf-8")
    except FileNotFoundError:
        return "", {}
    except UnicodeDecodeError as error:
        raise MapError("%s is not UTF-8 text: %s" % (path, error))
    return text, parse(text, str(path))


def extend(text: str, mapped: Dict[str, str], serials: Iterable[str]) -> Tuple[str, List[str]]:
    """The map's text with a line for every serial it lacks (in the order given) numbered from
    the largest number on, and the new serials; mapped gains them."""
    following = max((int(n) for n in mapped.values()), default=-1) + 1
    added: List[str] = []
    for serial in serials:
        if serial in mapped:
            continue
        mapped[serial] = "%03d" % following
        following += 1
        added.append(serial)
    if added:
        if text and not text.endswith("\n"):
            text += "\n"
        text += "".join("%s %s\n" % (mapped[s], s) for s in added)
    return text, added


def write(folder: Path, text: str) -> None:
    """Replaces the map at once: a reader sees the old map or the new, never a part."""
    part = folder / (NAME + ".part")
    with open(part, "w", encoding="utf-8", newline="") as f:
        f.write(text)
        f.flush()
        os.fsync(f.fileno())
    os.replace(part, folder / NAME)
