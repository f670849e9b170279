"""orqsdk.rig against a real rig: a mosquitto broker on a free loopback port with a password, and
two orqcam nodes with two virtual cameras each, each node in a private /tmp as a separate PC
has (the SDK's instance lock is a file there). Needs root (unshare, mount, chown), mosquitto,
paho-mqtt and orqcam ($ORQCAM); skipped without them. Nothing waits a fixed time."""

import hashlib
import io
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import urllib.request
from pathlib import Path

import pytest

pytest.importorskip("paho.mqtt.client", reason="orqsdk.rig needs python3-paho-mqtt")
import paho.mqtt.publish as mqtt_publish  # noqa: E402
piexif = pytest.importorskip("piexif", reason="the collect stamps EXIF with python3-piexif")
from orqsdk import _exif, rig  # noqa: E402

ORQCAM = os.environ.get("ORQCAM", "")
PASSWORD = "py-rig-secret"
NODES = {"pa": ["SX160", "A810"], "pb": ["G15", "SX40"]}

pytestmark = [
    pytest.mark.skipif(not shutil.which("mosquitto"), reason="mosquitto is not installed"),
    pytest.mark.skipif(not os.path.isfile(ORQCAM), reason="$ORQCAM names no orqcam"),
    pytest.mark.skipif(os.geteuid() != 0, reason="private /tmp per node needs root"),
]


def until(predicate, seconds, what):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError("not within %.0f s: %s" % (seconds, what))


class Setup:
    """The broker, the nodes and their stores under one folder the broker's user may read."""

    def __init__(self, folder):
        self.folder = folder
        os.chmod(folder, 0o755)
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            self.port = s.getsockname()[1]
        subprocess.run(["mosquitto_passwd", "-b", "-c", str(folder / "pw"), "ctl", PASSWORD],
                       check=True)
        (folder / "m.conf").write_text("listener %d 127.0.0.1\nallow_anonymous false\npassword_file"
                                       " %s\npersistence false\n" % (self.port, folder / "pw"))
        subprocess.run(["chown", "mosquitto", str(folder / "pw")], check=True)
        self.password_file = folder / "password"
        self.password_file.write_text(PASSWORD + "\n")
        self.url = "mqtt://ctl@127.0.0.1:%d" % self.port
        self.nodes = {}
        self.start_broker()

    def start_broker(self):
        log = open(self.folder / "broker.log", "a")
        self.broker = subprocess.Popen(["mosquitto", "-c", str(self.folder / "m.conf")],
                                       stdout=log, stderr=log)

    def start_node(self, name):
        command = [ORQCAM]
        for model in NODES[name]:
            command += ["--virtual", model]
        command += ["node", "--broker", self.url, "--rig", "py", "--node", name, "--store",
                    str(self.folder / ("store-" + name)), "--password-file", str(self.password_file)]
        inner = "mount -t tmpfs tmpfs /tmp && exec " + " ".join("'%s'" % c for c in command)
        log = open(self.folder / ("node-%s.log" % name), "a")
        # Serials of their own, as separate PCs' cameras have; and logs of their own, as a node
        # leaves its sessions to OrqTerminateSDK, which this process's tests would read as theirs.
        state = self.folder / ("state-" + name)
        state.mkdir(exist_ok=True)
        self.nodes[name] = subprocess.Popen(
            ["unshare", "-m", "--propagation", "private", "--", "sh", "-c", inner], stdout=log,
            stderr=log, env=dict(os.environ, ORQSIM_SERIAL_SEED=name, XDG_STATE_HOME=str(state)))

    def connect(self):
        return until(lambda: reached(self.url, password_file=str(self.password_file)), 10,
                     "the broker up")

    def stop(self):
        for process in list(self.nodes.values()) + [self.broker]:
            if process.poll() is None:
                process.send_signal(signal.SIGTERM)
                try:
                    process.wait(20)
                except subprocess.TimeoutExpired:
                    process.kill()
                    process.wait(10)


