#!/usr/bin/env python3
"""Soak of orqcam serve, run by hand: virtual cameras, viewers that each watch every camera's
live view and the event stream, for a while. Reports the frame rate each viewer saw and the
server's resident memory over time (it should stay flat).

    bench/serve_soak.py build/bin/orqcam [--cameras 8] [--viewers 4] [--seconds 600]

Run it with a private /tmp (/work/bin/orq-isolated or a machine without another SDK user).
"""
import argparse
import json
import re
import subprocess
import threading
import time
import urllib.request

MODELS = ["SX160", "A810", "SX150", "SX170", "A1400", "A2200", "A4000", "SX500",
          "SX510", "G15", "SX130", "SX40", "A495", "A800", "IXUS145"]


def rss_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return -1


class Stream(threading.Thread):
    """Reads one live view and counts its frames."""

    def __init__(self, url, stop):
        super().__init__(daemon=True)
        self.url, self.stop, self.frames, self.error = url, stop, 0, None

    def run(self):
        try:
            with urllib.request.urlopen(self.url, timeout=30) as response:
                tail = b""
                while not self.stop.is_set():
                    chunk = response.read1(65536)
                    if not chunk:
                        break
                    text = tail + chunk
                    self.frames += text.count(b"Content-Type: image/jpeg")
                    tail = text[-40:]
                    self.frames -= tail.count(b"Content-Type: image/jpeg")
        except Exception as error:  # reported at the end
            self.error = error


class Events(threading.Thread):
    def __init__(self, url, stop):
        super().__init__(daemon=True)
        self.url, self.stop, self.events = url, stop, 0

    def run(self):
        try:
            with urllib.request.urlopen(self.url, timeout=30) as response:
                while not self.stop.is_set():
                    line = response.readline()
                    if not line:
                        break
                    self.events += line.startswith(b"data:")
        except Exception:
            pass


def post(url):
    request = urllib.request.Request(url, data=b"{}", method="POST",
                                     headers={"Content-Type": "application/json"})
    return urllib.request.urlopen(request, timeout=60).read()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("orqcam")
    parser.add_argument("--cameras", type=int, default=8)
    parser.add_argument("--viewers", type=int, default=4)
    parser.add_argument("--seconds", type=int, default=600)
    parser.add_argument("--sample", type=int, default=30, help="seconds between memory samples")
    args = parser.parse_args()

    command = [args.orqcam]
    for i in range(args.cameras):
        command += ["--virtual", MODELS[i % len(MODELS)]]
    command += ["serve", "--listen", "127.0.0.1:0"]
    server = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    base = re.search(r"(http://[^/]+)/", server.stdout.readline()).group(1)
    stop = threading.Event()
    streams = [[Stream(f"{base}/api/cameras/{c}/live", stop) for c in range(args.cameras)]
               for _ in range(args.viewers)]
    events = [Events(f"{base}/api/events", stop) for _ in range(args.viewers)]
    for thread in [s for viewer in streams for s in viewer] + events:
        thread.start()

    start = time.monotonic()
    samples = []
    shots = 0
    while time.monotonic() - start < args.seconds:
        time.sleep(min(args.sample, args.seconds))
        # A shot now and then, so that the events and the thumbnails are exercised too; each
        # picture is downloaded and deleted, as the virtual cards hold their files in memory.
        for shot in json.loads(post(f"{base}/api/shoot"))["shots"]:
            if shot["ok"]:
                file = f"{base}/api/cameras/{shot['camera']}/files/{shot['id']}"
                urllib.request.urlopen(file, timeout=60).read()
                post(file + "/delete")
        shots += 1
        elapsed = time.monotonic() - start
        frames = sum(s.frames for viewer in streams for s in viewer)
        samples.append((elapsed, rss_kib(server.pid), frames))
        print(f"{elapsed:7.1f} s  rss {samples[-1][1] / 1024:7.1f} MiB  "
              f"{frames / elapsed / (args.viewers * args.cameras):5.1f} frames/s per stream",
              flush=True)
    elapsed = time.monotonic() - start
    stop.set()
    server.terminate()
    server.wait(timeout=30)

    rates = [s.frames / elapsed for viewer in streams for s in viewer]
    errors = [s.error for viewer in streams for s in viewer if s.error]
    print(f"\n{args.cameras} cameras, {args.viewers} viewers, {elapsed:.0f} s, {shots} shoot-alls")
    print(f"frames/s per stream: mean {sum(rates) / len(rates):.1f}, min {min(rates):.1f}, "
          f"max {max(rates):.1f}; all streams {sum(rates):.0f} frames/s")
    print(f"events per viewer: {[e.events for e in events]}")
    first = samples[min(1, len(samples) - 1)][1]
    print(f"rss: after warm-up {first / 1024:.1f} MiB, last {samples[-1][1] / 1024:.1f} MiB, "
          f"max {max(s[1] for s in samples) / 1024:.1f} MiB")
    print(f"server exit {server.returncode}; stream errors {len(errors)}"
          + (f" (first: {errors[0]})" if errors else ""))


if __name__ == "__main__":
    main()
