#!/usr/bin/python3
"""A rig of four "PCs" on one machine: a mosquitto broker on a free loopback port with a password,
four orqcam nodes, each in its own private /tmp (the SDK allows one process per machine) with 16
virtual cameras, and orqcam rig as the controller. Twenty shots, then the faults: a wrong
password, a fire delivered twice, one that comes too late, a node killed during a shot, the
broker restarted, a collect interrupted; and one run over TLS with certificates made here.
Then a second rig of two nodes with four cameras each, whose shots are collected in the rig
layout and read by COLMAP's feature extractor and by exiftool, as a reconstruction would read them.

usage: rig_test.py ORQCAM [--layout-only]   (as root: unshare, mount and chown need it)

Every wait is bounded and watches for what it waits for; nothing sleeps a fixed time."""

import calendar
import hashlib
import json
import os
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

import paho.mqtt.client as mqtt

ORQCAM = os.path.abspath(sys.argv[1]) if len(sys.argv) > 1 else "orqcam"
RIG = "ci"
NODES = 4
CAMERAS = 16
SHOTS = 20
MODELS = ["SX160", "A810", "G15", "SX40"]
PASSWORD = "rig-secret"
work = None  # the run's folder, under /var/tmp: each node has its own /tmp


def make_work():
    global work
    work = tempfile.mkdtemp(prefix="orq-rig-", dir="/var/tmp")
    os.chmod(work, 0o755)  # the broker runs as its own user
    return work
failures = []
children = []  # every broker and node started, stopped by their ids at the end


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAIL:", what, flush=True)
    return condition


class Fatal(Exception):
    pass


