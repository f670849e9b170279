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


def identity(taken: dict) -> dict:
    """What a picture's EXIF should say of the camera that took it, from the node's record."""
    focal, focal35 = number(taken, "focalHundredths"), number(taken, "focal35mm")
    return {"make": text(taken, "make"), "model": text(taken, "model"),
            "serial": text(taken, "serial"), "sent": number(taken, "sent", None),
            "focal": (focal, 100) if 0 < focal < 1 << 32 else None,
            "focal35": focal35 if 0 < focal35 < 1 << 16 else None}


def place(part: Path, local: Path, taken: dict) -> Tuple[str, Optional[tuple]]:
    """Moves a verified file into place, a JPEG with the camera's identity in its EXIF: (why
    not, (size, SHA-256) as written). A JPEG that cannot be stamped is kept as the node has it."""
    source = part
    if _exif.is_jpeg(part):
        stamped = Path(str(local) + ".exif")
        why = _exif.stamp(part, stamped, identity(taken))
        if why:
            remove(stamped)
            log.warning("%s keeps the node's bytes, no EXIF of ours: %s", local, why)
        else:
            source = stamped
    try:
        os.replace(source, local)
    except OSError as error:
        return "cannot rename into %s: %s" % (local, error), None
    finally:
        remove(part)
        remove(Path(str(local) + ".exif"))
    written = sha256(local)
    return ("" if written else "cannot read %s back" % local), written


def earlier(manifest: Path) -> Dict[Tuple[str, str], List[dict]]:
    """(node, camera) -> file entries of the manifest a collect left before (empty when none or
    unreadable)."""
    try:
        with open(manifest, "rb") as f:
            old = json.loads(f.read(MAX_MANIFEST + 1).decode("utf-8"))
    except (OSError, ValueError):
        return {}
    return {(text(entry, "node"), text(entry, "camera")):
            [f for f in listed(entry, "files") if isinstance(f, dict)]
            for entry in listed(old, "cameras")}


def file_name(stem: str, index: int, name: str) -> str:
    """The index-th (from 1) file of a camera in a set: -2, -3 from the second on, and the
    camera file's extension lower-cased."""
    return stem + ("" if index == 1 else "-%d" % index) + os.path.splitext(name)[1].lower()


def map_key(entry: dict) -> str:
    """The rig map's name of a camera: its serial, or its name on the rig where the serial is
    none (a serial becomes a word in the map)."""
    serial = text(entry, "serial")
    return serial if valid_name(serial) else text(entry, "camera")


def number_cameras(folder: Path, entries: List[dict]) -> None:
    """Each entry's rig number from the map in folder, serials new to it appended; MapError
    when the map or the cameras do not give one number per camera."""
    map_text, mapped = _rigmap.read(folder)
    owners: Dict[str, str] = {}
    for entry in entries:
        key, who = map_key(entry), "%s/%s" % (entry["node"], entry["camera"])
        if owners.setdefault(key, who) != who:
            raise _rigmap.MapError("cameras %s and %s both give serial %s: their pictures would "
                                   "share one rig number" % (owners[key], who, key))
    order = sorted(entries, key=lambda e: (e["node"], e["camera"]))
    map_text, added = _rigmap.extend(map_text, mapped, [map_key(e) for e in order])
    if added:
        folder.mkdir(parents=True, exist_ok=True)
        _rigmap.write(folder, map_text)
        log.info("%s: %d cameras numbered: %s", folder / _rigmap.NAME, len(added), ", ".join(
            "%s %s" % (mapped[s], s) for s in added))
    for entry in entries:
        entry["rig"] = mapped[map_key(entry)]


