"""The Python package on libferrolt, driving ferrolt-devsim over its Unix socket.

ctest sets DEVSIM_BIN, FERROLT_LIBRARY and PYTHONPATH to the build tree.
"""

from __future__ import annotations

import os
import select
import subprocess
import threading
import time
import zipfile
from pathlib import Path

import pytest

import ferrolt

DEVSIM = os.environ["DEVSIM_BIN"]
# Every wait here is far beyond what the emulator needs on a loaded machine.
START_WAIT = 10
OPERATION_WAIT = 60
DEVICE_VERSION = "4.5.6"


class Devsim:
    """One ferrolt-devsim with a root of its own in a temporary folder."""

    def __init__(self, folder: Path, *faults: str) -> None:
        folder.mkdir()
        self.root = folder / "root"
        self.socket = folder / "device.sock"
        self.place = f"emulator:{self.socket}"
        arguments = [DEVSIM, "--socket", str(self.socket), "--root", str(self.root), "--version", DEVICE_VERSION]
        for fault in faults:
            arguments += ["--fault", fault]
        self.process = subprocess.Popen(arguments, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        # It says "listening" once it does.
        readable, _, _ = select.select([self.process.stdout], [], [], START_WAIT)
        assert readable and "listening" in self.process.stdout.readline(), "ferrolt-devsim did not start"

    def stop(self) -> None:
        self.process.terminate()
        self.process.wait(START_WAIT)


@pytest.fixture
def devsim(tmp_path):
    started: list[Devsim] = []

    def start(name: str = "device", *faults: str) -> Devsim:
        started.append(Devsim(tmp_path / name, *faults))
        return started[-1]

    yield start
    for device in started:
        device.stop()


def assert_no_thread_left() -> None:
    """Only the test's own thread runs; a thread that has just ended may
    take the kernel a moment to remove."""
    deadline = time.monotonic() + START_WAIT
    while len(os.listdir("/proc/self/task")) > 1 and time.monotonic() < deadline:
        time.sleep(0.05)
    assert os.listdir("/proc/self/task") == [str(os.getpid())]


def test_every_operation_moves_its_data_whole(devsim, tmp_path, monkeypatch):
    device_sim = devsim()
    monkeypatch.setenv("FERROLT_EMULATOR", str(device_sim.socket))
    # The device names an upload by the whole of a path without backslashes.
    monkeypatch.chdir(tmp_path)
    assert ferrolt.devices() == [ferrolt.DeviceInfo(device_sim.place, "", "high speed")]

    payload = Path("payload.bin")
    payload.write_bytes(os.urandom(70_000))
    progress: list[int] = []
    with ferrolt.open(device_sim.place) as device:
        assert device.version() == DEVICE_VERSION
        device.upgrade(payload, progress=progress.append)
        assert (device_sim.root / "upgrade" / "bundle.img").read_bytes() == payload.read_bytes()
        assert progress and progress[-1] == 100

        device.upload(payload)
        assert (device_sim.root / "tmp" / "payload.bin").read_bytes() == payload.read_bytes()
        (device_sim.root / "tmp" / "sent.bin").write_bytes(payload.read_bytes()[:5000])
        device.download("/tmp/sent.bin", tmp_path / "fetched.bin")
        assert (tmp_path / "fetched.bin").read_bytes() == payload.read_bytes()[:5000]

        device.logs(tmp_path / "logs.zip")
        assert zipfile.ZipFile(tmp_path / "logs.zip").testzip() is None

        with device.cli() as cli:
            streamed: list[str] = []
            output = cli.run("echo one; echo two", output=streamed.append)
            assert "one\ntwo\n" in output and "".join(streamed) == output
        device.start_ort("ort start extmic reboot 5 duration 20 ")
        device.end_ort()
        device.program_captouch()
    # None of the library's threads outlives its call.
    assert_no_thread_left()


# A cause of each error class, and what its message names.
ERROR_CASES = [
    ("absent device", None, lambda device, tmp: device.version(), ferrolt.NoDevice, "not found"),
    ("wrong reply", "version-reply-type=9", lambda device, tmp: device.version(), ferrolt.Failed, ""),
    ("unreadable bundle", None, lambda device, tmp: device.upgrade(tmp / "missing.img"), ferrolt.Failed,
     "missing.img"),
    ("corrupt data packet", "corrupt-reply-crc=3", lambda device, tmp: device.download("/tmp/data.bin",
     tmp / "data.bin"), ferrolt.Incomplete, "is incomplete"),
    ("ORT text too long", None, lambda device, tmp: device.start_ort("x" * 80), ferrolt.InvalidArgument, "ORT"),
]


@pytest.mark.parametrize("cause, fault, operation, error, words", ERROR_CASES, ids=[c[0] for c in ERROR_CASES])
def test_error_classes(devsim, tmp_path, capfd, cause, fault, operation, error, words):
    device_sim = devsim("device", *([fault] if fault else []))
    (device_sim.root / "tmp" / "data.bin").write_bytes(os.urandom(5000))
    place = f"emulator:{tmp_path / 'nobody.sock'}" if cause == "absent device" else device_sim.place
    with ferrolt.open(place) as device, pytest.raises(error) as raised:
        operation(device, tmp_path)
    assert words in raised.value.message and raised.value.message
    # What the tool would say on its streams comes in the message instead.
    assert capfd.readouterr() == ("", "")


def test_busy_device_refuses_and_cancel_from_another_thread_ends_the_operation(devsim, tmp_path):
    # Each write completes late: the upgrade runs long enough to be met.
    device_sim = devsim("slow", "delay-writes=20")
    bundle = tmp_path / "bundle.img"
    bundle.write_bytes(os.urandom(2_000_000))
    started = threading.Event()
    raised: list[BaseException] = []

    def upgrade() -> None:
        try:
            device.upgrade(bundle, progress=lambda percent: started.set())
        except ferrolt.Error as error:
            raised.append(error)

    with ferrolt.open(device_sim.place) as device:
        worker = threading.Thread(target=upgrade)
        worker.start()
        assert started.wait(OPERATION_WAIT)
        with pytest.raises(ferrolt.Refused):
            device.version()
        device.cancel()
        worker.join(OPERATION_WAIT)
        assert not worker.is_alive()
        assert [type(error) for error in raised] == [ferrolt.Cancelled]
        # The device is free again at once.
        assert device.version() == DEVICE_VERSION
    assert_no_thread_left()


def test_three_devices_upgrade_at_once(devsim, tmp_path):
    devices = [devsim(f"device{i}") for i in range(3)]
    bundles = []
    for i in range(3):
        bundles.append(tmp_path / f"bundle{i}.img")
        bundles[-1].write_bytes(os.urandom(400_000 + i * 1000))
    failures: list[BaseException] = []

    def upgrade(device_sim: Devsim, bundle: Path) -> None:
        try:
            with ferrolt.open(device_sim.place) as device:
                device.upgrade(bundle)
        except ferrolt.Error as error:
            failures.append(error)

    workers = [threading.Thread(target=upgrade, args=pair) for pair in zip(devices, bundles)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join(OPERATION_WAIT)
    assert not failures
    for device_sim, bundle in zip(devices, bundles):
        assert (device_sim.root / "upgrade" / "bundle.img").read_bytes() == bundle.read_bytes()
    assert_no_thread_left()


def test_trace_option_writes_a_pcapng_capture(devsim, tmp_path, capfd):
    device_sim = devsim()
    trace = tmp_path / "device.pcapng"
    with ferrolt.open(device_sim.place, trace=trace) as device:
        assert device.version() == DEVICE_VERSION
    data = trace.read_bytes()
    # A Section Header Block: its type, then (after its length) the
    # byte-order magic, little-endian as written here.
    assert data[:4] == b"\x0a\x0d\x0d\x0a" and data[8:12] == b"\x4d\x3c\x2b\x1a"
    # The version's request and reply are in it, past the header blocks.
    assert len(data) > 200
    with pytest.raises(ferrolt.Failed, match="capture"):
        ferrolt.open(device_sim.place, trace=tmp_path / "no-such-folder" / "device.pcapng")
    assert capfd.readouterr() == ("", "")


def test_upload_verify_reads_the_file_back(devsim, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    payload = Path("checked.bin")
    payload.write_bytes(os.urandom(30_000))
    lines: list[str] = []
    with ferrolt.open(devsim("good").place) as device:
        device.upload(payload, log=lines.append, verify=True)
        assert f"verified: /tmp/checked.bin on the device holds the 30000 bytes sent." in lines
        lines.clear()
        device.upload(payload, log=lines.append)
        assert not [line for line in lines if "verified" in line]
    # A device that cannot send the file back: the upload is not proven.
    with ferrolt.open(devsim("no-read-back", "bad-start-numbers").place) as device:
        with pytest.raises(ferrolt.Incomplete, match="not verified"):
            device.upload(payload, verify=True)