def wait_until(predicate, seconds, what, pace=0.1, fatal=False):
    """Polls until predicate() holds; None (and a failure) after the bound, or Fatal."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(pace)
    check(False, "within %.0f s: %s" % (seconds, what))
    if fatal:
        raise Fatal(what)
    return None


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Broker:
    def __init__(self, name, tls=False):
        self.folder = os.path.join(work, name)
        os.makedirs(self.folder)
        self.port = free_port()
        self.tls = tls
        password_file = os.path.join(self.folder, "pw")
        subprocess.run(["mosquitto_passwd", "-b", "-c", password_file, "rig", PASSWORD],
                       check=True)
        lines = ["listener %d 127.0.0.1" % self.port, "allow_anonymous false",
                 "password_file " + password_file, "persistence false"]
        if tls:
            self.cafile = make_certificates(self.folder)
            lines += ["cafile " + self.cafile,
                      "certfile " + os.path.join(self.folder, "server.crt"),
                      "keyfile " + os.path.join(self.folder, "server.key")]
        with open(os.path.join(self.folder, "m.conf"), "w") as conf:
            conf.write("\n".join(lines) + "\n")
        # mosquitto drops to its own user and must read what it is given.
        subprocess.run(["chown", "-R", "mosquitto", self.folder], check=True)
        self.process = None
        self.start()

    def start(self):
        log = open(os.path.join(self.folder, "broker.log"), "a")
        self.process = subprocess.Popen(["mosquitto", "-c", os.path.join(self.folder, "m.conf")],
                                        stdout=log, stderr=log)
        children.append(self.process)
        wait_until(self.listening, 10, "broker on port %d" % self.port, fatal=True)

    def listening(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
            return True
        except OSError:
            return False

    def stop(self):
        self.process.terminate()
        self.process.wait(10)

    def url(self, user="rig"):
        return "%s://%s@127.0.0.1:%d" % ("mqtts" if self.tls else "mqtt", user, self.port)


def make_certificates(folder):
    def openssl(*arguments):
        subprocess.run(["openssl"] + list(arguments), check=True, capture_output=True)

    ca_key, ca = os.path.join(folder, "ca.key"), os.path.join(folder, "ca.crt")
    key, request = os.path.join(folder, "server.key"), os.path.join(folder, "server.csr")
    extensions = os.path.join(folder, "san.ext")
    with open(extensions, "w") as f:
        f.write("subjectAltName=IP:127.0.0.1\n")
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=rig-ca",
            "-keyout", ca_key, "-out", ca)
    openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=127.0.0.1", "-keyout", key,
            "-out", request)
    openssl("x509", "-req", "-in", request, "-CA", ca, "-CAkey", ca_key, "-CAcreateserial",
            "-days", "2", "-extfile", extensions, "-out", os.path.join(folder, "server.crt"))
    return ca


def password_file():
    path = os.path.join(work, "password")
    if not os.path.exists(path):
        with open(path, "w") as f:
            f.write(PASSWORD + "\n")
    return path


class Node:
    def __init__(self, broker, name, cameras, extra=(), latency=None, rig_name=RIG):
        self.broker, self.name, self.cameras, self.extra = broker, name, cameras, list(extra)
        self.latency = latency
        self.rig_name = rig_name
        self.store = os.path.join(work, "store-" + name)
        self.log = os.path.join(work, "node-%s.log" % name)
        self.process = None

    def start(self):
        models = []
        for i in range(self.cameras):
            models += ["--virtual", MODELS[i % len(MODELS)]]
        if self.latency:
            models += ["--virtual-latency", self.latency]
        command = [ORQCAM] + models + ["node", "--broker", self.broker.url(), "--rig", self.rig_name,
                                       "--node", self.name, "--store", self.store,
                                       "--password-file", password_file()] + self.extra
        inner = "mount -t tmpfs tmpfs /tmp && exec " + " ".join("'%s'" % c for c in command)
        # Its own logs and virtual cards, kept across its restarts as a PC's disk is: cards
        # shared with other runs would number the pictures on from theirs.
        # Cameras of different PCs have different serials, as real ones do.
        environment = dict(os.environ, XDG_STATE_HOME=os.path.join(work, "state-" + self.name),
                           ORQSIM_SERIAL_SEED=self.name)
        self.process = subprocess.Popen(
            ["unshare", "-m", "--propagation", "private", "--", "sh", "-c", inner],
            stdout=open(self.log, "a"), stderr=subprocess.STDOUT, env=environment)
        children.append(self.process)

    def stop(self, how=signal.SIGTERM):
        if self.process and self.process.poll() is None:
            self.process.send_signal(how)
            self.process.wait(30)
        return self.process.returncode


def rig(broker, *arguments, password=PASSWORD, extra=(), rig_name=RIG):
    """orqcam rig ...: (exit code, its JSON document)."""
    environment = dict(os.environ, ORQ_RIG_PASSWORD=password)
    command = [ORQCAM, "--json", "rig", "--broker", broker.url(), "--rig", rig_name] + \
        list(extra) + list(arguments)
    done = subprocess.run(command, capture_output=True, text=True, env=environment, timeout=120)
    try:
        document = json.loads(done.stdout) if done.stdout.strip() else {}
    except ValueError:
        document = {"unparsed": done.stdout}
    return done.returncode, document, done.stderr


def rig_state(broker, extra=(), rig_name=RIG):
    code, document, _ = rig(broker, "list", extra=extra, rig_name=rig_name)
    return document if code == 0 else None


def online(broker, names, cameras_each, extra=(), rig_name=RIG):
    """The rig shows these nodes online with their cameras."""
    def ready():
        state = rig_state(broker, extra, rig_name)
        if not state:
            return False
        up = {n["node"] for n in state["nodes"] if n.get("online")}
        counted = {}
        for camera in state["cameras"]:
            if camera.get("online"):
                counted[camera["node"]] = counted.get(camera["node"], 0) + 1
        return all(n in up and counted.get(n) == cameras_each for n in names)
    return ready


def sha256(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def check_shot(broker, nodes, shot, number, shots_dir, expect_complete=True):
    """Fired once each (the virtual cameras number their pictures in order), collected byte for
    byte, manifest complete. number: the picture number every camera's file must carry."""
    code, collected, _ = rig(broker, "collect", shot, "--dir", shots_dir)
    check(code == 0, "collect %s exits 0, not %d" % (shot, code))
    with open(os.path.join(shots_dir, shot, "manifest.json")) as f:
        manifest = json.load(f)
    check(manifest["complete"] is expect_complete, "%s manifest complete" % shot)
    cameras = manifest["cameras"]
    check(len(cameras) == len(nodes) * CAMERAS,
          "%s manifest lists %d cameras, not %d" % (shot, len(cameras), len(nodes) * CAMERAS))
    problems = []
    for entry in cameras:
        files = entry["files"]
        where = "%s/%s" % (entry["node"], entry["camera"])
        if len(files) != 1:
            problems.append(where + " has no file: " + entry.get("reason", ""))
            continue
        if not (entry["release"]["status"] == "fired" and entry["model"] in MODELS and
                entry["settings"].get("Image Size")):
            problems.append(where + " lacks its release, model or settings")
        if files[0]["name"] != "IMG_%04d.JPG" % number:
            problems.append(where + " did not fire once: %s" % files[0]["name"])
        local = os.path.join(shots_dir, files[0]["path"])
        if files[0]["path"] != "%s/%s_%s.jpg" % (shot, entry["node"], entry["camera"]):
            problems.append(where + " is not where the set layout puts it: " + files[0]["path"])
        kept = os.path.join(work, "store-" + entry["node"], shot, entry["node"], entry["camera"],
                            files[0]["name"])
        if sha256(kept) != files[0]["node_sha256"]:
            problems.append(where + " differs from the node's copy")
        if sha256(local) != files[0]["sha256"] or os.path.getsize(local) != files[0]["size"]:
            problems.append(where + " does not match the manifest's size and SHA-256")
    check(not problems, "%s: %d cameras wrong, e.g. %s" % (shot, len(problems), problems[:2]))
    return collected


