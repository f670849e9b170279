#!/usr/bin/python3
"""Rig benchmark (hand-run, never a test): 64 virtual cameras over 4 nodes, each in its own private
/tmp, with a USB-like latency (125 us per transfer, 28 ns per byte), behind a local mosquitto.

- release spread: per shot, the latest minus the earliest moment a Shoot command left, as the
  nodes report it (all nodes read the same CLOCK_REALTIME on one machine); median and worst of 20;
- command to release: how long a fire command takes to reach the nodes, and the shortest lead
  (command to agreed moment) at which no camera of five shots is late;
- collection: rig collect of one shot into an empty folder, beside a plain HTTP copy of the same
  bytes from the same nodes by curl (one connection per node, as collect has).

usage: rig_bench.py ORQCAM   (as root)"""

import json
import os
import shutil
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "rig"))
import rig_test as rig  # noqa: E402

LATENCY = "125:28"


def main():
    work = rig.make_work()
    broker = rig.Broker("broker")
    names = ["pc%d" % i for i in range(4)]
    nodes = [rig.Node(broker, name, rig.CAMERAS, latency=LATENCY) for name in names]
    for node in nodes:
        node.start()
    rig.wait_until(rig.online(broker, names, rig.CAMERAS), 60, "rig online", fatal=True)

    spreads, late = [], []
    for k in range(20):
        code, fired, _ = rig.rig(broker, "shoot", "--id", "bench-%02d" % k, "--lead", "500")
        sent = [c["sent"] for c in fired["cameras"] if c["status"] == "fired"]
        if code != 0 or len(sent) != 64:
            print("shot %d: exit %d, %d fired" % (k, code, len(sent)))
            continue
        spreads.append((max(sent) - min(sent)) / 1000)
        late += [c["lateUs"] / 1000 for c in fired["cameras"]]
    print("release spread over %d shots of 64 cameras: median %.3f ms, worst %.3f ms" %
          (len(spreads), statistics.median(spreads), max(spreads)))
    print("lateness after the agreed moment: median %.3f ms, worst %.3f ms" %
          (statistics.median(late), max(late)))

    # Delivery of a command, from its publication to each node's receipt.
    listener = rig.Listener(broker, "report/+/+")
    delivery = []
    for k in range(10):
        shot = "deliver-%02d" % k
        published = int(time.time() * 1e6)
        listener.publish("cmd/fire", {"v": 1, "id": shot, "at": published + 500000})
        listener.wait(lambda: sum(1 for t, _ in listener.messages if t.endswith(shot)) == 4, shot)
        delivery += [(m["received"] - published) / 1000 for t, m in listener.messages
                     if t.endswith("/" + shot)]
        rig.wait_until(lambda: rig.rig(broker, "collect", shot, "--dir",
                                       os.path.join(work, "d"))[0] == 0, 30, shot + " kept")
    print("command delivery to the nodes: median %.3f ms, worst %.3f ms" %
          (statistics.median(delivery), max(delivery)))
    for lead in (5, 10, 20, 40, 80, 160):
        ok = 0
        for k in range(5):
            shot = "lead-%d-%d" % (lead, k)
            code, fired, _ = rig.rig(broker, "shoot", "--id", shot, "--lead", str(lead))
            ok += all(c["status"] == "fired" for c in fired.get("cameras", []))
        print("lead %4d ms: %d of 5 shots with every camera fired" % (lead, ok))
        if ok == 5:
            break
    listener.close()

    # Collection beside a plain HTTP copy of the same files.
    target = os.path.join(work, "collect")
    started = time.monotonic()
    code, collected, _ = rig.rig(broker, "collect", "bench-00", "--dir", target)
    collect_seconds = time.monotonic() - started
    with open(os.path.join(target, "bench-00", "manifest.json")) as f:
        manifest = json.load(f)
    total = sum(f["size"] for c in manifest["cameras"] for f in c["files"])
    state = rig.rig_state(broker)
    servers = {n["node"]: n["files"] for n in state["nodes"]}
    started = time.monotonic()
    copied = 0
    for name in names:
        url, token = servers[name]["url"], servers[name]["token"]
        # curl, one connection per node as collect has, every file to /dev/null.
        command = ["curl", "-sS", "--fail", "-H", "Authorization: Bearer " + token]
        for camera in manifest["cameras"]:
            for f in camera["files"] if camera["node"] == name else []:
                command += ["-o", "/dev/null", url + "api/rig/shots/bench-00/" + f["path"]]
                copied += f["size"]
        subprocess.run(command, check=True)
    copy_seconds = time.monotonic() - started
    print("collect: %d files, %.1f MB in %.3f s = %.1f MB/s (manifest, SHA-256 and all; exit %d)" %
          (collected["fetched"], total / 1e6, collect_seconds, total / 1e6 / collect_seconds, code))
    print("plain HTTP copy of the same %.1f MB: %.3f s = %.1f MB/s" %
          (copied / 1e6, copy_seconds, copied / 1e6 / copy_seconds))

    for node in nodes:
        node.stop()
    broker.stop()
    shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    result = 1
    try:
        result = main()
    except rig.Fatal:
        pass
    finally:
        for child in rig.children:
            if child.poll() is None:
                child.kill()
                child.wait(10)
    sys.exit(result)