def collect(rig: str, shot: str, folder: Path, nodes: Dict[str, dict], cameras: Dict[str, dict],
            layout: str = "set") -> Tuple[int, int, int, bool, dict, Path]:
    """The shot's pictures from every node into folder, filed as layout says, beside its
    manifest, from the nodes and cameras the broker holds: (fetched, kept, failed, complete,
    manifest, the manifest's path). MapError (before anything is written) when the rig map
    does not parse."""
    if layout not in LAYOUTS:
        raise ValueError("the layout is %s, not %r" % (" or ".join(LAYOUTS), layout))
    if layout == "rig":
        base, manifest_path = folder, folder / "manifests" / (shot + ".json")
    else:
        base, manifest_path = folder / shot, folder / shot / "manifest.json"
    entries: List[dict] = []
    work: List[Tuple[dict, dict, dict]] = []  # entry, node state, the node's record of the camera
    seen = set()
    at = 0
    complete = True

    def missing(node: str, record: dict, reason: str) -> None:
        camera = text(record, "camera")
        if not valid_name(camera) or node + "/" + camera in seen:
            return
        seen.add(node + "/" + camera)
        entries.append({"rig": None, "node": node, "camera": camera,
                        "serial": text(record, "serial"), "model": text(record, "model"),
                        "files": [], "reason": reason})

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
            fired = status == "fired" and number(taken, "sent") > 0
            entry = {"rig": None, "node": node, "camera": camera,
                     "serial": text(taken, "serial"), "model": text(taken, "model"),
                     "scheduledUs": number(record, "at", None),
                     "releasedUs": number(taken, "sent") if fired else None,
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
            entries.append(entry)
            work.append((entry, state, taken))
        # Cameras of this node that the shot did not involve.
        for known in of_node(node):
            missing(node, known, "not chosen")

    # Numbered before anything is fetched: a map that does not parse stops the collect here.
    if layout == "rig":
        number_cameras(folder, entries)
    before = earlier(manifest_path)
    by_path = {text(f, "path"): f for files in before.values() for f in files}

    def write(pending: List[dict]) -> dict:
        """The manifest as it stands; the pending entries' files as the last collect left them,
        so that a collect cut short here still knows every verified file."""
        waiting = {id(e) for e in pending}
        shown = [dict(e, files=before.get((e["node"], e["camera"]), [])) if id(e) in waiting
                 else e for e in entries]
        sent = [e["releasedUs"] for e in entries if e.get("releasedUs")]
        manifest = {"v": MANIFEST_VERSION, "rig": rig, "shot": shot, "layout": layout, "at": at,
                    "collected": utc_us(), "complete": complete and not pending,
                    "spreadUs": max(sent) - min(sent) if sent else None,
                    "missing": [{"node": e["node"], "camera": e["camera"], "serial": e["serial"],
                                 "reason": e.get("reason", "")} for e in shown if not e["files"]],
                    "cameras": shown}
        manifest_path.parent.mkdir(parents=True, exist_ok=True)
        part = Path(str(manifest_path) + ".part")
        part.write_text(json.dumps(manifest, indent=1, sort_keys=True, ensure_ascii=False) + "\n",
                        encoding="utf-8")
        os.replace(part, manifest_path)
        return manifest

    fetched = kept = failed = 0
    for count, (entry, state, taken) in enumerate(work):
        node, camera = entry["node"], entry["camera"]
        if count and node != work[count - 1][0]["node"]:
            write([e for e, _, _ in work[count:]])
        for index, file in enumerate(listed(taken, "files"), 1):
            name, sha = text(file, "name"), text(file, "sha256")
            size = number(file, "size", -1)
            if not valid_name(name) or len(sha) != 64 or size < 0:
                entry["reason"] = "the node's record of a file is unreadable"
                complete = False
                continue
            if layout == "rig":
                relative = "rig/%s/%s" % (entry["rig"], file_name(shot, index, name))
            else:
                relative = file_name("%s_%s" % (node, camera), index, name)
            local = base / relative
            old = by_path.get(relative) or {}
            written = sha256(local)
            why = ""
            if text(old, "node_sha256") == sha and written is not None and \
                    written == (number(old, "size"), text(old, "sha256")):
                kept += 1
            else:
                part = Path(str(local) + ".part")
                try:
                    local.parent.mkdir(parents=True, exist_ok=True)
                except OSError:
                    why = "cannot make the folder"
                else:
                    why = fetch(state, "/api/rig/shots/%s/%s/%s/%s" % (shot, node, camera, name),
                                part, size, sha)
                    if not why:
                        why, written = place(part, local, taken)
                    fetched += 0 if why else 1
            if why or written is None:
                failed += 1
                complete = False
                entry["reason"] = "download failed: " + why
                log.warning("%s from %s: %s", relative, node, why)
                continue
            entry["files"].append({"name": name, "path": relative, "size": written[0],
                                   "sha256": written[1], "node_sha256": sha})
    return fetched, kept, failed, complete, write([]), manifest_path
