"""Driving a rig from Python: cameras on several machines ("nodes", each running ``orqcam node``)
that fire at one agreed moment over an MQTT broker and hand in their pictures.

The topics and payloads are those of docs/rig.md (interface version 1); the calls are those of
``orqcam rig``::

    from orqsdk import rig

    with rig.connect("mqtt://ctl@10.0.0.5", "booth", password_file="~/.rig-password") as booth:
        print(booth.list().online_nodes())
        shot = booth.shoot()                      # every camera, 1 s from now
        booth.collect(shot.id, "shots")           # shots/<id>/manifest.json and the pictures
        for event in booth.watch(seconds=10):
            print(event.kind, event.node, event.camera, event.payload)

Needs paho-mqtt (Debian: python3-paho-mqtt), imported only when a rig is connected; this module
loads no SDK library: the cameras are the nodes'. Pictures are fetched from the nodes' file
servers over HTTP with their tokens. Results come back as values (a camera late, a node lost, a
file missing are outcomes, not exceptions); what stops a call raises a :class:`RigError`.
"""

from __future__ import annotations

import json
import logging
import os
import queue
import random
import ssl
import threading
import time
import urllib.parse
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Callable, Dict, List, Optional, Sequence, Union

from . import _rigfiles, _rigmap
from ._rigfiles import VERSION, valid_name
from ._rigfiles import flag as _flag
from ._rigfiles import listed as _list
from ._rigfiles import number as _number
from ._rigfiles import parse as _parse
from ._rigfiles import text as _text
from ._rigfiles import utc_us as _utc_us

__all__ = [
    "connect",
    "Rig",
    "RigState",
    "Release",
    "Shot",
    "Adjustment",
    "Collection",
    "Event",
    "Watch",
    "RigError",
    "BrokerError",
    "NotOnline",
    "parse_broker_url",
]

log = logging.getLogger("orqsdk.rig")


class RigError(Exception):
    """A rig call could not be done. ``exit`` is the exit code ``orqcam rig`` gives for it."""

    exit = 1


class BrokerError(RigError):
    """The broker refused us (wrong user or password, not authorised) or cannot be reached."""

    exit = 7


class NotOnline(RigError):
    """No node of the rig is online, or a named node is not, or a named camera is unknown."""

    exit = 3


def _new_id(prefix: str) -> str:
    return prefix + time.strftime("%Y%m%d-%H%M%S", time.gmtime()) + "-%d" % random.randrange(100000)


def parse_broker_url(url: str, password: Optional[str] = None, password_file: Optional[str] = None,
                     cafile: Optional[str] = None) -> dict:
    """``mqtt://[user[:password]@]host[:port]`` (port 1883) or ``mqtts://...`` (8883, TLS) as a
    dict of tls, user, password, host, port. The password is taken from the argument, the file
    (its first line), ``$ORQ_RIG_PASSWORD`` or the URL, in that order. ValueError when unusable."""
    for scheme, tls, port in (("mqtt://", False, 1883), ("mqtts://", True, 8883)):
        if url.startswith(scheme):
            rest = url[len(scheme):]
            break
    else:
        raise ValueError("a broker URL is mqtt://[user[:password]@]host[:port] or mqtts://..., not %r"
                         % url)
    rest = rest[:-1] if rest.endswith("/") else rest
    user, secret = "", ""
    if "@" in rest:
        credentials, rest = rest.rsplit("@", 1)
        user, _, secret = credentials.partition(":")
        user, secret = urllib.parse.unquote(user), urllib.parse.unquote(secret)
    colon = rest.rfind(":")
    if colon >= 0 and "]" not in rest[colon:]:
        digits = rest[colon + 1:]
        if not digits.isdigit() or not 1 <= int(digits) <= 65535:
            raise ValueError("the broker's port must be a number from 1 to 65535")
        port, rest = int(digits), rest[:colon]
    if len(rest) > 2 and rest[0] == "[" and rest[-1] == "]":
        rest = rest[1:-1]
    if not rest:
        raise ValueError("the broker URL names no host")
    if password is not None:
        secret = password
    elif password_file:
        try:
            with open(os.path.expanduser(password_file)) as f:
                secret = f.readline().rstrip("\r\n")
        except OSError as error:
            raise ValueError("cannot read the password from %s: %s" % (password_file, error))
    elif "ORQ_RIG_PASSWORD" in os.environ:
        secret = os.environ["ORQ_RIG_PASSWORD"]
    if secret and not user:
        raise ValueError("a password needs a user: mqtt://user@host")
    if cafile and not tls:
        raise ValueError("cafile is for mqtts:// brokers")
    return {"tls": tls, "user": user, "password": secret, "host": rest, "port": port}


