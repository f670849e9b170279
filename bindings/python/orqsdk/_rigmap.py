"""The rig map, D/rig-map.txt: which rig number each camera's pictures are filed under in the rig
layout. The user may edit it; collect only appends to it, keeping every line as it stands."""

from __future__ import annotations

import os
import re
from pathlib import Path
from typing import Dict, Iterable, List, Tuple

NAME = "rig-map.txt"
# Blanks are spaces, tabs and the CR of a line ended on Windows; a number has 3 to 9 digits.
_LINE = re.compile(r"[ \t\r]*(?:(#.*)|([0-9]{3,9})[ \t\r]+([^ \t\r]+))?[ \t\r]*\Z", re.S)


class MapError(ValueError):
    """A line of the map does not parse, or gives a number or a serial twice."""


def parse(text: str, where: str = NAME) -> Dict[str, str]:
    """Serial -> number as written ("003")."""
    numbers: Dict[int, int] = {}  # number -> line
    serials: Dict[str, int] = {}
    mapped: Dict[str, str] = {}
    for count, line in enumerate(text.split("\n"), 1):
        match = _LINE.match(line)
        if not match:
            raise MapError("%s line %d: not 'NNN SERIAL' (a number of three digits or more, a "
                           "serial): %r" % (where, count, line))
        comment, number, serial = match.groups()
        if comment is not None or number is None:
            continue
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