def all_online(controller, nodes=NODES):
    state = controller.list()
    return all(node in state.online_nodes() and
               sum(1 for c in state.cameras_of(node) if c.get("online")) == len(NODES[node])
               for node in nodes)


@pytest.fixture(scope="module")
def setup():
    # Not under /tmp, which each node has its own of; readable by the broker's user.
    folder = Path(tempfile.mkdtemp(prefix="orq-pyrig-", dir="/var/tmp"))
    made = Setup(folder)
    try:
        for name in NODES:
            made.start_node(name)
        yield made
    finally:
        made.stop()
    shutil.rmtree(folder, ignore_errors=True)


@pytest.fixture
def controller(setup):
    with setup.connect() as connected:
        until(lambda: all_online(connected), 60, "both nodes online with their cameras")
        yield connected


def sha256(path):
    return hashlib.sha256(Path(path).read_bytes()).hexdigest()


def image_bytes(path):
    """The file without its Exif segment: what stamping must leave as the camera made it."""
    data = Path(path).read_bytes()
    offset, length, _ = _exif.find_exif(io.BytesIO(data))
    return data[:offset] + data[offset + length:]


def identity_tags(path):
    """The EXIF of a picture as piexif reads it, without the offsets of its IFDs."""
    tags = piexif.load(str(path))
    return {ifd: {t: v for t, v in tags[ifd].items() if t not in (0x8769, 0x8825, 0xA005)}
            for ifd in ("0th", "Exif")}


def check_set(setup, folder, shot, number, layout="set"):
    """Every camera's one picture, numbered as its number-th, the node's image bytes with the
    camera's identity in its EXIF."""
    where = folder / shot / "manifest.json" if layout == "set" else \
        folder / "manifests" / (shot + ".json")
    manifest = json.loads(where.read_text())
    assert manifest["complete"] and manifest["rig"] == "py" and manifest["shot"] == shot
    assert (manifest["v"], manifest["layout"], manifest["missing"]) == (2, layout, [])
    assert sorted((c["node"], c["model"]) for c in manifest["cameras"]) == \
        sorted((n, m) for n, models in NODES.items() for m in models)
    sent = [c["releasedUs"] for c in manifest["cameras"]]
    assert manifest["spreadUs"] == max(sent) - min(sent)
    for entry in manifest["cameras"]:
        assert entry["release"]["status"] == "fired" and entry["settings"]["Image Size"]
        (file,) = entry["files"]
        assert file["name"] == "IMG_%04d.JPG" % number
        assert file["path"] == ("%s/%s_%s.jpg" % (shot, entry["node"], entry["camera"])
                                if layout == "set" else "rig/%s/%s.jpg" % (entry["rig"], shot))
        local = folder / file["path"]
        kept = setup.folder / ("store-" + entry["node"]) / shot / entry["node"] / \
            entry["camera"] / file["name"]
        assert image_bytes(local) == image_bytes(kept)
        assert (sha256(local), local.stat().st_size) == (file["sha256"], file["size"])
        assert sha256(kept) == file["node_sha256"]
        tags = identity_tags(local)
        assert (tags["0th"][piexif.ImageIFD.Model], tags["Exif"][piexif.ExifIFD.BodySerialNumber]) \
            == (entry["model"].encode(), entry["serial"].encode())
    return manifest


def same_sets(ours, theirs, folders):
    """orqcam's set and ours: the same manifest but for the moment of collection and the bytes
    of the stamped files, whose EXIF says the same."""
    for manifest in (ours, theirs):
        del manifest["collected"]
    pairs = []
    for a, b in zip(ours["cameras"], theirs["cameras"]):
        for x, y in zip(a["files"], b["files"]):
            pairs.append((folders[0] / x["path"], folders[1] / y["path"]))
            for file in (x, y):
                del file["sha256"], file["size"]
    assert ours == theirs
    for a, b in pairs:
        assert identity_tags(a) == identity_tags(b) and image_bytes(a) == image_bytes(b)


