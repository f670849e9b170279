#!/usr/bin/env python3
"""Prints every setting of every attached camera: its value, what is on offer, read-only or not.

    settings_dump.py
    settings_dump.py --sim SX160 --sim A810    # virtual cameras
"""

import argparse
import sys

import orqsdk


def dump(session: orqsdk.Session) -> None:
    info = session.info
    print(f"{info.name}  serial {info.serial}  module {info.version}")
    print(f"  zoom {session.zoom} of {session.max_zoom}, video {'yes' if session.video_supported else 'no'}")
    for name in session.settings:
        description = session.settings.describe(name)
        flag = " (read-only)" if description.read_only else ""
        print(f"  {name}: {session.settings[name]}{flag}")
        print(f"      on offer: {', '.join(description.values) or '-'}")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sim", metavar="MODEL", action="append", help="attach a virtual camera of this model")
    args = parser.parse_args()
    if args.sim:
        from orqsdk import sim

        # Plugged in before the SDK starts, so that its start-up lists them.
        for model in args.sim:
            sim.VirtualCamera(model)
        sdk = sim.SDK()
    else:
        sdk = orqsdk.SDK()
    with sdk:
        cameras = sdk.cameras()
        if not cameras:
            print("no camera attached", file=sys.stderr)
            return 1
        for camera in cameras:
            with camera.open() as session:
                dump(session)
    return 0


if __name__ == "__main__":
    sys.exit(main())