class Listener:
    """A subscriber of our own (paho): in place once the broker has acknowledged it."""

    def __init__(self, broker, *topics):
        self.messages = []
        self.changed = threading.Condition()
        self.acknowledged = 0
        self.client = mqtt.Client()
        self.client.username_pw_set("rig", PASSWORD)
        self.client.on_message = self.received
        self.client.on_subscribe = self.subscribed
        self.client.connect("127.0.0.1", broker.port)
        self.client.loop_start()
        for topic in topics:
            self.client.subscribe("orq/v1/%s/%s" % (RIG, topic), qos=1)
        self.wait(lambda: self.acknowledged == len(topics), "subscribed to %s" % (topics,))

    def subscribed(self, client, userdata, mid, granted):
        with self.changed:
            self.acknowledged += 1
            self.changed.notify_all()

    def received(self, client, userdata, message):
        with self.changed:
            self.messages.append((message.topic, json.loads(message.payload)))
            self.changed.notify_all()

    def wait(self, predicate, what, seconds=20):
        with self.changed:
            return check(self.changed.wait_for(predicate, seconds), "within %d s: %s" % (seconds, what))

    def publish(self, topic, payload):
        self.client.publish("orq/v1/%s/%s" % (RIG, topic), json.dumps(payload), qos=1).wait_for_publish()

    def close(self):
        self.client.loop_stop()
        self.client.disconnect()


