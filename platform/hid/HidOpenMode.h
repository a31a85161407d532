// The two entry points ferrolt.exe offers beside hidapi's interface.
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

#ifdef __cplusplus
}
#endif
