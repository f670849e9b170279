"""The rig's JSON and its files: names, payloads read without trusting their shape, and the
collection of a shot from the nodes' file servers into a shot set, each picture named for its
layout and stamped with its camera's identity (docs/rig.md, "Collected shot set")."""

from __future__ import annotations

import hashlib
import json
import logging
import os
import re
import time
import urllib.error
import urllib.request
from pathlib import Path
from typing import Any, Dict, List, Optional, Tuple

from . import _exif, _rigmap

log = logging.getLogger("orqsdk.rig")

VERSION = 1
MANIFEST_VERSION = 2
LAYOUTS = ("set", "rig")
MAX_MANIFEST = 64 << 20  # of a rig of thousands of cameras
LARGEST_JPEG = 256 << 20  # a camera's JPEG is a few megabytes; larger ones are not stamped
MAX_PAYLOAD = 1 << 20  # a rig's largest message is a report of 1024 cameras
LARGEST_FILE = 1 << 32
_NAME = re.compile(r"[A-Za-z0-9._-]{1,64}\Z")


def valid_name(text: Any) -> bool:
    """A rig, node or camera name or a command id: 1 to 64 of ``A-Z a-z 0-9 . _ -``."""
    return isinstance(text, str) and bool(_NAME.match(text)) and text not in (".", "..")


def text(obj: Any, key: str, fallback: str = "") -> str:
    value = obj.get(key) if isinstance(obj, dict) else None
    return value if isinstance(value, str) else fallback


def number(obj: Any, key: str, fallback: Optional[int] = 0) -> Optional[int]:
    value = obj.get(key) if isinstance(obj, dict) else None
    return value if isinstance(value, int) and not isinstance(value, bool) else fallback


def flag(obj: Any, key: str) -> Any:
    return obj.get(key) if isinstance(obj, dict) else None


def listed(obj: Any, key: str) -> List[Any]:
    value = obj.get(key) if isinstance(obj, dict) else None
    return value if isinstance(value, list) else []


def utc_us() -> int:
    return time.time_ns() // 1000


def parse(payload: bytes) -> Optional[dict]:
    if len(payload) > MAX_PAYLOAD:
        return None
    try:
        message = json.loads(payload.decode("utf-8"))
    except ValueError:
        return None
    return message if isinstance(message, dict) else None


def sha256(path: Path) -> Optional[tuple]:
    """(size, SHA-256) of what is on disk; None when unreadable."""
    digest = hashlib.sha256()
    size = 0
    try:
        with open(path, "rb") as f:
            for block in iter(lambda: f.read(1 << 16), b""):
                size += len(block)
                digest.update(block)
    except OSError:
        return None
    return size, digest.hexdigest()


def opener() -> urllib.request.OpenerDirector:
    class NoRedirect(urllib.request.HTTPRedirectHandler):
        def redirect_request(self, *args: Any, **kwargs: Any) -> None:
            return None  # a node's token goes to that node only

    # No proxy from the environment either: the nodes are reached directly.
    return urllib.request.build_opener(urllib.request.ProxyHandler({}), NoRedirect)


def get(state: dict, path: str, timeout: float = 30.0) -> Any:
    files = state.get("files") or {}
    base = text(files, "url").rstrip("/")
    if not base.startswith("http://") or len(base) <= 7:
        raise ValueError("the node gives no file server")
    request = urllib.request.Request(base + path, headers={
        "Authorization": "Bearer " + text(files, "token")})
    return opener().open(request, timeout=timeout)


def node_record(state: dict, shot: str) -> Optional[dict]:
    try:
        with get(state, "/api/rig/shots/" + shot, 5.0) as answer:
            return parse(answer.read(MAX_PAYLOAD + 1))
    except (OSError, ValueError):
        return None


