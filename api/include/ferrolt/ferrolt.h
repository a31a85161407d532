/*
 * libferrolt: administer a USB-attached ferrolt device from a program.
 *
 * A program opens a device by its place, then runs one operation at a time
 * on it: each operation is one call that blocks until the operation has
 * ended, reports what happens through the callbacks the caller passes, and
 * returns a ferrolt_status. The library prints nothing (but see
 * trace_path), never exits, installs no signal or console handler, and
 * leaves no thread of its own running when a call returns.
 *
 * Threads: every device is independent of every other, so several devices
 * may run operations at the same time, each from its own thread. On one
 * device, one operation runs at a time: an operation called while another
 * runs on the same device returns FERROLT_REFUSED at once. ferrolt_cancel
 * is the one call meant for another thread while an operation runs.
 * ferrolt_close must not be called while another thread is in a call on
 * the same device.
 *
 * Callbacks run on the calling thread or on a thread of the library's (the
 * console line of a cancel: on the cancelling thread), one at a time, never
 * after the operation's call has returned. They must not call into the
 * library for the same device: a cancel belongs on another thread.
 */
#ifndef FERROLT_FERROLT_H
#define FERROLT_FERROLT_H

#include <stddef.h>

#if defined(_WIN32)
#if defined(FERROLT_BUILDING_LIBRARY)
#define FERROLT_API __declspec(dllexport)
#else
#define FERROLT_API __declspec(dllimport)
#endif
#else
#define FERROLT_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* How a call ended. The numbers are the command-line tool's opt-in exit
 * statuses (FERROLT_EXIT_STATUS=1) for the same outcomes. */
typedef enum ferrolt_status {
  FERROLT_DONE = 0,             /* the operation did its work */
  FERROLT_INVALID_ARGUMENT = 2, /* a null device or path, a place or text the device cannot take */
  FERROLT_NO_DEVICE = 3,        /* no device found at the place, or it could not be opened */
  FERROLT_REFUSED = 4,          /* not started: another operation runs on this device */
  FERROLT_FAILED = 5,           /* the device refused, went silent or away, or a local file could not be read */
  FERROLT_INCOMPLETE = 6,       /* a file moved other than whole (a downloaded file is marked <file>.incomplete) */
  FERROLT_CANCELLED = 7         /* ferrolt_cancel ended it */
} ferrolt_status;

/* Progress of the running operation, 0 to 100. */
typedef void (*ferrolt_progress_fn)(int percent, void *user_data);
/* One line of text, without its line end (log), or console text as it
 * stands, line ends included (console). text is valid during the call only. */
typedef void (*ferrolt_text_fn)(const char *text, void *user_data);

/* What an operation reports through. The struct and any member may be null;
 * user_data is handed to each callback unchanged. */
typedef struct ferrolt_callbacks {
  ferrolt_progress_fn progress;
  /* The operation's log lines ("Error: ..." among them) and notes of ours:
   * what the tool says on standard error, such as why the device could not
   * be found or opened, or a copy that may be damaged. */
  ferrolt_text_fn log;
  /* The console text the command-line tool prints on standard output: a CLI
   * command's output arrives here as the device sends it. */
  ferrolt_text_fn console;
  void *user_data;
} ferrolt_callbacks;

/* One attached device. Texts are zero-terminated; longer ones are cut. */
#define FERROLT_TEXT_SIZE 256
typedef struct ferrolt_device_info {
  char place[FERROLT_TEXT_SIZE];  /* what ferrolt_open takes: "1-4.3", "emulator:/tmp/device.sock" */
  char serial[FERROLT_TEXT_SIZE]; /* empty when the device has none */
  char speed[FERROLT_TEXT_SIZE];  /* "high speed" and the like; empty when unknown */
} ferrolt_device_info;

/* A version text always fits a buffer of this size. */
#define FERROLT_VERSION_SIZE 64

typedef struct ferrolt_device ferrolt_device;

