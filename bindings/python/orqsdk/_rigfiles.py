"""The rig's JSON and its files: names, payloads read without trusting their shape, and the
collection of a shot from the nodes' file servers (docs/rig.md, "Collected shot set")."""

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

log = logging.getLogger("orqsdk.rig")

VERSION = 1
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


def fetch(state: dict, remote: str, local: Path, size: int, sha: str) -> str:
    """Fetches one file into place, verified; the reason when it could not."""
    part = Path(str(local) + ".part")
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
        if not why:
            try:
                os.replace(part, local)
            except OSError as error:
                why = "cannot rename into %s: %s" % (local, error)
    if why:
        try:
            part.unlink()
        except OSError:
            pass
    return why


def collect(rig: str, shot: str, folder: Path, nodes: Dict[str, dict],
            cameras: Dict[str, dict]) -> Tuple[int, int, int, bool, dict]:
    """The shot's pictures from every node into folder/<shot>/ beside its manifest.json, from the
    nodes and cameras the broker holds: (fetched, kept, failed, complete, manifest)."""
    target = folder / shot
    target.mkdir(parents=True, exist_ok=True)
    entries: List[dict] = []
    seen = set()
    fetched = kept = failed = 0
    at = 0
    complete = True

    def missing(node: str, record: dict, reason: str) -> None:
        camera = text(record, "camera")
        if node + "/" + camera in seen:
            return
        seen.add(node + "/" + camera)
        entries.append({"node": node, "camera": camera, "serial": text(record, "serial"),
                        "model": text(record, "model"), "files": [], "reason": reason})

    def of_node(node: str) -> List[dict]:
        return [c for _, c in sorted(cameras.items()) if text(c, "node") == node]

    for node, state in sorted(nodes.items()):
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
            for record in of_node(node):
                missing(node, record, why)
            continue
        at = number(record, "at", at)
        for taken in record.get("cameras") or []:
            if not isinstance(taken, dict):
                continue
            camera = text(taken, "camera")
            if not valid_name(camera) or node + "/" + camera in seen:
                continue
            seen.add(node + "/" + camera)
            status = text(taken, "status")
            settings = taken.get("settings")
            entry = {"node": node, "camera": camera, "serial": text(taken, "serial"),
                     "model": text(taken, "model"),
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
            for file in files if isinstance(files, list) else []:
                name, sha = text(file, "name"), text(file, "sha256")
                size = number(file, "size", -1)
                if not valid_name(name) or len(sha) != 64 or size < 0:
                    entry["reason"] = "the node's record of a file is unreadable"
                    complete = False
                    continue
                relative = "%s/%s/%s" % (node, camera, name)
                local = target / relative
                why = ""
                if sha256(local) == (size, sha):
                    kept += 1
                else:
                    try:
                        local.parent.mkdir(parents=True, exist_ok=True)
                    except OSError:
                        why = "cannot make the folder"
                    else:
                        why = fetch(state, "/api/rig/shots/%s/%s" % (shot, relative),
                                          local, size, sha)
                        fetched += 0 if why else 1
                if why:
                    failed += 1
                    complete = False
                    entry["reason"] = "download failed: " + why
                    log.warning("%s from %s: %s", relative, node, why)
                    continue
                entry["files"].append({"name": name, "path": relative, "size": size,
                                       "sha256": sha})
            entries.append(entry)
        # Cameras of this node that the shot did not involve.
        for record in of_node(node):
            missing(node, record, "not chosen")

    manifest = {"v": VERSION, "rig": rig, "shot": shot, "at": at, "complete": complete,
                "collected": utc_us(), "cameras": entries}
    part = target / "manifest.json.part"
    part.write_text(json.dumps(manifest, indent=1, sort_keys=True, ensure_ascii=False) + "\n",
                    encoding="utf-8")
    os.replace(part, target / "manifest.json")
    return fetched, kept, failed, complete, manifest