def test_shoot_collect_resume_and_refire(setup, controller, tmp_path):
    shot = controller.shoot("py-1", lead=0.6)
    assert shot.ok and len(shot.cameras) == 4 and not shot.errors
    assert all(c.status == "fired" and c.file and c.sent and not c.duplicate for c in shot.cameras)
    assert shot.spread_us == max(c.sent for c in shot.cameras) - min(c.sent for c in shot.cameras)

    collected = controller.collect("py-1", tmp_path)
    assert (collected.fetched, collected.kept, collected.complete) == (4, 0, True)
    ours = check_set(setup, tmp_path, "py-1", 100)
    # orqcam's own collection of the same shot, in either layout: the same set.
    for layout in ("set", "rig"):
        mine = tmp_path / ("py-" + layout)
        if layout == "rig":
            controller.collect("py-1", mine, layout="rig")
        done = subprocess.run([ORQCAM, "rig", "--broker", setup.url, "--rig", "py",
                               "--password-file", str(setup.password_file), "collect", "py-1",
                               "--dir", str(tmp_path / layout), "--layout", layout],
                              capture_output=True, timeout=60)
        assert done.returncode == 0, done.stderr
        if layout == "set":
            same_sets(check_set(setup, tmp_path, "py-1", 100),
                      check_set(setup, tmp_path / layout, "py-1", 100),
                      (tmp_path, tmp_path / layout))
        else:
            same_sets(check_set(setup, mine, "py-1", 100, "rig"),
                      check_set(setup, tmp_path / layout, "py-1", 100, "rig"),
                      (mine, tmp_path / layout))
            assert (mine / "rig-map.txt").read_text() == \
                (tmp_path / layout / "rig-map.txt").read_text()

    # A rig map with a number twice: refused before anything is written.
    (tmp_path / "bad").mkdir()
    (tmp_path / "bad" / "rig-map.txt").write_text("000 A\n000 B\n")
    with pytest.raises(rig.RigError, match="line 2: number 000 is given on line 1") as refused:
        controller.collect("py-1", tmp_path / "bad", layout="rig")
    assert refused.value.exit == 2 and os.listdir(tmp_path / "bad") == ["rig-map.txt"]

    # One file lost, one damaged: exactly those two fetched again.
    paths = [tmp_path / e["files"][0]["path"] for e in ours["cameras"][:2]]
    paths[0].unlink()
    paths[1].write_bytes(b"\0damaged")
    again = controller.collect("py-1", tmp_path)
    assert (again.fetched, again.kept, again.failed, again.complete) == (2, 2, 0, True)
    check_set(setup, tmp_path, "py-1", 100)

    # The same id again fires nothing: each node answers with its first report and the files.
    twice = controller.shoot("py-1", lead=0.6)
    assert all(c.duplicate and c.status == "fired" for c in twice.cameras) and twice.ok
    assert sorted(c.file["sha256"] for c in twice.cameras) == \
        sorted(c.file["sha256"] for c in shot.cameras)
    controller.shoot("py-2", lead=0.6)
    controller.collect("py-2", tmp_path)
    check_set(setup, tmp_path, "py-2", 101)

    # Fired at a moment already past: every camera late, nothing taken.
    late = controller.shoot("py-late", lead=0)
    assert not late.ok and {c.status for c in late.cameras} == {"late"}
    assert controller.collect("py-late", tmp_path).manifest["cameras"][0]["reason"] == "late"


