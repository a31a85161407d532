"""The ctypes binding of libferrolt's C interface (ferrolt/ferrolt.h).

Each function's argtypes and restype are declared once, beside the C
prototype they mirror. The library is loaded at first use: the path in
FERROLT_LIBRARY when set, else (Windows) ferrolt.dll in the folder that holds
the package, as the zip lays them out, else what ctypes.util.find_library
finds, else the library's file name as the system's loader searches for it.
"""

from __future__ import annotations

import ctypes
import ctypes.util
import functools
import os
import sys

LIBRARY_VARIABLE = "FERROLT_LIBRARY"
_FILE_NAMES = ("ferrolt.dll",) if sys.platform == "win32" else ("libferrolt.so.1",)

# ferrolt_status
DONE = 0
INVALID_ARGUMENT = 2
NO_DEVICE = 3
REFUSED = 4
FAILED = 5
INCOMPLETE = 6
CANCELLED = 7

TEXT_SIZE = 256  # FERROLT_TEXT_SIZE
VERSION_SIZE = 64  # FERROLT_VERSION_SIZE

# typedef void (*ferrolt_progress_fn)(int percent, void *user_data);
PROGRESS_FN = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_void_p)
# typedef void (*ferrolt_text_fn)(const char *text, void *user_data);
TEXT_FN = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_void_p)


class Callbacks(ctypes.Structure):
    """struct ferrolt_callbacks"""

    _fields_ = [
        ("progress", PROGRESS_FN),
        ("log", TEXT_FN),
        ("console", TEXT_FN),
        ("user_data", ctypes.c_void_p),
    ]


class OpenOptions(ctypes.Structure):
    """struct ferrolt_open_options"""

    _fields_ = [
        ("size", ctypes.c_size_t),
        ("trace_path", ctypes.c_char_p),
    ]


UPLOAD_VERIFY = 0x1  # FERROLT_UPLOAD_VERIFY


class DeviceInfo(ctypes.Structure):
    """struct ferrolt_device_info"""

    _fields_ = [
        ("place", ctypes.c_char * TEXT_SIZE),
        ("serial", ctypes.c_char * TEXT_SIZE),
        ("speed", ctypes.c_char * TEXT_SIZE),
    ]


_DEVICE = ctypes.c_void_p
_CALLBACKS = ctypes.POINTER(Callbacks)


def _open_library() -> ctypes.CDLL:
    explicit = os.environ.get(LIBRARY_VARIABLE)
    if explicit:
        return ctypes.CDLL(explicit)
    found = ctypes.util.find_library("ferrolt")
    beside = [os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "ferrolt.dll")] \
        if sys.platform == "win32" else []
    for name in [path for path in beside if os.path.exists(path)] + ([found] if found else []) + list(_FILE_NAMES):
        try:
            return ctypes.CDLL(name)
        except OSError:
            continue
    raise OSError(f"libferrolt not found: install it, or set {LIBRARY_VARIABLE} to its path")


def _declare(lib: ctypes.CDLL, name: str, restype, *argtypes) -> None:
    function = getattr(lib, name)
    function.restype = restype
    function.argtypes = list(argtypes)


@functools.cache
def library() -> ctypes.CDLL:
    """The loaded library, its functions declared."""
    lib = _open_library()
    s, c = ctypes.c_int, ctypes.c_char_p
    # ferrolt_status ferrolt_list_devices(ferrolt_device_info *devices, size_t capacity, size_t *count);
    _declare(lib, "ferrolt_list_devices", s, ctypes.POINTER(DeviceInfo), ctypes.c_size_t,
             ctypes.POINTER(ctypes.c_size_t))
    # ferrolt_status ferrolt_open(const char *place, ferrolt_device **device);
    _declare(lib, "ferrolt_open", s, c, ctypes.POINTER(_DEVICE))
    # ferrolt_status ferrolt_open_with(const char *place, const ferrolt_open_options *options,
    #                                  ferrolt_device **device);
    _declare(lib, "ferrolt_open_with", s, c, ctypes.POINTER(OpenOptions), ctypes.POINTER(_DEVICE))
    # void ferrolt_close(ferrolt_device *device);
    _declare(lib, "ferrolt_close", None, _DEVICE)
    # void ferrolt_cancel(ferrolt_device *device);
    _declare(lib, "ferrolt_cancel", None, _DEVICE)
    # size_t ferrolt_last_message(const ferrolt_device *device, char *buffer, size_t size);
    _declare(lib, "ferrolt_last_message", ctypes.c_size_t, _DEVICE, ctypes.c_char_p, ctypes.c_size_t)
    # ferrolt_status ferrolt_version(ferrolt_device *device, char *version, size_t size, const ferrolt_callbacks *);
    _declare(lib, "ferrolt_version", s, _DEVICE, ctypes.c_char_p, ctypes.c_size_t, _CALLBACKS)
    # ferrolt_status ferrolt_upgrade(ferrolt_device *device, const char *bundle_path, const ferrolt_callbacks *);
    _declare(lib, "ferrolt_upgrade", s, _DEVICE, c, _CALLBACKS)
    # ferrolt_status ferrolt_upload(ferrolt_device *device, const char *local_path, const ferrolt_callbacks *);
    _declare(lib, "ferrolt_upload", s, _DEVICE, c, _CALLBACKS)
    # ferrolt_status ferrolt_upload_with_flags(ferrolt_device *device, const char *local_path, unsigned int flags,
    #                                          const ferrolt_callbacks *);
    _declare(lib, "ferrolt_upload_with_flags", s, _DEVICE, c, ctypes.c_uint, _CALLBACKS)
    # ferrolt_status ferrolt_download(ferrolt_device *device, const char *device_path, const char *local_path,
    #                                 const ferrolt_callbacks *);
    _declare(lib, "ferrolt_download", s, _DEVICE, c, c, _CALLBACKS)
    # ferrolt_status ferrolt_download_logs(ferrolt_device *device, const char *zip_path, const ferrolt_callbacks *);
    _declare(lib, "ferrolt_download_logs", s, _DEVICE, c, _CALLBACKS)
    # ferrolt_status ferrolt_cli_start(ferrolt_device *device, const ferrolt_callbacks *);
    _declare(lib, "ferrolt_cli_start", s, _DEVICE, _CALLBACKS)
    # ferrolt_status ferrolt_cli_command(ferrolt_device *device, const char *command, const ferrolt_callbacks *);
    _declare(lib, "ferrolt_cli_command", s, _DEVICE, c, _CALLBACKS)
    # ferrolt_status ferrolt_cli_stop(ferrolt_device *device, const ferrolt_callbacks *);
    _declare(lib, "ferrolt_cli_stop", s, _DEVICE, _CALLBACKS)
    # ferrolt_status ferrolt_ort_start(ferrolt_device *device, const char *text, const ferrolt_callbacks *);
    _declare(lib, "ferrolt_ort_start", s, _DEVICE, c, _CALLBACKS)
    # ferrolt_status ferrolt_ort_end(ferrolt_device *device, const ferrolt_callbacks *);
    _declare(lib, "ferrolt_ort_end", s, _DEVICE, _CALLBACKS)
    # ferrolt_status ferrolt_program_captouch(ferrolt_device *device, const ferrolt_callbacks *);
    _declare(lib, "ferrolt_program_captouch", s, _DEVICE, _CALLBACKS)
    return lib
