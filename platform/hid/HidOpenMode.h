// The two entry points ferrolt.exe offers beside hidapi's interface, and the
// one function through which every HID device is opened (CreateFileW, which
// tests swap for a stand-in that records how a device was asked for).
#pragma once

#include <windows.h>

#include <hidapi.h>

#ifdef __cplusplus
extern "C" {
#endif

// Opens the HID device at path (a path hid_enumerate lists), as
// hid_open_path does, with the access the mode asks for. A mode of 0 or less:
// no read or write access, shared for reading and writing (feature reports
// and strings only, beside every other program). 1 or more: reading only,
// shared with nobody. hid_open_path and hid_open open with mode 0.
hid_device* hid_open_path_w_mode(const char* path, int mode);

// Gives back the device it is given.
hid_device* hid_get_windows_handle(hid_device* device);

typedef HANDLE(WINAPI* HidCreateFile)(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                      DWORD disposition, DWORD flags, HANDLE template_file);

// Makes create_file the function that opens devices; gives back the one it
// replaces.
HidCreateFile HidUseCreateFile(HidCreateFile create_file);

#ifdef __cplusplus
}
#endif