@dataclass
class RigState:
    """The rig as the broker's retained state shows it."""

    nodes: Dict[str, dict]  #: node name -> node state
    cameras: Dict[str, dict]  #: "node/camera" -> camera record

    def online_nodes(self) -> List[str]:
        return sorted(n for n, state in self.nodes.items() if state.get("online") is True)

    def unsynchronised(self) -> List[str]:
        """Online nodes whose clock no NTP or PTP daemon disciplines."""
        return [n for n in self.online_nodes()
                if _flag(self.nodes[n].get("clock"), "synchronised") is not True]

    def cameras_of(self, node: str) -> List[dict]:
        return [record for key, record in sorted(self.cameras.items())
                if key.split("/", 1)[0] == node]


@dataclass
class Release:
    """One camera's part in a shot.

    status: "fired", "late", "failed", "refused" (its node refused the command), "missing" (its
    node was lost) or "no answer" (its node did not report in time)."""

    node: str
    camera: str
    status: str
    result: str = ""
    sent: Optional[int] = None  #: UTC microseconds when its Shoot command left (fired)
    late_us: Optional[int] = None  #: how long after ``at`` (fired)
    file: Optional[dict] = None  #: name, size, sha256, path of the kept picture
    reason: Optional[str] = None  #: why there is no file
    duplicate: bool = False  #: the node had fired this id before and answered as it did then


@dataclass
class Shot:
    id: str
    at: int  #: the agreed UTC moment, microseconds
    cameras: List[Release]
    timed_out: bool  #: a node did not answer, or a picture did not arrive, in time
    errors: Dict[str, str] = field(default_factory=dict)  #: node -> why it refused the command

    @property
    def spread_us(self) -> int:
        sent = [c.sent for c in self.cameras if c.status == "fired" and c.sent is not None]
        return max(sent) - min(sent) if sent else 0

    @property
    def ok(self) -> bool:
        """Every camera fired and its picture is kept."""
        return not self.timed_out and all(c.status == "fired" and c.file for c in self.cameras)

    def by_status(self, status: str) -> List[Release]:
        return [c for c in self.cameras if c.status == status]


@dataclass
class Adjustment:
    """The nodes' answers to set or zoom: per camera node, camera, result and value or zoom."""

    id: str
    kind: str
    cameras: List[dict]
    timed_out: bool
    errors: Dict[str, str] = field(default_factory=dict)

    @property
    def ok(self) -> bool:
        return not self.timed_out and not self.errors and \
            all(c.get("result") == "ORQ_OK" for c in self.cameras)


@dataclass
class Collection:
    shot: str
    folder: Path  #: the pictures' folder: D/<shot> (set layout) or D/rig (rig layout)
    fetched: int
    kept: int  #: already there and verified, not fetched
    failed: int
    complete: bool
    manifest: dict
    manifest_path: Optional[Path] = None


@dataclass
class Event:
    """A message on the rig's topics. kind: "node", "camera", "shot", "setting", "error",
    "report", or a command's "fire", "set", "zoom"."""

    topic: str
    kind: str
    node: Optional[str]
    camera: Optional[str]
    payload: Optional[dict]  #: None when it was not a JSON object
    retained: bool = False


class Watch:
    """The rig's messages as they come, until its time is up or it is closed (an iterator)."""

    def __init__(self, rig: "Rig", seconds: Optional[float], limit: int = 10000) -> None:
        self._rig = rig
        self._deadline = None if seconds is None else time.monotonic() + seconds
        self._queue: "queue.Queue[Event]" = queue.Queue(limit)
        self.dropped = 0  #: messages not kept because nobody read them in time

    def _put(self, event: Event) -> None:
        try:
            self._queue.put_nowait(event)
        except queue.Full:
            self.dropped += 1

    def get(self, timeout: Optional[float] = None) -> Optional[Event]:
        """The next message, or None when none came within timeout (or the watch's time)."""
        if self._deadline is not None:
            left = self._deadline - time.monotonic()
            timeout = left if timeout is None else min(timeout, left)
            if timeout <= 0:
                return None
        try:
            return self._queue.get(timeout=timeout)
        except queue.Empty:
            return None

    def __iter__(self) -> "Watch":
        return self

    def __next__(self) -> Event:
        while True:
            event = self.get(1.0 if self._deadline is None else None)
            if event is not None:
                return event
            if self._deadline is not None or self._rig._closed:
                raise StopIteration

    def close(self) -> None:
        self._rig._unwatch(self)
        self._deadline = time.monotonic()

    def __enter__(self) -> "Watch":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()