def fetch(state: dict, remote: str, part: Path, size: int, sha: str) -> str:
    """Fetches one file into part, verified against its node's size and SHA-256; the reason
    when it could not (part is then gone)."""
    try:
        with get(state, remote) as answer, open(part, "wb") as out:
            received = 0
            for block in iter(lambda: answer.read(1 << 16), b""):
                received += len(block)
                if received > size or received > LARGEST_FILE:
                    raise ValueError("the node sends more than the file's size")
                out.write(block)
    except urllib.error.HTTPError as error:
        why = "the node answered %d" % error.code
    except (OSError, ValueError) as error:
        why = "the node did not answer: %s" % error
    else:
        why = "" if sha256(part) == (size, sha) else "the bytes do not match the node's SHA-256"
    if why:
        remove(part)
    return why


def remove(path: Path) -> None:
    try:
        path.unlink()
    except OSError:
        pass


def identity(taken: dict, entry: dict) -> dict:
    """What a picture's EXIF should say of the camera that took it, from its node's record."""
    focal = taken.get("focalLengthMm")
    focal = focal if isinstance(focal, (int, float)) and not isinstance(focal, bool) else 0
    focal35 = number(taken, "focalLength35mm")
    return {"make": text(taken, "make"), "model": text(entry, "model"),
            "serial": text(entry, "serial"),
            "sent": number(taken, "sent") if text(taken, "status") == "fired" else None,
            "focal": (int(focal * 100 + 0.5), 100) if 0 < focal < 100000 else None,
            "focal35": focal35 if 0 < focal35 < 1 << 16 else None}


def is_jpeg(name: str) -> bool:
    return os.path.splitext(name)[1].lower() in (".jpg", ".jpeg")


def place(part: Path, local: Path, name: str, stamp: dict, file: dict) -> str:
    """Moves a verified file into place, a JPEG with its camera's identity in its EXIF; the
    reason when it could not. file (its manifest entry) gets the size and SHA-256 as written,
    and why it has no EXIF of ours where a JPEG could not be stamped (it keeps the node's
    bytes then)."""
    source, unstamped = part, ""
    stamped = Path(str(local) + ".exif")
    if is_jpeg(name) and file["size"] > LARGEST_JPEG:
        unstamped = "larger than a picture is read"
    elif is_jpeg(name):
        unstamped = _exif.stamp(part, stamped, stamp)
        if not unstamped:
            source = stamped
    try:
        os.replace(source, local)
    except OSError as error:
        return "cannot rename into %s: %s" % (local, error)
    finally:
        remove(part)
        remove(stamped)
    written = sha256(local)
    if written is None:
        return "cannot read %s back" % local
    file["size"], file["sha256"] = written
    if unstamped:
        file["exif"] = unstamped
        log.warning("%s left without Exif: %s", local, unstamped)
    return ""


def read_json(path: Path) -> Any:
    try:
        with open(path, "rb") as f:
            return json.loads(f.read(MAX_MANIFEST + 1).decode("utf-8"))
    except (OSError, ValueError):
        return {}


def verified(manifest: Path, progress: Path) -> Dict[str, dict]:
    """What an earlier collect verified, by path: its manifest, and the record it keeps while
    it runs (a collect cut short leaves that)."""
    known = {}
    for entry in listed(read_json(manifest), "cameras"):
        for file in listed(entry, "files"):
            if text(file, "path"):
                known[text(file, "path")] = file
    during = read_json(progress)
    for path, file in (during.items() if isinstance(during, dict) else ()):
        if isinstance(file, dict):
            known[path] = file
    return known


def map_key(entry: dict) -> str:
    """The rig map's name of a camera: its serial, or <node>_<camera> (which no other camera
    has) where the serial is empty or holds a blank or a # (the map's text could not say it)."""
    serial = text(entry, "serial")
    usable = serial and not any(c <= " " or c == "#" for c in serial)
    return serial if usable else "%s_%s" % (entry["node"], entry["camera"])


