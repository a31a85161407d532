"""Administer a USB-attached ferrolt device from Python.

A thin layer on libferrolt through ctypes: nothing is compiled at install.

    import ferrolt

    for info in ferrolt.devices():
        print(info.place, info.serial, info.speed)
    with ferrolt.open("emulator:/tmp/device.sock") as device:
        print(device.version())
        device.upgrade("bundle.img", progress=lambda percent: print(percent, "%"))
        with device.cli() as cli:
            print(cli.run("uname -a"))

Every operation blocks until it has ended and raises a ferrolt.Error subclass
when it did not do its work. Callbacks run on a thread of the library's, one
at a time; they must not call into the same device (cancel from another
thread instead). Several devices may run operations at once, each from its
own thread.
"""

from __future__ import annotations

import ctypes
import os
from dataclasses import dataclass
from typing import Callable, Optional, Union

from . import _native

__all__ = [
    "Cancelled", "Cli", "Device", "DeviceInfo", "Error", "Failed", "Incomplete", "InvalidArgument", "NoDevice",
    "Refused", "devices", "open",
]

Progress = Callable[[int], None]
Log = Callable[[str], None]
PathLike = Union[str, "os.PathLike[str]"]


class Error(Exception):
    """An operation that did not do its work; message says why."""

    def __init__(self, status: int, message: str) -> None:
        super().__init__(message)
        self.status = status
        self.message = message


class InvalidArgument(Error, ValueError):
    """An argument the library or the device cannot take."""


class NoDevice(Error):
    """No device at the place, or it could not be opened."""


class Refused(Error):
    """Not started: another operation runs on this device."""


class Failed(Error):
    """The device refused, went silent or away, or a local file could not be read."""


class Incomplete(Error):
    """A file moved other than whole; a downloaded one is marked <file>.incomplete."""


class Cancelled(Error):
    """Device.cancel() ended the operation."""


_ERRORS = {
    _native.INVALID_ARGUMENT: InvalidArgument,
    _native.NO_DEVICE: NoDevice,
    _native.REFUSED: Refused,
    _native.FAILED: Failed,
    _native.INCOMPLETE: Incomplete,
    _native.CANCELLED: Cancelled,
}


def _text(raw: bytes) -> str:
    return raw.decode("utf-8", "replace")


@dataclass(frozen=True)
class DeviceInfo:
    """One attached device: what open() takes, its serial number and speed."""

    place: str
    serial: str
    speed: str


def devices() -> list[DeviceInfo]:
    """The attached devices: the emulator FERROLT_EMULATOR names when it is
    set, otherwise the USB devices with the device's ids."""
    lib = _native.library()
    count = ctypes.c_size_t(0)
    capacity = 8
    while True:
        found = (_native.DeviceInfo * capacity)()
        status = lib.ferrolt_list_devices(found, capacity, ctypes.byref(count))
        if status != _native.DONE:
            raise _ERRORS.get(status, Error)(status, "the devices could not be listed")
        if count.value <= capacity:
            return [DeviceInfo(_text(d.place), _text(d.serial), _text(d.speed)) for d in found[: count.value]]
        capacity = count.value


def open(place: Optional[str] = None, trace: Optional[PathLike] = None) -> Device:  # noqa: A001 - ferrolt.open
    """Opens the device at place: a bus path ("1-4.3"), "serial:NUMBER" or
    "emulator:ADDRESS" (a Unix socket path or tcp:HOST:PORT). None follows
    FERROLT_EMULATOR, then FERROLT_DEVICE, as the ferrolt tool does. Nothing
    is sent yet: an absent device shows as NoDevice from the first operation.

    With trace, every bulk transfer of the device's operations is recorded in
    that file as a pcapng capture, as the tool's FERROLT_TRACE=FILE records
    them; the file is created (or emptied) now and written out in full when
    the device is closed. A file that cannot be created raises Failed.

    Use the Device as a context manager, or close() it."""
    handle = ctypes.c_void_p()
    encoded = None if place is None else place.encode()
    options = _native.OpenOptions(ctypes.sizeof(_native.OpenOptions), None if trace is None else os.fsencode(trace))
    status = _native.library().ferrolt_open_with(encoded, ctypes.byref(options), ctypes.byref(handle))
    if status != _native.DONE:
        what = f"cannot open {place!r}" if status != _native.FAILED or trace is None else \
            f"cannot create the capture {os.fsdecode(trace)!r}"
        raise _ERRORS.get(status, Error)(status, what)
    return Device(handle)


