#!/usr/bin/env python3
"""The library against the command line, against ferrolt-devsim on Unix sockets.

    python3 bench/library_bench.py [BUILD_DIR]     # default: build/default

Times, in one run:
- `version` through the Python package (each call finds, opens and closes the
  device as the tool's run does) against `ferrolt version`, whose run ends
  with the tool's prescribed wait; target: at most 50 ms a call;
- three devices upgraded at once from this one process, a thread each, with
  16 MiB bundles, against one device alone; target: at most 1.5 times;
- one upgrade of 16 MiB through the package against `ferrolt upgrade`, in
  packets/s: the package's call, opening and finding the device included,
  against the tool's run from its start to the upgrade's last line (read as
  the tool prints it), before the run's prescribed end wait; target: the
  package at least 0.9 times the tool. The tool's whole run is given too.
Each time is the best of ROUNDS runs, as the machine may be busy with other
work. Every bundle the devices received is compared with the one sent. Exits
1 when an operation fails or a byte differs, never for speed: a target missed
is printed as such.
"""

from __future__ import annotations

import math
import os
import select
import shutil
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parent.parent
BUILD = Path(sys.argv[1] if len(sys.argv) > 1 else SOURCE / "build" / "default").resolve()
TOOL = BUILD / "app" / "ferrolt"
DEVSIM = BUILD / "devsim" / "ferrolt-devsim"
os.environ.setdefault("FERROLT_LIBRARY", str(BUILD / "api" / "libferrolt.so.1"))
sys.path.insert(0, str(SOURCE / "api" / "python"))

import ferrolt  # noqa: E402 - found from the sources, as the line above says

BUNDLE_SIZE = 16 << 20
PAYLOAD = 57  # bundle bytes per upgrade packet
VERSION_CALLS = 20
ROUNDS = 5
START_WAIT = 10
RUN_LIMIT = 300