def main():
    make_work()
    started = time.monotonic()
    broker = Broker("broker")
    names = ["pc%d" % i for i in range(NODES)]
    nodes = [Node(broker, name, CAMERAS) for name in names]
    for node in nodes:
        node.start()
    wait_until(online(broker, names, CAMERAS), 60, "four nodes of 16 cameras online", fatal=True)
    print("rig up after %.1f s" % (time.monotonic() - started), flush=True)
    shots_dir = os.path.join(work, "shots")

    # Twenty shots; every camera numbers its pictures from IMG_0100 on.
    number = 100
    spreads = []
    for k in range(SHOTS):
        shot = "shot-%02d" % k
        code, fired, _ = rig(broker, "shoot", "--id", shot, "--lead", "600")
        check(code == 0, "%s: rig shoot exits 0, not %d" % (shot, code))
        check(len(fired.get("cameras", [])) == NODES * CAMERAS and
              all(c["status"] == "fired" for c in fired.get("cameras", [])),
              shot + ": every camera fired")
        spreads.append(fired.get("spreadUs", 0))
        check_shot(broker, names, shot, number, shots_dir)
        number += 1
    spreads.sort()
    print("20 shots: release spread median %.3f ms, worst %.3f ms (node clocks)" %
          (spreads[len(spreads) // 2] / 1000, spreads[-1] / 1000), flush=True)

    # Settings and zoom on every camera: the cameras hold them; a value some models do not offer
    # is refused where they lack it, as orqcam set refuses it on one camera (exit 6).
    code, adjusted, _ = rig(broker, "set", "ISO Speed", "ISO 125")
    refused = [c for r in adjusted.get("reports", []) for c in r["cameras"] if c["result"] != "ORQ_OK"]
    check(code == 6 and len(refused) == NODES * CAMERAS * 3 // 4,
          "ISO 125 refused by the models without it: exit %d, %d refused" % (code, len(refused)))
    listener = Listener(broker, "event/+/+/setting")
    code, adjusted, _ = rig(broker, "set", "ISO Speed", "ISO 400")
    entries = [c for r in adjusted.get("reports", []) for c in r["cameras"]]
    check(code == 0 and len(entries) == NODES * CAMERAS and
          all(c["value"] == "ISO 400" for c in entries), "rig set on every camera: exit %d" % code)

    def told():
        return {t for t, p in listener.messages if p.get("value") == "ISO 400"}
    listener.wait(lambda: len(told()) == NODES * CAMERAS, "a setting event from every camera")
    listener.close()
    code, adjusted, _ = rig(broker, "zoom", "max")
    check(code == 0, "rig zoom exits 0, not %d" % code)
    state = rig_state(broker)
    wrong = [c["camera"] for c in (state or {}).get("cameras", [])
             if c["settings"].get("ISO Speed") != "ISO 400" or c["zoom"] != c["maxZoom"] or
             c.get("battery") != "3"]  # the virtual battery's level 2, by its value's name
    check(state and not wrong,
          "every camera record holds ISO 400, the longest zoom, battery '3': %s" % wrong[:3])

    # A wrong password: refused with a clear error and exit 7, from controller and node alike.
    code, document, error = rig(broker, "list", password="wrong")
    check(code == 7 and "refused" in error and document.get("exit") == 7,
          "a wrong password: exit 7 with a clear error, not %d %r" % (code, error))
    with open(os.path.join(work, "wrong"), "w") as f:
        f.write("wrong\n")
    environment_wrong = [ORQCAM, "--virtual", "SX160", "node", "--broker", broker.url(), "--rig",
                         RIG, "--node", "intruder", "--password-file", os.path.join(work, "wrong")]
    done = subprocess.run(["unshare", "-m", "--propagation", "private", "--", "sh", "-c",
                           "mount -t tmpfs tmpfs /tmp && exec " +
                           " ".join("'%s'" % c for c in environment_wrong)],
                          capture_output=True, text=True, timeout=60)
    check(done.returncode == 7 and "refused" in done.stderr,
          "a node with a wrong password exits 7, not %d" % done.returncode)

    # A fire delivered twice: fired once, the second answered as a duplicate.
    listener = Listener(broker, "report/+/twice")
    command = {"v": 1, "id": "twice", "at": int(time.time() * 1e6) + 1500000}
    listener.publish("cmd/fire", command)
    listener.publish("cmd/fire", command)
    listener.wait(lambda: len(listener.messages) >= 2 * NODES, "two reports from each node")
    got = [payload for _, payload in listener.messages]
    listener.close()
    check(len(got) == 2 * NODES, "two reports from each node on a double fire, got %d" % len(got))
    check(sorted(r["duplicate"] for r in got) == [False] * NODES + [True] * NODES,
          "each node fired the double command once and answered the second as duplicate")
    wait_until(lambda: rig(broker, "collect", "twice", "--dir", shots_dir)[0] == 0, 30,
               "the double fire's pictures kept")
    collected = check_shot(broker, names, "twice", number, shots_dir)
    with open(os.path.join(shots_dir, "twice", "manifest.json")) as f:
        check(all(c["settings"]["ISO Speed"] == "ISO 400" for c in json.load(f)["cameras"]),
              "the manifest carries the settings read back after the shot")
    number += 1

    # The same id again from rig shoot: the nodes answer duplicate, the first pictures stand.
    code, fired, _ = rig(broker, "shoot", "--id", "twice", "--lead", "300")
    files = [(c.get("file") or {}).get("name") for c in fired.get("cameras", [])]
    check(code == 0 and files == ["IMG_%04d.JPG" % (number - 1)] * (NODES * CAMERAS),
          "a reused id: exit 0 with the first pictures, not %d %r" % (code, files[:2]))
    # A camera no node has: exit 3 at once, nothing fired.
    code, fired, _ = rig(broker, "shoot", "--id", "nosuch", "%s/nosuch" % names[0])
    check(code == 3, "a shot of an unknown camera exits 3, not %d" % code)

    # Payloads of any shape, from anyone who may publish: controllers and nodes read on.
    bogus = {"node/bogus": {"v": 1, "online": "yes", "clock": 5, "files": []},
             "node/..": {"v": 1, "online": False}, "camera/bogus/x": {"node": "bogus", "camera": "x", "online": "yes", "zoom": {}},
             "camera/%s/evil" % names[0]: [7], "cmd/fire": {"v": 1, "id": "odd", "cameras": 5},
             "cmd/set": {"v": 1, "id": "odd2", "setting": [], "value": {}}}
    listener = Listener(broker)
    for topic, payload in bogus.items():
        listener.client.publish("orq/v1/%s/%s" % (RIG, topic), json.dumps(payload), qos=1,
                                retain=topic.startswith(("node", "camera"))).wait_for_publish()
    listener.client.publish("orq/v1/%s/node/junk" % RIG, b"\xff{", qos=1, retain=True).wait_for_publish()
    code, state, _ = rig(broker, "list")
    check(code == 0 and len(state.get("nodes", [])) == NODES + 1,
          "rig list reads odd retained states: exit %d" % code)
    code, fired, _ = rig(broker, "shoot", "--id", "twice", "--lead", "300")
    check(code == 0, "rig shoot beside odd retained states exits 0, not %d" % code)
    code, collected, _ = rig(broker, "collect", "twice", "--dir", shots_dir)
    with open(os.path.join(shots_dir, "twice", "manifest.json")) as f:
        listed = {(c["node"], c.get("reason")) for c in json.load(f)["cameras"]}
    check(code == 4 and ("bogus", "node offline") in listed and
          not any(n == ".." for n, _ in listed), "collect beside odd states: exit %d" % code)
    for topic in list(bogus) + ["node/junk"]:
        if topic.startswith(("node", "camera")):
            listener.client.publish("orq/v1/%s/%s" % (RIG, topic), b"", qos=1,
                                    retain=True).wait_for_publish()
    listener.close()

    # A fire that arrives too late: nobody fires, every camera is reported late.
    listener = Listener(broker, "report/+/too-late")
    listener.publish("cmd/fire", {"v": 1, "id": "too-late", "at": int(time.time() * 1e6) - 200000})
    listener.wait(lambda: len(listener.messages) >= NODES, "a report from each node")
    got = [payload for _, payload in listener.messages]
    listener.close()
    check(len(got) == NODES and all(c["status"] == "late" for r in got for c in r["cameras"]),
          "a late fire: every camera reported late")
    code, _, _ = rig(broker, "collect", "too-late", "--dir", shots_dir)
    with open(os.path.join(shots_dir, "too-late", "manifest.json")) as f:
        late = json.load(f)
    check(all(c["files"] == [] and c["reason"] == "late" for c in late["cameras"]),
          "the late shot's manifest: no files, reason late")

    # A node killed with SIGKILL during a shot: its cameras missing within 5 s, others complete.
    victim = nodes[3]
    watcher = Listener(broker, "cmd/fire")
    environment = dict(os.environ, ORQ_RIG_PASSWORD=PASSWORD)
    shooter = subprocess.Popen(
        [ORQCAM, "--json", "rig", "--broker", broker.url(), "--rig", RIG, "shoot", "--id",
         "killed", "--lead", "1500"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
        env=environment)
    watcher.wait(lambda: watcher.messages, "the fire command on the broker")
    watcher.close()
    victim.stop(signal.SIGKILL)
    killed_at = time.monotonic()
    out, _ = shooter.communicate(timeout=60)
    told_after = time.monotonic() - killed_at
    fired = json.loads(out)
    missing = [c for c in fired["cameras"] if c["node"] == victim.name]
    check(shooter.returncode == 4 and len(missing) == CAMERAS and
          all(c["status"] == "missing" for c in missing),
          "the killed node's cameras reported missing (exit %d)" % shooter.returncode)
    check(told_after < 5, "the rig knew within 5 s (%.1f s)" % told_after)
    others = [c for c in fired["cameras"] if c["node"] != victim.name]
    check(len(others) == 3 * CAMERAS and all(c["status"] == "fired" and c["file"] for c in others),
          "the other nodes' cameras fired and kept their pictures")
    code, collected, _ = rig(broker, "collect", "killed", "--dir", shots_dir)
    with open(os.path.join(shots_dir, "killed", "manifest.json")) as f:
        manifest = json.load(f)
    check(code == 4 and not manifest["complete"], "collect of a shot with a lost node: exit 4")
    check(sum(1 for c in manifest["cameras"] if len(c["files"]) == 1) == 3 * CAMERAS and
          sum(1 for c in manifest["cameras"] if c.get("reason") == "node offline") == CAMERAS,
          "the others' files collected, the lost node's cameras listed as offline")
    victim.start()
    wait_until(online(broker, names, CAMERAS), 60, "the killed node back")
    # Back with its store: a shot it fired before is never fired again.
    listener = Listener(broker, "report/%s/shot-05" % victim.name)
    listener.publish("cmd/fire", {"v": 1, "id": "shot-05", "at": int(time.time() * 1e6) + 500000,
                                  "cameras": [victim.name]})
    listener.wait(lambda: listener.messages, "the restarted node's answer")
    check(listener.messages and listener.messages[0][1]["duplicate"] is True,
          "a restarted node remembers the shots in its store and does not fire one again")
    listener.close()
    # Its cameras start afresh at IMG_0100; the rest go on.

    # The broker restarted: the nodes are back and their state republished within 10 s.
    broker.stop()
    restarted = time.monotonic()
    broker.start()
    wait_until(online(broker, names, CAMERAS), 10, "nodes back within 10 s of a broker restart",
               pace=0.2)
    print("nodes back %.1f s after the broker restarted" % (time.monotonic() - restarted),
          flush=True)
    code, fired, _ = rig(broker, "shoot", "--id", "after-restart", "--lead", "600")
    check(code == 0, "a shot after the broker restart exits 0, not %d" % code)
    names_seen = {c["file"]["name"] for c in fired.get("cameras", []) if c["node"] != victim.name
                  and c.get("file")}
    check(names_seen == {"IMG_%04d.JPG" % (number + 1)},
          "no shot fired twice across the restart: %s" % sorted(names_seen))

    # A collect interrupted, then run again: the verified files are not fetched again.
    fresh = os.path.join(work, "again")
    interrupted = subprocess.Popen(
        [ORQCAM, "rig", "--broker", broker.url(), "--rig", RIG, "collect", "shot-00", "--dir",
         fresh], env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    first = os.path.join(fresh, "shot-00")
    wait_until(lambda: os.path.isdir(first) and any(files for _, _, files in os.walk(first))
               or interrupted.poll() is not None, 30, "the collect under way")
    interrupted.kill()
    interrupted.wait(10)
    code, again, _ = rig(broker, "collect", "shot-00", "--dir", fresh)
    check(code == 0 and again["fetched"] + again["kept"] == NODES * CAMERAS,
          "collect run again completes: %r" % again)
    # Two files lost and one damaged: exactly those three are fetched again.
    with open(os.path.join(first, "manifest.json")) as f:
        entries = json.load(f)["cameras"]
    paths = [os.path.join(fresh, e["files"][0]["path"]) for e in entries[:3]]
    os.remove(paths[0])
    os.remove(paths[1])
    with open(paths[2], "r+b") as f:
        f.write(b"\0damaged")
    code, again, _ = rig(broker, "collect", "shot-00", "--dir", fresh)
    check(code == 0 and again["fetched"] == 3 and again["kept"] == NODES * CAMERAS - 3,
          "a resumed collect fetches only what is missing or damaged: %r" % again)
    check_shot(broker, names, "shot-00", 100, fresh)

    for node in nodes:
        check(node.stop() == 0, "node %s stops cleanly on SIGTERM" % node.name)
    broker.stop()

    # TLS: certificates made here; a plain client on the TLS port is refused.
    secure = Broker("secure", tls=True)
    node = Node(secure, "tls0", 2, ["--cafile", secure.cafile])
    node.start()
    tls = ["--cafile", secure.cafile]
    ready = wait_until(online(secure, ["tls0"], 2, extra=tls), 60, "a node over TLS online")
    if ready:
        code, fired, _ = rig(secure, "shoot", "--id", "secure", "--lead", "500", extra=tls)
        check(code == 0, "a shot over TLS exits 0, not %d" % code)
        code, collected, _ = rig(secure, "collect", "secure", "--dir", shots_dir, extra=tls)
        check(code == 0 and collected.get("complete"), "a TLS shot collected")
    secure.tls = False
    code, _, error = rig(secure, "list")
    check(code == 7, "a plain client on the TLS port: exit 7, not %d" % code)
    secure.tls = True
    node.stop()
    secure.stop()

    layout_part()
    print("rig test: %d failures in %.1f s" % (len(failures), time.monotonic() - started))
    return 1 if failures else 0


def strip_exif(node, shot):
    """A camera that writes no Exif: the node's first picture of the shot loses its APP1 segment,
    and the node's record its size and SHA-256. Returns the camera's serial."""
    record_path = os.path.join(work, "store-" + node, shot, node + ".json")
    with open(record_path) as f:
        record = json.load(f)
    entry = record["cameras"][0]
    picture = os.path.join(work, "store-" + node, shot, node, entry["camera"],
                           entry["files"][0]["name"])
    with open(picture, "rb") as f:
        data = f.read()
    at, out = 2, data[:2]
    while data[at + 1] != 0xDA:
        length = 2 + (data[at + 2] << 8 | data[at + 3])
        if data[at + 1] != 0xE1:
            out += data[at:at + length]
        at += length
    out += data[at:]
    with open(picture, "wb") as f:
        f.write(out)
    entry["files"][0].update(size=len(out), sha256=hashlib.sha256(out).hexdigest())
    with open(record_path, "w") as f:
        json.dump(record, f)
    return entry["serial"]


def layout_part():
    """Eight cameras on two nodes at the smallest size, two shots collected in the rig layout
    beside a map whose owner numbered one camera: COLMAP reads every picture with one camera per
    folder, and exiftool finds serial, time to the microsecond and focal length in each."""
    started = time.monotonic()
    set_rig, names, each, shots = "ci-set", ["pa", "pb"], 4, ["s0001", "s0002"]
    broker = Broker("layout")
    nodes = [Node(broker, name, each, rig_name=set_rig) for name in names]
    for node in nodes:
        node.start()
    wait_until(online(broker, names, each, rig_name=set_rig), 60, "two nodes of four online",
               fatal=True)
    print("rig layout: nodes up after %.1f s" % (time.monotonic() - started), flush=True)
    for setting in (["set", "Image Size", "Small"], ["zoom", "10"]):
        code, _, _ = rig(broker, *setting, rig_name=set_rig)
        check(code == 0, "rig %s exits 0, not %d" % (setting[0], code))
    state = rig_state(broker, rig_name=set_rig)
    serials = sorted(c["serial"] for c in state["cameras"])
    root = os.path.join(work, "layout-set")
    os.makedirs(root)
    owner = "# booth, front row\n\n007   %s\n" % serials[3]
    with open(os.path.join(root, "rig-map.txt"), "w") as f:
        f.write(owner)
    manifests = {}
    stripped = None  # (shot, serial) of the picture whose Exif the collector has to write
    for shot in shots:
        code, _, _ = rig(broker, "shoot", "--id", shot, "--lead", "600", rig_name=set_rig)
        check(code == 0, "%s: rig shoot exits 0, not %d" % (shot, code))
        if shot == shots[-1]:
            stripped = (shot, strip_exif(names[0], shot))
        code, collected, _ = rig(broker, "collect", shot, "--dir", root, "--layout", "rig",
                                 rig_name=set_rig)
        check(code == 0 and collected.get("fetched") == len(names) * each,
              "%s collected in the rig layout: exit %d, %r" % (shot, code, collected))
        with open(os.path.join(root, "manifests", shot + ".json")) as f:
            manifests[shot] = json.load(f)

    # The owner's lines stand as written; the others are appended from 008 on, once.
    with open(os.path.join(root, "rig-map.txt")) as f:
        text = f.read()
    lines = [l.split() for l in text[len(owner):].splitlines()]
    numbers = {serial: number for number, serial in lines}
    numbers[serials[3]] = "007"
    check(text.startswith(owner) and len(lines) == 7 and
          sorted(n for n, _ in lines) == ["%03d" % n for n in range(8, 15)] and
          sorted(numbers) == serials, "the rig map: owner's lines kept, 7 cameras appended once")

    problems = []
    for shot, manifest in manifests.items():
        released = [c["releasedUs"] for c in manifest["cameras"]]
        if (manifest["v"], manifest["layout"], manifest["missing"], manifest["spreadUs"]) != \
                (2, "rig", [], max(released) - min(released)):
            problems.append(shot + ": manifest v2 head")
        for c in manifest["cameras"]:
            path = "rig/%s/%s.jpg" % (numbers.get(c["serial"]), shot)
            f = c["files"][0] if len(c["files"]) == 1 else {}
            local = os.path.join(root, path)
            kept = os.path.join(work, "store-" + c["node"], shot, c["node"], c["camera"],
                                f.get("name", "?"))
            if c["rig"] != numbers.get(c["serial"]) or f.get("path") != path or \
                    not os.path.exists(local) or sha256(local) != f["sha256"] or \
                    sha256(kept) != f["node_sha256"] or c["zoom"] != 10 or \
                    c["settings"].get("Image Size") != "Small" or \
                    c["scheduledUs"] != manifest["at"]:
                problems.append("%s %s/%s: %r" % (shot, c["node"], c["camera"], c))
    check(not problems, "rig-layout manifests: %d wrong, e.g. %s" % (len(problems), problems[:1]))

    # A map that does not parse: refused, naming the line, and nothing written.
    broken = os.path.join(work, "layout-broken")
    os.makedirs(broken)
    with open(os.path.join(broken, "rig-map.txt"), "w") as f:
        f.write("000 A\n01 B\n")
    code, _, error = rig(broker, "collect", shots[0], "--dir", broken, "--layout", "rig",
                         rig_name=set_rig)
    check(code == 2 and "line 2" in error and os.listdir(broken) == ["rig-map.txt"],
          "a broken rig map: exit 2 naming line 2, nothing written (exit %d)" % code)
    for node in nodes:
        node.stop()
    broker.stop()

    # exiftool reads the identity back from every picture.
    done = subprocess.run(["exiftool", "-j", "-n", "-r", "-ext", "jpg", "-Make", "-Model",
                           "-SerialNumber", "-DateTimeOriginal", "-SubSecTimeOriginal", "-OffsetTimeOriginal",
                           "-FocalLength", "-FocalLengthIn35mmFormat", os.path.join(root, "rig")],
                          capture_output=True, text=True, timeout=60)
    read = {os.path.relpath(t["SourceFile"], root): t for t in json.loads(done.stdout or "[]")}
    wrong = []
    for shot, manifest in manifests.items():
        for c in manifest["cameras"]:
            tags = read.get(c["files"][0]["path"], {})
            # JSON gives six digits as a number: leading zeros are the writer's, not exiftool's.
            sub = str(tags.get("SubSecTimeOriginal")).zfill(6)
            stamp = "%s.%s" % (tags.get("DateTimeOriginal"), sub)
            try:
                taken = calendar.timegm(time.strptime(stamp[:19], "%Y:%m:%d %H:%M:%S")) + \
                    int(stamp[20:]) / 1e6
            except ValueError:
                taken = 0
            if (shot, c["serial"]) == stripped and (
                    sub != "%06d" % (c["releasedUs"] % 1000000) or
                    tags.get("OffsetTimeOriginal") != "+00:00" or
                    c["files"][0]["sha256"] == c["files"][0]["node_sha256"]):
                wrong.append(("not stamped from the node's record", c["files"][0], tags))
            if (tags.get("Make"), tags.get("Model"), str(tags.get("SerialNumber")),
                    tags.get("FocalLength"), tags.get("FocalLengthIn35mmFormat")) != \
                    ("Orqwerk", c["model"], c["serial"], c["focalLengthMm"],
                     c["focalLength35mm"]) or len(stamp) != 26 or \
                    abs(taken - c["releasedUs"] / 1e6) > 1:
                wrong.append((c["files"][0]["path"], tags))
    check(len(read) == len(shots) * len(names) * each and not wrong,
          "exiftool reads %d pictures' identity; wrong: %s" % (len(read), wrong[:1]))

    # COLMAP's feature extraction as a reconstruction starts it: every picture read, one camera
    # per rig folder, each with the focal length the Exif gives.
    database = os.path.join(root, "db.db")
    environment = dict(os.environ, QT_QPA_PLATFORM="offscreen")
    extracting = time.monotonic()
    done = subprocess.run(["colmap", "feature_extractor", "--database_path", database,
                           "--image_path", os.path.join(root, "rig"),
                           "--ImageReader.single_camera_per_folder", "1",
                           "--SiftExtraction.use_gpu", "0", "--SiftExtraction.num_threads", "2",
                           # Not upsampled first, and fewer features: a quarter of the work.
                           "--SiftExtraction.first_octave", "0",
                           "--SiftExtraction.max_num_features", "1024"],
                          capture_output=True, text=True, timeout=120, env=environment)
    with sqlite3.connect(database) as db:
        images = db.execute("SELECT name, camera_id FROM images").fetchall()
        cameras = db.execute("SELECT camera_id, prior_focal_length FROM cameras").fetchall()
        features = db.execute("SELECT COUNT(*) FROM keypoints WHERE rows > 0").fetchone()[0]
    by_folder = {}
    for name, camera in images:
        by_folder.setdefault(name.split("/")[0], set()).add(camera)
    check(done.returncode == 0 and len(images) == len(shots) * len(names) * each and
          len(cameras) == len(names) * each and sorted(by_folder) == sorted(numbers.values()) and
          all(len(ids) == 1 for ids in by_folder.values()) and
          len({min(ids) for ids in by_folder.values()}) == len(cameras) and
          all(prior == 1 for _, prior in cameras) and features == len(images),
          "COLMAP: exit %d, %d images, %d cameras, %d with features, folders %r" %
          (done.returncode, len(images), len(cameras), features, by_folder))
    print("rig layout: 2 shots of 8 cameras collected, read by exiftool and COLMAP in %.1f s "
          "(%.1f s of it COLMAP's)" % (time.monotonic() - started, time.monotonic() - extracting),
          flush=True)


if __name__ == "__main__":
    result = 1
    try:
        if "--layout-only" in sys.argv:
            make_work()
            layout_part()
            result = 1 if failures else 0
        else:
            result = main()
    except Fatal:
        pass
    finally:
        for child in children:
            if child.poll() is None:
                child.kill()
                child.wait(10)
    if result == 0 and work:
        shutil.rmtree(work, ignore_errors=True)
    else:
        print("kept for a look:", work)
    sys.exit(result)