class Device:
    """An opened device. One operation runs at a time on it; another thread's
    call meanwhile raises Refused, and cancel() ends the running one."""

    def __init__(self, handle: ctypes.c_void_p) -> None:
        self._lib = _native.library()
        self._handle: Optional[ctypes.c_void_p] = handle

    def __enter__(self) -> Device:
        return self

    def __exit__(self, *_exception: object) -> None:
        self.close()

    def close(self) -> None:
        """Releases the device; not while another thread runs an operation on it."""
        if self._handle is not None:
            self._lib.ferrolt_close(self._handle)
            self._handle = None

    def cancel(self) -> None:
        """From another thread: ends the running operation, which raises
        Cancelled, and sends the device its Cancel packet. Nothing when no
        operation runs."""
        self._lib.ferrolt_cancel(self._live())

    def version(self, progress: Optional[Progress] = None, log: Optional[Log] = None) -> str:
        """The device's bundle version."""
        buffer = ctypes.create_string_buffer(_native.VERSION_SIZE)
        self._run(self._lib.ferrolt_version, buffer, _native.VERSION_SIZE, progress=progress, log=log)
        return _text(buffer.value)

    def upgrade(self, path: PathLike, progress: Optional[Progress] = None, log: Optional[Log] = None) -> None:
        """Sends the bundle image at path; the device then reboots into it."""
        self._run(self._lib.ferrolt_upgrade, os.fsencode(path), progress=progress, log=log)

    def upload(self, path: PathLike, progress: Optional[Progress] = None, log: Optional[Log] = None,
               verify: bool = False) -> None:
        """Sends the file at path into the device's /tmp/, named by what
        follows its last backslash (a path without one is sent whole).

        With verify, the file is then read back from the device and compared
        byte for byte, as the tool's FERROLT_VERIFY=1 does: the verdict comes
        to log, and a copy that differs or cannot be read back raises
        Incomplete."""
        flags = _native.UPLOAD_VERIFY if verify else 0
        self._run(self._lib.ferrolt_upload_with_flags, os.fsencode(path), flags, progress=progress, log=log)

    def download(self, device_path: str, local_path: PathLike, progress: Optional[Progress] = None,
                 log: Optional[Log] = None) -> None:
        """Saves the device's file device_path as local_path."""
        self._run(self._lib.ferrolt_download, device_path.encode(), os.fsencode(local_path), progress=progress,
                  log=log)

    def logs(self, zip_path: PathLike, progress: Optional[Progress] = None, log: Optional[Log] = None) -> None:
        """Saves the device's log archive as the zip file zip_path."""
        self._run(self._lib.ferrolt_download_logs, os.fsencode(zip_path), progress=progress, log=log)

    def cli(self) -> Cli:
        """A CLI session, started on entering the with block and stopped on leaving it."""
        return Cli(self)

    def start_ort(self, text: str, log: Optional[Log] = None) -> None:
        """Starts the reliability test with text as the device takes it
        ("ort start extmic reboot 5 duration 20 "); at most 79 characters."""
        self._run(self._lib.ferrolt_ort_start, text.encode(), log=log)

    def end_ort(self, log: Optional[Log] = None) -> None:
        """Ends the reliability test."""
        self._run(self._lib.ferrolt_ort_end, log=log)

    def program_captouch(self, log: Optional[Log] = None) -> None:
        """Has the device reprogram its touch controller."""
        self._run(self._lib.ferrolt_program_captouch, log=log)

    def _live(self) -> ctypes.c_void_p:
        if self._handle is None:
            raise ValueError("the device is closed")
        return self._handle

    def _run(self, function, *arguments, progress: Optional[Progress] = None, log: Optional[Log] = None,
             console: Optional[Log] = None) -> None:
        handle = self._live()
        # Kept in locals for the call: the library calls them until it returns.
        callbacks = _native.Callbacks(
            _native.PROGRESS_FN(lambda percent, _data: progress(percent)) if progress else _native.PROGRESS_FN(),
            _native.TEXT_FN(lambda text, _data: log(_text(text))) if log else _native.TEXT_FN(),
            _native.TEXT_FN(lambda text, _data: console(_text(text))) if console else _native.TEXT_FN(),
            None,
        )
        status = function(handle, *arguments, ctypes.byref(callbacks))
        if status == _native.DONE:
            return
        size = self._lib.ferrolt_last_message(handle, None, 0)
        message = ctypes.create_string_buffer(size + 1)
        self._lib.ferrolt_last_message(handle, message, size + 1)
        raise _ERRORS.get(status, Error)(status, _text(message.value))


class Cli:
    """A CLI session on a device: run() sends one command and returns its output."""

    def __init__(self, device: Device) -> None:
        self._device = device

    def __enter__(self) -> Cli:
        self._device._run(self._device._lib.ferrolt_cli_start)
        return self

    def __exit__(self, *_exception: object) -> None:
        self._device._run(self._device._lib.ferrolt_cli_stop)

    def run(self, command: str, output: Optional[Log] = None) -> str:
        """Runs command on the device; its output, which output (when given)
        also receives as it arrives."""
        parts: list[str] = []

        def take(text: str) -> None:
            parts.append(text)
            if output:
                output(text)

        self._device._run(self._device._lib.ferrolt_cli_command, command.encode(), console=take)
        return "".join(parts)