/* Lists the attached devices with the device's USB ids and vendor interface:
 * the emulator FERROLT_EMULATOR names when it is set, otherwise the USB
 * devices (narrowed by FERROLT_DEVICE, as the tool's search is). Fills at
 * most capacity entries of devices (which may be null when capacity is 0)
 * and sets *count to the number attached, which may be larger.
 * Blocks for the listing (an emulator: at most its 1 s hello wait).
 * Any thread. FERROLT_DONE; FERROLT_INVALID_ARGUMENT for a null count, or
 * null devices with a capacity; FERROLT_FAILED when memory ran out. */
FERROLT_API ferrolt_status ferrolt_list_devices(ferrolt_device_info *devices, size_t capacity, size_t *count);

/* Opens the device at place into *device:
 *   "1-4.3"             a bus path, as lsusb -t shows it (Windows: the device
 *                       instance id of interface 4);
 *   "serial:NUMBER"     the device with that serial number;
 *   "emulator:ADDRESS"  ferrolt-devsim at a Unix socket path or tcp:HOST:PORT;
 *   NULL or ""          as the tool: FERROLT_EMULATOR, then FERROLT_DEVICE,
 *                       then the first device found.
 * Nothing is sent: each operation finds and opens the device, as each run
 * of the tool does, so a device absent now shows as FERROLT_NO_DEVICE from
 * the first operation. Does not block. Any thread.
 * FERROLT_DONE; FERROLT_INVALID_ARGUMENT for a null device or "emulator:"
 * with no address; FERROLT_FAILED when memory ran out. */
FERROLT_API ferrolt_status ferrolt_open(const char *place, ferrolt_device **device);

/* What ferrolt_open_with takes beyond the place. Set size to
 * sizeof(ferrolt_open_options) and every other member to zero, then what is
 * wanted, as designated initializers do:
 *   ferrolt_open_options options = {.size = sizeof options, .trace_path = "device.pcapng"};
 * Members added in later versions of the library go at the end, and
 * a library reads only the size bytes a caller says it set, taking the rest
 * as zero. A caller built against an older header so keeps working. */
typedef struct ferrolt_open_options {
  size_t size;
  /* Null or "": no capture. Otherwise every bulk transfer of the device's
   * operations is recorded in this file as a pcapng capture (the link type
   * of Linux's usbmon, the device's descriptors first), as the tool's
   * FERROLT_TRACE=FILE records them; the file is created, or emptied, at the
   * open, and written out in full by ferrolt_close. Wireshark reads it, with
   * the dissector the packages carry. A file that cannot be created fails
   * the open; should writing it fail later (a full disk), the capture says
   * so once on standard error, the one line the library may print, and the
   * operations go on without it. */
  const char *trace_path;
} ferrolt_open_options;

/* ferrolt_open, with options (null: none, the same as ferrolt_open). Does
 * not block beyond creating the capture file. Any thread.
 * FERROLT_DONE; FERROLT_INVALID_ARGUMENT as ferrolt_open, or a size smaller
 * than the first version of the struct; FERROLT_FAILED when the capture file
 * cannot be created (nothing is opened) or memory ran out. */
FERROLT_API ferrolt_status ferrolt_open_with(const char *place, const ferrolt_open_options *options,
                                             ferrolt_device **device);

/* Releases a device opened by ferrolt_open; null is ignored. Blocks at most
 * about a second. Not while another thread is in a call on the device. */
FERROLT_API void ferrolt_close(ferrolt_device *device);

/* Ends the operation running on device from another thread: the operation
 * stops, the device is sent its Cancel packet, and the operation's call
 * returns FERROLT_CANCELLED. Blocks until the Cancel packet has been written
 * (at most a write's wait, 0.5 s, after the operation has stopped). While the
 * call is still finding and opening the device, the cancel is left for the
 * call to carry out once the operation has started, and this returns at
 * once; so it does when no operation runs, doing nothing. Any thread while
 * device is open. */
FERROLT_API void ferrolt_cancel(ferrolt_device *device);

/* The message of the call on device that ended last: the operation's last
 * error line or note, or a short text of its status; empty after FERROLT_DONE
 * with nothing to say. Copies it into buffer (size bytes, cut to fit,
 * zero-terminated; buffer may be null when size is 0) and returns its whole
 * length, so a caller can size the buffer. Does not block. Any thread. */
