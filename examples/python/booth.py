#!/usr/bin/env python3
"""A photo booth: live view while waiting, then a shot straight to the host, saved to a folder.

    booth.py --out pictures              # the first attached camera, until Ctrl-C
    booth.py --sim SX160 --shots 2       # a virtual camera, two rounds
"""

import argparse
import contextlib
import sys
import time
from pathlib import Path

import orqsdk


def run_booth(session: orqsdk.Session, out: Path, shots: int, preview_seconds: float) -> None:
    host = "Direct Transfer" in session.settings
    taken = 0
    while shots == 0 or taken < shots:
        # Live view until it is time to shoot; a real booth would show the frames on screen.
        frames, started = 0, time.monotonic()
        last = None
        while time.monotonic() - started < preview_seconds:
            last = session.next_frame(timeout=5)
            frames += 1
        if last is not None:
            last.save(out / "preview.bmp")
        picture = session.shoot(to_host=host, timeout=30)
        target = out / f"booth_{taken + 1:04d}.jpg"
        # A picture on the host stays in memory until deleted; one on the card is removed too.
        saved = session.download(picture, target, delete_after=True, timeout=60)
        taken += 1
        print(f"shot {taken}: {saved} ({saved.stat().st_size} bytes) after {frames} live-view frames "
              f"of {last.width}x{last.height}" if last else f"shot {taken}: {saved}")
    session.preview = False


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--out", type=Path, default=Path("booth"), help="folder for the pictures")
    parser.add_argument("--shots", type=int, default=0, help="rounds to run (0: until Ctrl-C)")
    parser.add_argument("--preview-seconds", type=float, default=1.0, help="live view before each shot")
    parser.add_argument("--sim", metavar="MODEL", help="use a virtual camera of this model")
    args = parser.parse_args()
    args.out.mkdir(parents=True, exist_ok=True)

    if args.sim:
        from orqsdk import sim

        sim.VirtualCamera(args.sim)  # plugged in before the SDK starts, so that its start-up lists it
        sdk = sim.SDK()
    else:
        sdk = orqsdk.SDK()
    with sdk, contextlib.suppress(KeyboardInterrupt):
        cameras = sdk.cameras()
        if not cameras:
            print("no camera attached", file=sys.stderr)
            return 1
        with cameras[0].open() as session:
            print(f"booth on {cameras[0].model} ({cameras[0].serial})")
            run_booth(session, args.out, args.shots, args.preview_seconds)
    return 0


if __name__ == "__main__":
    sys.exit(main())
