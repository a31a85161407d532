// The C interface of ferrolt/ferrolt.h: argument checks, then the opened
// device's Run with the entry point of the operation. Nothing here throws
// across the interface: an allocation that fails is a failed call.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "admin/ReliabilityTest.h"
#include "api/OpenedDevice.h"
#include "ferrolt/ferrolt.h"
#include "link/DeviceDiscovery.h"

struct ferrolt_device {
  std::unique_ptr<ferrolt::api::OpenedDevice> opened;
};

namespace {

using ferrolt::DeviceAdmin;
using ferrolt::api::CallerReporters;

// The size of ferrolt_open_options as the first header had it.
constexpr size_t kFirstOpenOptionsSize = offsetof(ferrolt_open_options, trace_path) + sizeof(const char*);
// The upload flags this library knows.
constexpr unsigned int kUploadFlags = FERROLT_UPLOAD_VERIFY;

// Copies text into a buffer of size bytes, cut to fit, zero-terminated.
void CopyText(const std::string& text, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return;
  const size_t count = std::min(text.size(), size - 1);
  std::memcpy(buffer, text.data(), count);
  buffer[count] = '\0';
}

// Runs one operation whose text arguments must all be there.
template <typename LaunchFn>
ferrolt_status RunWith(ferrolt_device* device, const ferrolt_callbacks* callbacks,
                       std::initializer_list<const char*> texts, LaunchFn launch) {
  if (device == nullptr) return FERROLT_INVALID_ARGUMENT;
  if (std::find(texts.begin(), texts.end(), nullptr) != texts.end())
    return device->opened->Refuse(FERROLT_INVALID_ARGUMENT, "a required text is null");
  try {
    return device->opened->Run(callbacks, launch);
  } catch (const std::exception& error) {
    return device->opened->Refuse(FERROLT_FAILED, error.what());
  }
}

}  // namespace

