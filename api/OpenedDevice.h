// One device a program has opened: its own operation runner (link, running
// flag, cancel), reporters and message, so that devices share nothing. Each
// operation is one blocking call: launch, wait for the worker and for any
// cancel under way, settle the runner, and say how it ended.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "admin/DeviceAdmin.h"
#include "api/CallerReporters.h"
#include "ferrolt/ferrolt.h"

namespace ferrolt::api {

class OpenedDevice {
 public:
  // The device, or null and the status that says why.
  struct Opening {
    ferrolt_status status = FERROLT_DONE;
    std::unique_ptr<OpenedDevice> device;
  };
  // The device at place (see ferrolt_open), its transfers recorded in the
  // capture tracePath names unless that is empty (see ferrolt_open_options).
  // FERROLT_INVALID_ARGUMENT when place names nothing a backend can look for;
  // FERROLT_FAILED when the capture cannot be created.
  static Opening Open(const char* place, const std::string& tracePath);
  // Expects no call under way on the device.
  ~OpenedDevice();
  OpenedDevice(const OpenedDevice&) = delete;
  OpenedDevice& operator=(const OpenedDevice&) = delete;

  // The launch gets the reporters and returns the entry point's result
  // (0 started).
  using Launch = std::function<int(DeviceAdmin&, CallerReporters&)>;
  ferrolt_status Run(const ferrolt_callbacks* callbacks, const Launch& launch);
  // A status of the call's own, before anything was launched.
  ferrolt_status Refuse(ferrolt_status status, std::string message);
  void Cancel();

  // The message of the call that ended last.
  std::string Message() const;
  std::string Version() const { return reporters_->Version(); }

 private:
  OpenedDevice(std::unique_ptr<CallerReporters> reporters, std::unique_ptr<platform::DeviceBackend> backend);
  // The runner's cancel, waited for by Settle.
  void CancelLaunched();
  ferrolt_status Settle(bool launched);
  std::string MessageOf(ferrolt_status status) const;
  void KeepMessage(std::string message);

  // First: the backend, given at Open, reports its hints to it.
  std::unique_ptr<CallerReporters> reporters_;
  DeviceAdmin admin_;
  // One operation's call at a time; a second is refused, not queued.
  std::mutex callMutex_;
  // Whether a call runs an operation, whether the runner has started it, a
  // cancel that came before it had, and the cancels under way in it.
  std::mutex cancelMutex_;
  std::condition_variable cancelsEnded_;
  bool operating_ = false;
  bool launched_ = false;
  bool cancelPending_ = false;
  int cancelsUnderWay_ = 0;
  mutable std::mutex messageMutex_;
  std::string message_;
};

}  // namespace ferrolt::api