FERROLT_API size_t ferrolt_last_message(const ferrolt_device *device, char *buffer, size_t size);

/* The operations. Each blocks until the operation has ended and returns its
 * status. A silent device ends it after the tool's waits (a download after
 * 15 s of silence, the upgrade's end report after 60 s); a CLI command waits
 * for its output as long as the device is there, or until a cancel.
 * callbacks may be null. One thread at a time per device: another thread's
 * operation meanwhile returns FERROLT_REFUSED. */

/* The device's bundle version into version (size bytes, at least
 * FERROLT_VERSION_SIZE to be sure of the whole text). */
FERROLT_API ferrolt_status ferrolt_version(ferrolt_device *device, char *version, size_t size,
                                           const ferrolt_callbacks *callbacks);
/* Sends the bundle image at bundle_path; the device then reboots into it. */
FERROLT_API ferrolt_status ferrolt_upgrade(ferrolt_device *device, const char *bundle_path,
                                           const ferrolt_callbacks *callbacks);
/* Sends the file at local_path into the device's /tmp/, named by what
 * follows the path's last backslash (a path without one is sent whole). */
FERROLT_API ferrolt_status ferrolt_upload(ferrolt_device *device, const char *local_path,
                                          const ferrolt_callbacks *callbacks);
/* Flags of ferrolt_upload_with_flags, or-ed together. */
#define FERROLT_UPLOAD_VERIFY 0x1u /* read the file back from the device and compare it byte for byte */

/* ferrolt_upload with flags (0: the same as ferrolt_upload). With
 * FERROLT_UPLOAD_VERIFY the upload, once sent, reads its file back from the
 * device and compares it with local_path, as the tool's FERROLT_VERIFY=1
 * does: the verdict comes as a log line, and a copy that differs, or that
 * the device cannot send back, makes the call FERROLT_INCOMPLETE (that line
 * its message). Blocks for the upload and the read-back. A flag this library
 * does not know: FERROLT_INVALID_ARGUMENT, nothing sent. */
FERROLT_API ferrolt_status ferrolt_upload_with_flags(ferrolt_device *device, const char *local_path,
                                                     unsigned int flags, const ferrolt_callbacks *callbacks);
/* Saves the device's file device_path as local_path. */
FERROLT_API ferrolt_status ferrolt_download(ferrolt_device *device, const char *device_path, const char *local_path,
                                            const ferrolt_callbacks *callbacks);
/* Saves the device's log archive as the zip file zip_path. */
FERROLT_API ferrolt_status ferrolt_download_logs(ferrolt_device *device, const char *zip_path,
                                                 const ferrolt_callbacks *callbacks);
/* The CLI session: start it, run commands (each command's output arrives
 * through callbacks->console as the device sends it), stop it. The library
 * keeps no CLI-mode file: the caller knows whether its session runs. */
FERROLT_API ferrolt_status ferrolt_cli_start(ferrolt_device *device, const ferrolt_callbacks *callbacks);
FERROLT_API ferrolt_status ferrolt_cli_command(ferrolt_device *device, const char *command,
                                               const ferrolt_callbacks *callbacks);
FERROLT_API ferrolt_status ferrolt_cli_stop(ferrolt_device *device, const ferrolt_callbacks *callbacks);
/* Starts the device's reliability test with text sent as it stands, as the
 * tool builds it ("ort start extmic reboot 5 duration 20 "); at most 79
 * characters. ferrolt_ort_end ends the test. */
FERROLT_API ferrolt_status ferrolt_ort_start(ferrolt_device *device, const char *text,
                                             const ferrolt_callbacks *callbacks);
FERROLT_API ferrolt_status ferrolt_ort_end(ferrolt_device *device, const ferrolt_callbacks *callbacks);
/* Has the device reprogram its touch controller. */
FERROLT_API ferrolt_status ferrolt_program_captouch(ferrolt_device *device, const ferrolt_callbacks *callbacks);

#ifdef __cplusplus
}
#endif

#endif /* FERROLT_FERROLT_H */