def connect(url: str, rig: str, *, password: Optional[str] = None,
            password_file: Optional[str] = None, cafile: Optional[str] = None,
            timeout: float = 10.0) -> "Rig":
    """Connects to the broker at url as a controller of the rig named rig, and returns once the
    broker has handed over the rig's retained state. See :func:`parse_broker_url` for url and the
    password; cafile names the CA of an mqtts:// broker (default: the system's)."""
    return Rig(url, rig, password=password, password_file=password_file, cafile=cafile,
               timeout=timeout)


class Rig:
    """A controller's connection to one rig. Its state follows the broker's retained messages
    for as long as it is open, across reconnects (every 1 to 2 s after a lost connection)."""

    def __init__(self, url: str, rig: str, *, password: Optional[str] = None,
                 password_file: Optional[str] = None, cafile: Optional[str] = None,
                 timeout: float = 10.0) -> None:
        if not valid_name(rig):
            raise ValueError("a rig's name is 1 to 64 of A-Z a-z 0-9 . _ -")
        address = parse_broker_url(url, password, password_file, cafile)
        try:
            import paho.mqtt.client as mqtt
        except ImportError as error:
            raise RigError("orqsdk.rig needs paho-mqtt (Debian: python3-paho-mqtt)") from error
        self.name = rig
        self.prefix = "orq/v%d/%s/" % (VERSION, rig)
        self._changed = threading.Condition()
        self._nodes: Dict[str, dict] = {}
        self._cameras: Dict[str, dict] = {}
        self._reports: Dict[str, Dict[str, dict]] = {}  # command id -> node -> report
        self._shots: Dict[str, Dict[str, dict]] = {}  # shot id -> "node/camera" -> shot event
        self._watches: List[Watch] = []
        self._answer: Optional[int] = None
        self._dropped = False
        self._connected = False
        self._echoed = False
        self._closed = False
        client_id = "orq-ctl-py-%d-%d" % (os.getpid(), random.randrange(1000000))
        self._echo = self.prefix + "echo/" + client_id
        self._client = mqtt.Client(client_id, clean_session=True, protocol=mqtt.MQTTv311)
        self._client.reconnect_delay_set(1, 2)
        # A fault in our handling of one message must not end the network thread for good.
        self._client.suppress_exceptions = True
        if address["user"]:
            self._client.username_pw_set(address["user"], address["password"] or None)
        if address["tls"]:
            try:
                self._client.tls_set_context(ssl.create_default_context(cafile=cafile))
            except (OSError, ValueError) as error:
                raise ValueError("TLS with cafile %s: %s" % (cafile, error)) from error
        self._client.on_connect = self._on_connect
        self._client.on_disconnect = self._on_disconnect
        self._client.on_message = self._on_message
        where = "%s:%d" % (address["host"], address["port"])
        try:
            self._client.connect(address["host"], address["port"], keepalive=5)
        except (OSError, ValueError) as error:
            raise BrokerError("cannot reach the broker at %s: %s" % (where, error)) from error
        self._client.loop_start()
        with self._changed:
            answered = self._changed.wait_for(lambda: self._answer is not None or self._dropped,
                                              timeout)
            answer = self._answer
        if answer != 0:
            self._stop()
            if answer is None and self._dropped:
                raise BrokerError("the broker at %s closed the connection unanswered %s" %
                                  (where, "(TLS refused?)" if address["tls"] else "(does it want TLS?)"))
            if not answered:
                raise BrokerError("the broker at %s did not answer within %.0f s" % (where, timeout))
            raise BrokerError("the broker at %s refused us: %s" % (
                where, "wrong user or password, or not authorised" if answer in (4, 5)
                else mqtt.connack_string(answer)))
        # The broker sends the retained state before our own echo: then the state is whole.
        self._client.publish(self._echo, b"{}", qos=1)
        with self._changed:
            if not self._changed.wait_for(lambda: self._echoed, timeout):
                self._stop()
                raise BrokerError("the broker at %s did not answer our subscriptions" % where)

    # The network thread's side.

    def _on_connect(self, client: Any, userdata: Any, flags: Any, rc: int) -> None:
        if rc == 0:
            # Also after a reconnect: the broker forgot us, and sends the retained state again.
            client.subscribe([(self._echo, 1), (self.prefix + "#", 1)])
        with self._changed:
            self._answer = rc
            self._connected = rc == 0
            self._changed.notify_all()

    def _on_disconnect(self, client: Any, userdata: Any, rc: int) -> None:
        with self._changed:
            if self._answer is None:
                self._dropped = True
            self._connected = False
            self._changed.notify_all()

    @property
    def connected(self) -> bool:
        """Whether the broker connection is up now; while it is not, the state is as last seen."""
        with self._changed:
            return self._connected

    def _on_message(self, client: Any, userdata: Any, message: Any) -> None:
        topic = message.topic
        if topic == self._echo:
            with self._changed:
                self._echoed = True
                self._changed.notify_all()
            return
        if not topic.startswith(self.prefix):
            return
        parts = topic[len(self.prefix):].split("/")
        if not all(valid_name(p) for p in parts):
            return  # a level that is no name is nobody's folder or key
        payload = _parse(message.payload)
        kind, node, camera = parts[0], None, None
        with self._changed:
            if kind == "node" and len(parts) == 2:
                node = parts[1]
                if payload is None:
                    self._nodes.pop(node, None)
                else:
                    self._nodes[node] = payload
            elif kind == "camera" and len(parts) == 3:
                node, camera = parts[1], parts[2]
                if payload is None:
                    self._cameras.pop(node + "/" + camera, None)
                else:
                    self._cameras[node + "/" + camera] = payload
            elif kind == "report" and len(parts) == 3:
                node = parts[1]
                if payload is not None and parts[2] in self._reports:
                    self._reports[parts[2]][node] = payload
            elif kind == "event" and len(parts) == 4:
                node, camera, kind = parts[1], parts[2], parts[3]
                shot = _text(payload, "shot")
                if kind == "shot" and shot in self._shots:
                    self._shots[shot][node + "/" + camera] = payload
            elif kind == "cmd" and len(parts) == 2:
                kind = parts[1]
            else:
                return
            for watch in self._watches:
                watch._put(Event(topic, kind, node, camera, payload, bool(message.retain)))
            self._changed.notify_all()

    # The caller's side.

    def _stop(self) -> None:
        self._client.disconnect()
        self._client.loop_stop()

    def close(self) -> None:
        """Disconnects; a watch under way ends."""
        if self._closed:
            return
        self._closed = True
        self._stop()

    def __enter__(self) -> "Rig":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def _topic(self, rest: str) -> str:
        return self.prefix + rest

    def _wait(self, done: Callable[[], bool], seconds: float) -> bool:
        with self._changed:
            return self._changed.wait_for(done, max(0.0, seconds))

    def _gone(self, node: str) -> bool:
        return self._nodes.get(node, {}).get("online") is not True

    def _publish(self, topic: str, command: dict, seconds: float) -> None:
        info = self._client.publish(self._topic(topic), json.dumps(command), qos=1)
        try:
            info.wait_for_publish(seconds)
        except (ValueError, RuntimeError) as error:
            raise BrokerError("the broker did not take the command: %s" % error) from error
        if not info.is_published():
            raise BrokerError("the broker did not take the command within %.0f s" % seconds)

    def list(self) -> RigState:
        """The nodes and cameras as the broker holds them now; a warning is logged for every
        online node whose clock is not synchronised."""
        state = self._snapshot()
        self._warn_clocks(state)
        return state

    def _snapshot(self) -> RigState:
        with self._changed:
            return RigState(json.loads(json.dumps(self._nodes)),
                            json.loads(json.dumps(self._cameras)))

    def _warn_clocks(self, state: RigState) -> None:
        for node in state.unsynchronised():
            log.warning("node %s's clock is not synchronised (no NTP or PTP daemon disciplines it): "
                        "its cameras may fire off the moment; see docs/rig.md", node)

    def _chosen_nodes(self, cameras: Optional[Sequence[str]]) -> List[str]:
        """The nodes a command's cameras name, online; NotOnline otherwise."""
        with self._changed:
            online = [n for n in sorted(self._nodes) if not self._gone(n)]
            if not cameras:
                if not online:
                    raise NotOnline("no node of rig %s is online" % self.name)
                return online
            chosen = []
            for entry in cameras:
                node, _, camera = entry.partition("/")
                if node not in online:
                    raise NotOnline("node %s is not online" % node)
                if camera and node + "/" + camera not in self._cameras:
                    raise NotOnline("node %s has no camera %s" % (node, camera))
                if node not in chosen:
                    chosen.append(node)
            return chosen

    def shoot(self, id: Optional[str] = None, *, lead: float = 1.0,
              cameras: Optional[Sequence[str]] = None, timeout: float = 10.0) -> Shot:
        """Fires the cameras (default every camera of the rig; entries "node" or "node/camera")
        lead seconds from now, waits for every node's report and every fired camera's kept
        picture, and returns each camera's release. A node that refuses or is lost, a camera
        late or failed are in the result; the waits are bounded by lead + timeout each."""
        id = id or _new_id("s")
        if not valid_name(id):
            raise ValueError("a shot id is 1 to 64 of A-Z a-z 0-9 . _ -")
        if not 0 <= lead <= 60:
            raise ValueError("lead is 0 to 60 seconds")
        with self._changed:
            self._reports[id], self._shots[id] = {}, {}
        try:
            expected = self._chosen_nodes(cameras)
            self._warn_clocks(self._snapshot())
            at = _utc_us() + int(lead * 1e6)
            self._publish("cmd/fire", {"v": VERSION, "id": id, "at": at,
                                       "cameras": list(cameras) if cameras else None}, timeout)
            reports, shots = self._reports[id], self._shots[id]

            def reported() -> bool:
                return all(n in reports or self._gone(n) for n in expected)

            def kept() -> bool:
                for node, report in reports.items():
                    if self._gone(node) or report.get("duplicate") is True:
                        continue
                    for entry in _list(report, "cameras"):
                        if _text(entry, "status") == "fired" and \
                                node + "/" + _text(entry, "camera") not in shots:
                            return False
                return True

            timed_out = not self._wait(reported, lead + timeout)
            timed_out = not self._wait(kept, lead + 2 * timeout) or timed_out
            with self._changed:
                reports, shots = dict(reports), dict(shots)
            state = self._snapshot()
        finally:
            with self._changed:
                self._reports.pop(id, None)
                self._shots.pop(id, None)
        return self._shot_result(id, at, expected, reports, shots, state, timed_out)

    def _shot_result(self, id: str, at: int, expected: List[str], reports: Dict[str, dict],
                     shots: Dict[str, dict], state: RigState, timed_out: bool) -> Shot:
        releases: List[Release] = []
        errors: Dict[str, str] = {}
        for node in expected:
            gone = state.nodes.get(node, {}).get("online") is not True
            report = reports.get(node)
            if report is None:
                # Lost, or silent: its cameras as the broker last knew them.
                for record in state.cameras_of(node):
                    releases.append(Release(node, _text(record, "camera"),
                                            "missing" if gone else "no answer",
                                            reason="node offline" if gone else "no report in time"))
                continue
            if "error" in report:
                errors[node] = _text(report, "error", "refused")
                log.warning("node %s refused the shot: %s", node, errors[node])
                for record in state.cameras_of(node):
                    releases.append(Release(node, _text(record, "camera"), "refused",
                                            reason=errors[node]))
                continue
            duplicate = report.get("duplicate") is True
            record = _rigfiles.node_record(state.nodes.get(node, {}), id) if duplicate else None
            files = {_text(c, "camera"): c for c in _list(record, "cameras")}
            for entry in _list(report, "cameras"):
                camera = _text(entry, "camera")
                status = _text(entry, "status")
                release = Release(node, camera, status, _text(entry, "result"),
                                  duplicate=duplicate)
                if status == "fired":
                    release.sent, release.late_us = _number(entry, "sent"), _number(entry, "lateUs")
                    shot = shots.get(node + "/" + camera) or {}
                    if duplicate:
                        taken = (_list(files.get(camera), "files") or [{}])[0]
                        shot = taken if _text(taken, "sha256") else \
                            {"reason": _text(files.get(camera), "reason", "no record")}
                    if _text(shot, "sha256"):
                        release.file = {k: shot.get(k) for k in ("name", "size", "sha256", "path")}
                    elif gone:
                        release.status, release.reason = "missing", "node offline"
                    else:
                        release.reason = _text(shot, "reason", "no picture in time")
                else:
                    release.reason = "late" if status == "late" else \
                        "failed: " + _text(entry, "result")
                releases.append(release)
        return Shot(id, at, releases, timed_out, errors)

    def _adjust(self, kind: str, command: dict, cameras: Optional[Sequence[str]],
                timeout: float) -> Adjustment:
        id = _new_id("c")
        command.update({"v": VERSION, "id": id, "cameras": list(cameras) if cameras else None})
        with self._changed:
            self._reports[id] = {}
        try:
            expected = self._chosen_nodes(cameras)
            self._publish("cmd/" + kind, command, timeout)
            reports = self._reports[id]
            answered = self._wait(lambda: all(n in reports or self._gone(n) for n in expected),
                                  timeout + 1)
            with self._changed:
                reports = dict(reports)
        finally:
            with self._changed:
                self._reports.pop(id, None)
        entries, errors = [], {}
        for node, report in sorted(reports.items()):
            if "error" in report:
                errors[node] = _text(report, "error")
            for entry in _list(report, "cameras"):
                if isinstance(entry, dict):
                    entries.append(dict(entry, node=node))
        return Adjustment(id, kind, entries, not answered, errors)

    def set(self, setting: Union[str, int], value: Union[str, int], *,
            cameras: Optional[Sequence[str]] = None, timeout: float = 10.0) -> Adjustment:
        """Sets a setting (name in any case, or number) to a value (name or number) on the
        cameras (default all); each entry carries the value's name as the camera took it."""
        return self._adjust("set", {"setting": setting, "value": value}, cameras, timeout)

    def zoom(self, step: Union[int, str], *, cameras: Optional[Sequence[str]] = None,
             timeout: float = 10.0) -> Adjustment:
        """Moves the zoom to step (limited to each model's range) or "max"; each entry carries
        the step reached."""
        return self._adjust("zoom", {"zoom": step}, cameras, timeout)

    def watch(self, seconds: Optional[float] = None, *, current: bool = False) -> Watch:
        """The rig's messages from now on for seconds (None: until closed), as :class:`Event`;
        with current, the present retained state first."""
        watch = Watch(self, seconds)
        with self._changed:
            if current:
                for node, state in sorted(self._nodes.items()):
                    watch._put(Event(self._topic("node/" + node), "node", node, None, state, True))
                for key, record in sorted(self._cameras.items()):
                    node, camera = key.split("/", 1)
                    watch._put(Event(self._topic("camera/" + key), "camera", node, camera, record,
                                     True))
            self._watches.append(watch)
        return watch

    def _unwatch(self, watch: Watch) -> None:
        with self._changed:
            if watch in self._watches:
                self._watches.remove(watch)

    def collect(self, shot: str, folder: Union[str, "os.PathLike[str]"], *,
                layout: str = "set") -> Collection:
        """Fetches the shot's pictures from every node into folder (docs/rig.md, "Collected shot
        set"). layout "set": folder/<shot>/<node>_<camera>.jpg beside folder/<shot>/manifest.json;
        "rig": folder/rig/<NNN>/<shot>.jpg, NNN the camera's number in folder/rig-map.txt (new
        serials are appended to it), the manifest in folder/manifests/<shot>.json. Each JPEG
        carries its camera's identity in its EXIF (added where the camera wrote none; the image
        data is never touched). A file already there that matches its manifest is never fetched
        again, so running it again resumes. complete is false while a fired camera's picture
        is not in the set (its node offline, a download failed, a camera giving the serial of
        another): collect again. RigError (exit 2) when the rig map has a line that does not
        parse or gives a number or serial twice; nothing is written then."""
        if not valid_name(shot):
            raise ValueError("a shot is named by 1 to 64 of A-Z a-z 0-9 . _ -")
        now = self._snapshot()
        try:
            fetched, kept, failed, complete, manifest, where = _rigfiles.collect(
                self.name, shot, Path(folder), now.nodes, now.cameras, layout)
        except _rigmap.MapError as error:
            refused = RigError(str(error))
            refused.exit = 2
            raise refused from error
        pictures = Path(folder) / ("rig" if layout == "rig" else shot)
        return Collection(shot, pictures, fetched, kept, failed, complete, manifest, where)