class Devsim:
    """One ferrolt-devsim on a Unix socket, its root in folder."""

    def __init__(self, folder: Path) -> None:
        folder.mkdir()
        self.root = folder / "root"
        self.socket = folder / "device.sock"
        self.place = f"emulator:{self.socket}"
        self.process = subprocess.Popen([str(DEVSIM), "--socket", str(self.socket), "--root", str(self.root),
                                         "--version", "4.5.6"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True)
        readable, _, _ = select.select([self.process.stdout], [], [], START_WAIT)
        if not readable or "listening" not in self.process.stdout.readline():
            raise SystemExit("ferrolt-devsim did not start")

    def received(self) -> bytes:
        return (self.root / "upgrade" / "bundle.img").read_bytes()

    def stop(self) -> None:
        self.process.terminate()
        self.process.wait(START_WAIT)


# The upgrade's last line; the tool's prescribed end wait follows it.
UPGRADE_END = b"Please wait until reboot of device is done."


def tool(devsim: Devsim, *arguments: str, folder: Path, end: bytes = b"") -> tuple[float, float]:
    """Seconds of one run of the tool, and from its start until it printed
    end (the whole run when end is empty or never printed); exits when the
    run fails."""
    environment = dict(os.environ, FERROLT_EMULATOR=str(devsim.socket))
    start = time.monotonic()
    process = subprocess.Popen([str(TOOL), *arguments], cwd=folder, env=environment, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL)
    output, ended = b"", None
    while chunk := os.read(process.stdout.fileno(), 65536):
        output += chunk
        if ended is None and end and end in output:
            ended = time.monotonic() - start
    status = process.wait(RUN_LIMIT)
    seconds = time.monotonic() - start
    if status != 0:
        raise SystemExit(f"ferrolt {' '.join(arguments)}: status {status}\n{output.decode(errors='replace')}")
    return seconds, ended if ended is not None else seconds


def cpu_seconds(pid: int) -> float:
    """User and system time of a process so far, from /proc."""
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def upgrade(devsim: Devsim, bundle: Path) -> float:
    """Seconds of one upgrade through the package, the open and close included."""
    start = time.monotonic()
    with ferrolt.open(devsim.place) as device:
        device.upgrade(bundle)
    return time.monotonic() - start


def check(devsim: Devsim, bundle: Path, what: str) -> None:
    if devsim.received() != bundle.read_bytes():
        raise SystemExit(f"{what}: the bundle the device received differs from the one sent")


def verdict(met: bool) -> str:
    return "met" if met else "MISSED"


LOAD_BEFORE = os.getloadavg()[0]


def main() -> int:
    for needed in (TOOL, DEVSIM, Path(os.environ["FERROLT_LIBRARY"])):
        if not needed.exists():
            raise SystemExit(f"{needed} is missing: build the default preset first")
    folder = Path(tempfile.mkdtemp(prefix="ferrolt-library-bench."))
    devsims: list[Devsim] = []
    try:
        devsims = [Devsim(folder / f"device{i}") for i in range(3)]
        bundles = []
        for i in range(3):
            bundles.append(folder / f"bundle{i}.img")
            bundles[-1].write_bytes(os.urandom(BUNDLE_SIZE))
        packets = math.ceil(BUNDLE_SIZE / PAYLOAD)
        first = devsims[0]

        # version: the package's calls, then the tool's run.
        with ferrolt.open(first.place) as device:
            device.version()  # the first call loads and declares the library
            calls = []
            for _ in range(VERSION_CALLS):
                start = time.monotonic()
                device.version()
                calls.append(time.monotonic() - start)
        package_version = sum(calls) / len(calls)
        tool_version = min(tool(first, "version", folder=folder)[0] for _ in range(ROUNDS))
        print(f"version, package: {package_version * 1000:.1f} ms a call (mean of {VERSION_CALLS}, "
              f"longest {max(calls) * 1000:.1f} ms); target <= 50 ms: {verdict(package_version <= 0.050)}")
        print(f"version, ferrolt version: {tool_version:.2f} s (best of {ROUNDS})")

        # One upgrade through the tool, then through the package.
        tool_upgrades, package_upgrades = [], []
        for _ in range(ROUNDS):
            tool_upgrades.append(tool(first, "upgrade", str(bundles[0]), folder=folder, end=UPGRADE_END))
            check(first, bundles[0], "ferrolt upgrade")
            package_upgrades.append(upgrade(first, bundles[0]))
            check(first, bundles[0], "the package's upgrade")
        tool_run = min(whole for whole, _ in tool_upgrades)
        tool_upgrade = min(ended for _, ended in tool_upgrades)
        package_upgrade = min(package_upgrades)
        tool_rate = packets / tool_upgrade
        package_rate = packets / package_upgrade
        ratio = package_rate / tool_rate
        print(f"upgrade, 16 MiB ({packets:,} packets), ferrolt upgrade: {tool_upgrade:.2f} s to its last line, "
              f"{tool_rate:,.0f} packets/s; the whole run {tool_run:.2f} s, {packets / tool_run:,.0f} packets/s "
              f"(best of {ROUNDS}: {', '.join(f'{ended:.2f}' for _, ended in tool_upgrades)} s)")
        print(f"upgrade, 16 MiB, package: {package_upgrade:.2f} s, {package_rate:,.0f} packets/s "
              f"(best of {ROUNDS}: {', '.join(f'{t:.2f}' for t in package_upgrades)} s)")
        print(f"package / tool packets/s: {ratio:.2f} ({package_rate * tool_run / packets:.2f} against the "
              f"whole run); target >= 0.9: {verdict(ratio >= 0.9)}")

        # One device alone (the package's upgrades above), then three at
        # once, a thread each.
        alone = package_upgrade
        failures: list[BaseException] = []

        def one(devsim: Devsim, bundle: Path) -> None:
            try:
                upgrade(devsim, bundle)
            except ferrolt.Error as error:
                failures.append(error)

        rounds, cpu = [], []
        for _ in range(ROUNDS):
            cpu_start = [cpu_seconds(pid) for pid in [os.getpid()] + [d.process.pid for d in devsims]]
            threads = [threading.Thread(target=one, args=pair) for pair in zip(devsims, bundles)]
            start = time.monotonic()
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join(RUN_LIMIT)
            rounds.append(time.monotonic() - start)
            cpu.append([cpu_seconds(pid) - before for pid, before in
                        zip([os.getpid()] + [d.process.pid for d in devsims], cpu_start)])
            if failures or any(thread.is_alive() for thread in threads):
                raise SystemExit(f"three devices at once: {failures or 'an upgrade did not end'}")
            for i, (devsim, bundle) in enumerate(zip(devsims, bundles)):
                check(devsim, bundle, f"device {i} of three")
        together = min(rounds)
        best = cpu[rounds.index(together)]
        print(f"upgrade, 16 MiB, one device alone: {alone:.2f} s; three at once: {together:.2f} s "
              f"({', '.join(f'{t:.2f}' for t in rounds)} s), {together / alone:.2f}x; "
              f"target <= 1.5x: {verdict(together / alone <= 1.5)}")
        print(f"three at once, CPU of its best round: this process {best[0]:.2f} s, the three ferrolt-devsims "
              f"{sum(best[1:]):.2f} s, on {os.cpu_count()} cores; load average before the run "
              f"{LOAD_BEFORE:.1f}")
        return 0
    finally:
        for devsim in devsims:
            devsim.stop()
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
