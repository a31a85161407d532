// hidapi's Windows backend, built from Debian's source package, with the open
// mode of hid_open_path_w_mode. hid.c opens every device in one place (its
// open_device, by CreateFileW): it is compiled here, in this file, with that
// call routed through the mode, and its hid_open_path behind ours. Everything
// else is hid.c's own.
#include <windows.h>

// ferrolt.exe exports the functions HidExports.def lists, no more: hidapi
// marks a few others for export too (HID_API_EXPORT, a dllexport it defines
// whatever came before). Its header is read with that attribute empty, and
// hid.c's definitions then get the emptied macro.
#pragma push_macro("__declspec")
#undef __declspec
#define __declspec(attribute)
#include <hidapi.h>
#pragma pop_macro("__declspec")
#undef HID_API_EXPORT
#define HID_API_EXPORT

#include "platform/hid/HidOpenMode.h"

// The mode of every open but hid_open_path_w_mode's: hid_open_path,
// hid_open, and hid_enumerate's look at each device.
enum { kModeDefault = 0 };

// The mode of the open in progress. hidapi's interface is not thread-safe
// (hid.c keeps its last error in a global too), and neither is this.
static int open_mode = kModeDefault;

// hid.c asks for read and write access first and retries with none; the mode
// decides instead, the same both times.
static HANDLE WINAPI CreateFileInMode(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                      DWORD disposition, DWORD flags, HANDLE template_file) {
  (void)access;
  (void)share;
  const int read_only = open_mode > kModeDefault;
  return CreateFileW(path, read_only ? GENERIC_READ : 0, read_only ? 0 : FILE_SHARE_READ | FILE_SHARE_WRITE, security,
                     disposition, flags, template_file);
}

// hid.c's hid_open_path becomes the open underneath ours (hid_open calls
// it with the paths hid_enumerate found).
static hid_device* OpenPathInMode(const char* path);
#define CreateFileW CreateFileInMode
#define hid_open_path OpenPathInMode
// hid.c stores the error of a path that is no UTF-8 through a null device
// (the array-bounds warning): hid_open_path_w_mode turns such a path away
// before it gets there.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Warray-bounds"
#include <windows/hid.c>
#pragma GCC diagnostic pop
#undef hid_open_path
#undef CreateFileW

static int IsUtf8(const char* text) {
  return text != NULL && MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, NULL, 0) != 0;
}

hid_device* hid_open_path_w_mode(const char* path, int mode) {
  if (!IsUtf8(path)) {
    register_global_error(L"Path conversion failure");
    return NULL;
  }
  open_mode = mode;
  hid_device* device = OpenPathInMode(path);
  open_mode = kModeDefault;
  return device;
}

hid_device* hid_open_path(const char* path) { return hid_open_path_w_mode(path, kModeDefault); }

hid_device* hid_get_windows_handle(hid_device* device) { return device; }