extern "C" {

ferrolt_status ferrolt_list_devices(ferrolt_device_info* devices, size_t capacity, size_t* count) {
  if (count == nullptr || (devices == nullptr && capacity > 0)) return FERROLT_INVALID_ARGUMENT;
  try {
    // A listing has no callbacks to say its hints through.
    const auto backend = ferrolt::platform::CreateBackendFor(nullptr, ferrolt::platform::SilentHints());
    const std::vector<ferrolt::platform::AttachedDevice> attached = ferrolt::ListAttachedDevices(*backend);
    *count = attached.size();
    for (size_t i = 0; i < attached.size() && i < capacity; ++i) {
      CopyText(attached[i].place, devices[i].place, sizeof devices[i].place);
      CopyText(attached[i].serial, devices[i].serial, sizeof devices[i].serial);
      CopyText(attached[i].speed, devices[i].speed, sizeof devices[i].speed);
    }
    return FERROLT_DONE;
  } catch (const std::exception&) {
    *count = 0;
    return FERROLT_FAILED;
  }
}

ferrolt_status ferrolt_open(const char* place, ferrolt_device** device) {
  return ferrolt_open_with(place, nullptr, device);
}

ferrolt_status ferrolt_open_with(const char* place, const ferrolt_open_options* options, ferrolt_device** device) {
  if (device == nullptr) return FERROLT_INVALID_ARGUMENT;
  *device = nullptr;
  // The members a caller set: those within its size; the rest are zero.
  ferrolt_open_options given{sizeof given, nullptr};
  if (options != nullptr) {
    if (options->size < kFirstOpenOptionsSize) return FERROLT_INVALID_ARGUMENT;
    std::memcpy(&given, options, std::min(options->size, sizeof given));
  }
  try {
    ferrolt::api::OpenedDevice::Opening opening =
        ferrolt::api::OpenedDevice::Open(place, given.trace_path != nullptr ? given.trace_path : "");
    if (opening.device == nullptr) return opening.status;
    *device = new ferrolt_device{std::move(opening.device)};
    return FERROLT_DONE;
  } catch (const std::exception&) {
    return FERROLT_FAILED;
  }
}

void ferrolt_close(ferrolt_device* device) { delete device; }

void ferrolt_cancel(ferrolt_device* device) {
  if (device != nullptr) device->opened->Cancel();
}

size_t ferrolt_last_message(const ferrolt_device* device, char* buffer, size_t size) {
  if (device == nullptr) return 0;
  const std::string message = device->opened->Message();
  CopyText(message, buffer, size);
  return message.size();
}

ferrolt_status ferrolt_version(ferrolt_device* device, char* version, size_t size, const ferrolt_callbacks* callbacks) {
  if (version == nullptr || size == 0) return FERROLT_INVALID_ARGUMENT;
  version[0] = '\0';
  const ferrolt_status status = RunWith(device, callbacks, {}, [](DeviceAdmin& admin, CallerReporters& reporters) {
    return admin.RetrieveVersionAsync(&reporters, &reporters, &reporters, false);
  });
  if (device != nullptr) CopyText(device->opened->Version(), version, size);
  return status;
}

ferrolt_status ferrolt_upgrade(ferrolt_device* device, const char* bundle_path, const ferrolt_callbacks* callbacks) {
  return RunWith(device, callbacks, {bundle_path}, [bundle_path](DeviceAdmin& admin, CallerReporters& reporters) {
    return admin.UpgradeBundleAsync(bundle_path, &reporters, &reporters, false);
  });
}

ferrolt_status ferrolt_upload(ferrolt_device* device, const char* local_path, const ferrolt_callbacks* callbacks) {
  return ferrolt_upload_with_flags(device, local_path, 0, callbacks);
}

ferrolt_status ferrolt_upload_with_flags(ferrolt_device* device, const char* local_path, unsigned int flags,
                                         const ferrolt_callbacks* callbacks) {
  if (device != nullptr && (flags & ~kUploadFlags) != 0)
    return device->opened->Refuse(FERROLT_INVALID_ARGUMENT, "an upload flag this library does not know");
  const bool verify = (flags & FERROLT_UPLOAD_VERIFY) != 0;
  // Set on the calling thread before the worker starts, and for every
  // upload, so one upload's check does not carry over to the next.
  return RunWith(device, callbacks, {local_path}, [local_path, verify](DeviceAdmin& admin, CallerReporters& reporters) {
    admin.ReadBackUploads(verify);
    return admin.UploadFileAsync(local_path, &reporters, &reporters);
  });
}

ferrolt_status ferrolt_download(ferrolt_device* device, const char* device_path, const char* local_path,
                                const ferrolt_callbacks* callbacks) {
  return RunWith(device, callbacks, {device_path, local_path},
                 [device_path, local_path](DeviceAdmin& admin, CallerReporters& reporters) {
                   return admin.DownloadFileAsync(device_path, local_path, &reporters, &reporters);
                 });
}

ferrolt_status ferrolt_download_logs(ferrolt_device* device, const char* zip_path, const ferrolt_callbacks* callbacks) {
  return RunWith(device, callbacks, {zip_path}, [zip_path](DeviceAdmin& admin, CallerReporters& reporters) {
    return admin.DownloadLogsAsync(zip_path, &reporters, &reporters, false);
  });
}

ferrolt_status ferrolt_cli_start(ferrolt_device* device, const ferrolt_callbacks* callbacks) {
  return RunWith(device, callbacks, {}, [](DeviceAdmin& admin, CallerReporters& reporters) {
    return admin.StartCliAsync(&reporters, &reporters);
  });
}

ferrolt_status ferrolt_cli_command(ferrolt_device* device, const char* command, const ferrolt_callbacks* callbacks) {
  return RunWith(device, callbacks, {command}, [command](DeviceAdmin& admin, CallerReporters& reporters) {
    return admin.SendCliCommandAsync(command, &reporters, &reporters);
  });
}

ferrolt_status ferrolt_cli_stop(ferrolt_device* device, const ferrolt_callbacks* callbacks) {
  return RunWith(device, callbacks, {}, [](DeviceAdmin& admin, CallerReporters& reporters) {
    return admin.StopCliAsync(&reporters, &reporters);
  });
}

ferrolt_status ferrolt_ort_start(ferrolt_device* device, const char* text, const ferrolt_callbacks* callbacks) {
  if (device != nullptr && text != nullptr && std::strlen(text) > ferrolt::kMaxOrtStringLength)
    return device->opened->Refuse(FERROLT_INVALID_ARGUMENT, "the ORT text is longer than the device takes");
  // The worker only reads the text, and the call outlasts the worker.
  return RunWith(device, callbacks, {text}, [text](DeviceAdmin& admin, CallerReporters& reporters) {
    return admin.StartOrtAsync(&reporters, &reporters, const_cast<char*>(text));
  });
}

ferrolt_status ferrolt_ort_end(ferrolt_device* device, const ferrolt_callbacks* callbacks) {
  return RunWith(device, callbacks, {}, [](DeviceAdmin& admin, CallerReporters& reporters) {
    return admin.EndOrtAsync(&reporters, &reporters, false);
  });
}

ferrolt_status ferrolt_program_captouch(ferrolt_device* device, const ferrolt_callbacks* callbacks) {
  return RunWith(device, callbacks, {}, [](DeviceAdmin& admin, CallerReporters& reporters) {
    return admin.ProgramCaptouchAsync(&reporters, &reporters);
  });
}

}  // extern "C"
