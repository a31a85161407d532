#!/usr/bin/env python3
"""Upgrades every attached device at once, one thread per device, then reads
back each one's version and prints a table: place, serial, result, seconds.

    python3 examples/fleet.py BUNDLE [--settle SECONDS]

--settle waits that long between the upgrades and the read-back, for devices
that reboot into their new bundle.
"""

from __future__ import annotations

import argparse
import threading
import time

import ferrolt


def upgrade(info: ferrolt.DeviceInfo, bundle: str, results: dict[str, list[str]]) -> None:
    started = time.monotonic()
    try:
        with ferrolt.open(info.place) as device:
            device.upgrade(bundle)
        result = "upgraded"
    except ferrolt.Error as error:
        result = f"{type(error).__name__}: {error.message}"
    results[info.place] = [result, f"{time.monotonic() - started:.1f}"]


def read_back(info: ferrolt.DeviceInfo, results: dict[str, list[str]]) -> None:
    try:
        with ferrolt.open(info.place) as device:
            results[info.place][0] += f", version {device.version()}"
    except ferrolt.Error as error:
        results[info.place][0] += f", no version ({type(error).__name__})"


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("bundle")
    parser.add_argument("--settle", type=float, default=0.0)
    arguments = parser.parse_args()

    devices = ferrolt.devices()
    results: dict[str, list[str]] = {}
    workers = [threading.Thread(target=upgrade, args=(info, arguments.bundle, results)) for info in devices]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    time.sleep(arguments.settle)
    for info in devices:
        read_back(info, results)

    rows = [["place", "serial", "result", "seconds"]]
    rows += [[info.place, info.serial or "-", *results[info.place]] for info in devices]
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    for row in rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
    return 0 if all(result.startswith("upgraded") for result, _ in results.values()) else 1


if __name__ == "__main__":
    raise SystemExit(main())