def number_cameras(folder: Path, entries: List[dict]) -> List[dict]:
    """Each entry's rig number from the map in folder, serials new to it appended; MapError
    when the map does not parse. Returns the entries that must wait: a camera whose serial
    another camera of the set (before it, by node and camera) already gives would write
    into that one's folder."""
    map_text, mapped = _rigmap.read(folder)
    holders: Dict[str, str] = {}
    numbered, waiting = [], []
    for entry in entries:
        key, who = map_key(entry), "%s/%s" % (entry["node"], entry["camera"])
        if holders.setdefault(key, who) != who:
            entry["rig"], entry["reason"] = None, "its serial is %s's too" % holders[key]
            waiting.append(entry)
        else:
            numbered.append(entry)
    map_text, added = _rigmap.extend(map_text, mapped, [map_key(e) for e in numbered])
    if added:
        folder.mkdir(parents=True, exist_ok=True)
        _rigmap.write(folder, map_text)
        log.info("%s: %d cameras numbered: %s", folder / _rigmap.NAME, len(added), ", ".join(
            "%s %s" % (mapped[s], s) for s in added))
    for entry in numbered:
        entry["rig"] = mapped[map_key(entry)]
    return waiting


def collect(rig: str, shot: str, folder: Path, nodes: Dict[str, dict], cameras: Dict[str, dict],
            layout: str = "set") -> Tuple[int, int, int, bool, dict, Path]:
    """The shot's pictures from every node into folder, filed as layout says, beside its
    manifest, from the nodes and cameras the broker holds: (fetched, kept, failed, complete,
    manifest, the manifest's path). MapError (before anything is written) when the rig map
    does not parse."""
    if layout not in LAYOUTS:
        raise ValueError("the layout is %s, not %r" % (" or ".join(LAYOUTS), layout))
    manifest_path = folder / "manifests" / (shot + ".json") if layout == "rig" else \
        folder / shot / "manifest.json"
    progress_path = Path(str(manifest_path) + ".verified")
    # (entry, node state, the node's record of the camera): the records first, as nothing is
    # written before the rig map is known to be sound.
    members: List[Tuple[dict, dict, Optional[dict]]] = []
    seen = set()
    at = 0
    complete = True

    def missing(node: str, record: dict, reason: str) -> None:
        camera = text(record, "camera")
        if not valid_name(camera) or node + "/" + camera in seen:
            return
        seen.add(node + "/" + camera)
        members.append(({"node": node, "camera": camera, "serial": text(record, "serial"),
                         "model": text(record, "model"), "files": [], "reason": reason},
                        {}, None))

    def of_node(node: str) -> List[dict]:
        return [c for _, c in sorted(cameras.items()) if text(c, "node") == node]

    for node, state in sorted(nodes.items()):
        if not valid_name(node):
            continue  # a node's name becomes part of a file name: only a name, never a path
        record, why = None, ""
        if state.get("online") is not True:
            why = "node offline"
        else:
            try:
                with get(state, "/api/rig/shots/" + shot, 30.0) as answer:
                    record = parse(answer.read(MAX_PAYLOAD + 1))
                    if record is None:
                        why = "the node's record is unreadable (200)"
            except urllib.error.HTTPError as error:
                why = "no record" if error.code == 404 else \
                    "the node's record is unreadable (%d)" % error.code
            except ValueError as error:
                why = str(error)
            except OSError:
                why = "the node's file server did not answer"
        if why:
            # Every camera the broker knows of this node stands with the reason.
            complete = complete and why == "no record"
            for known in of_node(node):
                missing(node, known, why)
            continue
        at = number(record, "at", at)
        for taken in listed(record, "cameras"):
            camera = text(taken, "camera")
            if not valid_name(camera) or node + "/" + camera in seen:
                continue
            seen.add(node + "/" + camera)
            status = text(taken, "status")
            settings = taken.get("settings")

            def numeric(key: str) -> Any:
                value = taken.get(key)
                return value if isinstance(value, (int, float)) and \
                    not isinstance(value, bool) else None
            entry = {"node": node, "camera": camera, "serial": text(taken, "serial"),
                     "model": text(taken, "model"),
                     "releasedUs": number(taken, "sent") if status == "fired" else None,
                     "zoom": numeric("zoom"), "focalLengthMm": numeric("focalLengthMm"),
                     "focalLength35mm": numeric("focalLength35mm"),
                     "settings": settings if isinstance(settings, dict) else {},
                     "release": {"status": status, "result": text(taken, "result"),
                                 "sent": number(taken, "sent"),
                                 "lateUs": number(taken, "lateUs")},
                     "files": []}
            files = taken.get("files")
            if not isinstance(files, list):
                entry["reason"] = "pending on the node"
                complete = False
            elif not files:
                entry["reason"] = text(taken, "reason", status)
                complete = complete and status != "fired"
            members.append((entry, state, taken))
        # Cameras of this node that the shot did not involve.
        for known in of_node(node):
            missing(node, known, "not chosen")
    members.sort(key=lambda m: (m[0]["node"], m[0]["camera"]))
    entries = [m[0] for m in members]

    waiting: List[dict] = []
    if layout == "rig":
        waiting = number_cameras(folder, entries)
        complete = complete and not waiting
    else:
        for entry in entries:
            entry["rig"] = None
    known = verified(manifest_path, progress_path)
    progress: Dict[str, dict] = {}
    fetched = kept = failed = 0
    for entry, state, taken in members:
        if taken is None or any(entry is w for w in waiting):
            continue
        node, camera = entry["node"], entry["camera"]
        stamp = identity(taken, entry)
        index = 0
        for file in listed(taken, "files"):
            name, sha = text(file, "name"), text(file, "sha256")
            size = number(file, "size", -1)
            if not valid_name(name) or len(sha) != 64 or size < 0:
                entry["reason"] = "the node's record of a file is unreadable"
                complete = False
                continue
            index += 1
            # The second and later files of a camera in one shot: -2, -3, ...
            suffix = ("-%d" % index if index > 1 else "") + os.path.splitext(name)[1].lower()
            relative = "rig/%s/%s%s" % (entry["rig"], shot, suffix) if layout == "rig" else \
                "%s/%s_%s%s" % (shot, node, camera, suffix)
            local = folder / relative
            placed = {"name": name, "path": relative, "size": size, "sha256": sha,
                      "node_sha256": sha}
            there = sha256(local)
            before = known.get(relative)
            why = ""
            if before and text(before, "node_sha256") == sha and \
                    there == (number(before, "size", -1), text(before, "sha256")):
                placed = dict(before, name=name)
                progress[relative] = placed  # written with the next file fetched
                kept += 1
            elif there == (size, sha) and not is_jpeg(name):
                kept += 1  # a file that is never stamped, already there
            else:
                part = Path(str(local) + ".part")
                try:
                    local.parent.mkdir(parents=True, exist_ok=True)
                except OSError:
                    why = "cannot make the folder"
                else:
                    why = fetch(state, "/api/rig/shots/%s/%s/%s/%s" % (shot, node, camera, name),
                                part, size, sha) or place(part, local, name, stamp, placed)
                if not why:
                    fetched += 1
                    # Kept as it goes: a collect cut short is not fetched again.
                    progress[relative] = placed
                    write_atomically(progress_path, json.dumps(progress))
            if why:
                failed += 1
                complete = False
                entry["reason"] = "download failed: " + why
                log.warning("%s from %s: %s", relative, node, why)
                continue
            entry["files"].append(placed)

    sent = []
    for entry in entries:
        # Every entry has every key: null where its node's record does not tell.
        entry["scheduledUs"] = at if at > 0 else None
        for key in ("releasedUs", "zoom", "focalLengthMm", "focalLength35mm"):
            entry.setdefault(key, None)
        entry.setdefault("settings", {})
        if isinstance(entry["releasedUs"], int):
            sent.append(entry["releasedUs"])
    manifest = {"v": MANIFEST_VERSION, "rig": rig, "shot": shot, "layout": layout, "at": at,
                "collected": utc_us(), "complete": complete,
                "spreadUs": max(sent) - min(sent) if sent else None,
                "missing": [{"node": e["node"], "camera": e["camera"], "serial": e["serial"],
                             "reason": e.get("reason", "")} for e in entries if not e["files"]],
                "cameras": entries}
    write_atomically(manifest_path, json.dumps(manifest, indent=1, sort_keys=True,
                                               ensure_ascii=False) + "\n")
    remove(progress_path)
    return fetched, kept, failed, complete, manifest, manifest_path


def write_atomically(path: Path, content: str) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    part = Path(str(path) + ".part")
    part.write_text(content, encoding="utf-8")
    os.replace(part, path)