def test_set_zoom_and_watch(controller):
    with controller.watch(seconds=30) as watch:
        adjusted = controller.set("iso speed", "ISO 400")
        assert adjusted.ok and len(adjusted.cameras) == 4
        assert {c["value"] for c in adjusted.cameras} == {"ISO 400"}
        # Each camera's record comes again with the value it now holds; a node may publish the
        # record before its report, so the watch goes on until it has seen both.
        changed, kinds = set(), set()
        for event in watch:
            kinds.add(event.kind)
            if event.kind == "camera" and event.payload["settings"]["ISO Speed"] == "ISO 400":
                changed.add((event.node, event.camera))
            if len(changed) == 4 and kinds >= {"set", "report"}:
                break
        assert len(changed) == 4
        assert kinds >= {"set", "report", "camera"}

    zoomed = controller.zoom(3, cameras=["pa"])
    assert zoomed.ok and {(c["node"], c["zoom"]) for c in zoomed.cameras} == {("pa", 3)}
    until(lambda: [c.get("zoom") for c in controller.list().cameras_of("pa")] == [3, 3] and
          all(c["settings"]["ISO Speed"] == "ISO 400" for c in controller.list().cameras.values()),
          10, "the camera records carry the new zoom and ISO")
    assert [c.get("zoom") for c in controller.list().cameras_of("pb")] == [0, 0]

    refused = controller.set("ISO Speed", "no such value", cameras=["pb"])
    assert not refused.ok and len(refused.cameras) == 2
    assert all(c["result"] != "ORQ_OK" for c in refused.cameras)
    with pytest.raises(rig.NotOnline):
        controller.zoom(1, cameras=["pa/no-such-camera"])


def test_broker_refusals(setup):
    with pytest.raises(rig.BrokerError, match="refused us") as refused:
        rig.connect(setup.url, "py", password="wrong", timeout=5)
    assert refused.value.exit == 7
    with pytest.raises(ValueError, match="needs a user"):
        rig.connect("mqtt://127.0.0.1:%d" % setup.port, "py", password="x")
    with pytest.raises(rig.BrokerError, match="cannot reach|unanswered|did not answer"):
        rig.connect(setup.url.replace("mqtt:", "mqtts:"), "py", timeout=5)


def test_tls(setup):
    """mqtts:// with the CA that signed the broker's certificate; a plain client is dropped."""
    folder = setup.folder / "tls"
    folder.mkdir()
    (folder / "san.ext").write_text("subjectAltName=IP:127.0.0.1\n")
    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    for command in (["req", "-x509"] + key + ["-days", "1", "-subj", "/CN=py-rig-ca", "-keyout",
                                               "ca.key", "-out", "ca.crt"],
                    ["req"] + key + ["-subj", "/CN=127.0.0.1", "-keyout", "server.key", "-out",
                                     "server.csr"],
                    ["x509", "-req", "-in", "server.csr", "-CA", "ca.crt", "-CAkey", "ca.key",
                     "-CAcreateserial", "-days", "1", "-extfile", "san.ext", "-out", "server.crt"]):
        subprocess.run(["openssl"] + command, cwd=folder, check=True, capture_output=True)
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    (folder / "m.conf").write_text(
        "listener %d 127.0.0.1\nallow_anonymous true\ncafile %s/ca.crt\ncertfile %s/server.crt\n"
        "keyfile %s/server.key\n" % (port, folder, folder, folder))
    subprocess.run(["chown", "-R", "mosquitto", str(folder)], check=True)
    broker = subprocess.Popen(["mosquitto", "-c", str(folder / "m.conf")],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        url = "mqtts://127.0.0.1:%d" % port
        secure = until(lambda: reached(url, cafile=str(folder / "ca.crt")), 10, "the TLS broker")
        with secure:
            assert secure.list().nodes == {}
        with pytest.raises(rig.BrokerError, match="closed the connection unanswered"):
            rig.connect(url.replace("mqtts:", "mqtt:"), "py", timeout=5)
    finally:
        broker.terminate()
        broker.wait(10)


def reached(url, **options):
    try:
        return rig.connect(url, "py", **options)
    except rig.BrokerError as error:
        if "cannot reach" not in str(error):
            raise
        return None


def test_serve_rig_view(setup, controller):
    """orqcam serve --broker: the page's API shows the rig and fires it; no camera of its own."""
    log = setup.folder / "serve.log"
    command = [ORQCAM, "serve", "--listen", "127.0.0.1:0", "--broker", setup.url, "--rig", "py",
               "--password-file", str(setup.password_file)]
    server = subprocess.Popen(
        ["unshare", "-m", "--propagation", "private", "--", "sh", "-c",
         "mount -t tmpfs tmpfs /tmp && exec " + " ".join("'%s'" % c for c in command)],
        stdout=open(log, "w"), stderr=subprocess.STDOUT,
        env=dict(os.environ, XDG_STATE_HOME=str(setup.folder)))
    try:
        base = until(lambda: re.search(r"on (http://\S+/)", log.read_text()), 20,
                     "orqcam serve listening").group(1)

        direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))

        def call(path, body=None):
            request = urllib.request.Request(base + path.lstrip("/"), method="POST" if body else "GET",
                                             data=json.dumps(body).encode() if body else None,
                                             headers={"Content-Type": "application/json"})
            with direct.open(request, timeout=10) as answer:
                return answer.status, json.loads(answer.read())

        # A node state of the wrong shape, as anyone who may publish could leave it.
        mqtt_publish.single("orq/v1/py/node/odd", '{"v": 1, "node": "odd", "online": "yes"}',
                            qos=1, retain=True, hostname="127.0.0.1", port=setup.port,
                            auth={"username": "ctl", "password": PASSWORD})
        until(lambda: "odd" in controller.list().nodes, 10, "the odd node state on the broker")
        status, view = call("/api/rig")
        assert status == 200 and view["rig"] == "py" and view["last"] is None
        assert sorted(n["node"] for n in view["nodes"] if n["online"] is True) == sorted(NODES)
        assert len(view["cameras"]) == 4
        status, fired = call("/api/rig/fire", {"leadMs": 600})
        assert status == 202
        last = until(lambda: (lambda v: v["last"] if v["last"]["id"] == fired["id"] and
                              not v["last"]["pending"] else None)(call("/api/rig")[1]),
                     30, "the fired shot's pictures kept")
        assert last["complete"] and len(last["cameras"]) == 4
        assert all(c["status"] == "fired" and c["file"] for c in last["cameras"])
        # Each camera fired once, and the pictures are the ones the nodes hand out.
        assert len({c["file"]["name"] for c in last["cameras"]}) == 1
        manifest = controller.collect(fired["id"], setup.folder / "served").manifest
        assert sorted(f["node_sha256"] for c in manifest["cameras"] for f in c["files"]) == \
            sorted(c["file"]["sha256"] for c in last["cameras"])
    finally:
        mqtt_publish.single("orq/v1/py/node/odd", "", qos=1, retain=True, hostname="127.0.0.1",
                            port=setup.port, auth={"username": "ctl", "password": PASSWORD})
        server.send_signal(signal.SIGTERM)
        assert server.wait(20) == 0


def test_broker_restart(setup, controller):
    """The controller reconnects by itself and fires again once the nodes are back."""
    setup.broker.terminate()
    setup.broker.wait(10)
    until(lambda: not controller.connected, 10, "the controller sees the broker gone")
    # Refused at once: the broker is gone (and, as it went, it gave out the nodes' wills).
    with pytest.raises((rig.BrokerError, rig.NotOnline)):
        controller.shoot("py-unsent", lead=0.5, timeout=2)
    setup.start_broker()
    until(lambda: controller.connected, 10, "the controller back")
    until(lambda: all_online(controller), 20, "the nodes back")
    assert controller.shoot("py-after", lead=0.6).ok


def test_node_lost_during_a_shot(setup, controller, tmp_path):
    """Last: a node killed while its cameras wait for the moment; the rest go on."""
    shooting = {}
    with controller.watch(seconds=30) as watch:
        thread = threading.Thread(target=lambda: shooting.update(
            shot=controller.shoot("py-lost", lead=1.5)))
        thread.start()
        until(lambda: any(e.kind == "fire" for e in iter(lambda: watch.get(0.1), None)), 10,
              "the fire command on the broker")
    setup.nodes["pb"].kill()
    killed = time.monotonic()
    thread.join(30)
    assert time.monotonic() - killed < 5
    shot = shooting["shot"]
    assert {(c.node, c.status) for c in shot.cameras} == {("pa", "fired"), ("pb", "missing")}
    collected = controller.collect("py-lost", tmp_path)
    assert not collected.complete and collected.fetched == 2
    assert {c["reason"] for c in collected.manifest["cameras"] if c["node"] == "pb"} == \
        {"node offline"}
