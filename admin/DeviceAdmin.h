// DeviceAdmin: the one object through which the front end reaches the
// device. One operation runs at a time, on a task of its own; its public
// entry points start it and return at once (0 started, 1 refused as busy).
// The workers are private members, each a thin shim over its operation's
// free function in admin/ or transfer/, which takes an explicit
// OperationContext.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "admin/Task.h"
#include "link/Callbacks.h"
#include "link/ResponseReader.h"
#include "link/UsbLink.h"
#include "platform/DeviceBackend.h"
#include "platform/Event.h"
#include "transfer/OperationContext.h"

namespace ferrolt {

class DeviceAdmin {
 public:
  // console takes the console lines of the link and the workers; it must
  // outlive the object.
  explicit DeviceAdmin(std::unique_ptr<platform::DeviceBackend> backend, ConsoleSink& console = StandardConsole());
  // Closes the link. Expects Shutdown() to have stopped every task first.
  ~DeviceAdmin();
  DeviceAdmin(const DeviceAdmin&) = delete;
  DeviceAdmin& operator=(const DeviceAdmin&) = delete;

  int RetrieveVersionAsync(IVersionInfoReadyCallBack* version, IProgressChangeCallBack* progress,
                           ILogMessageCallBack* log, bool verbose);
  int StartCliAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  int StopCliAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  int SendCliCommandAsync(std::string command, IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  int ProgramCaptouchAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  // ortString is not copied: the caller keeps it alive until the worker ends.
  int StartOrtAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log, char* ortString);
  int EndOrtAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log, bool verbose);
  int UpgradeBundleAsync(std::string bundlePath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                         bool verbose);
  int UploadFileAsync(std::string localPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  int DownloadFileAsync(std::string devicePath, std::string savePath, IProgressChangeCallBack* progress,
                        ILogMessageCallBack* log);
  int DownloadLogsAsync(std::string zipPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                        bool verbose);

  // Blocks until the running worker's task has finished; returns at once
  // when no operation runs.
  void WaitForOperation();
  // Stops the running worker, waits for it, then writes the Cancel packet
  // and prints its line. Each call is a whole cancel; CancelEvent is
  // signalled once the last of the calls under way has printed its line.
  void CancelOperation(ILogMessageCallBack* log);
  // The front end's end wait: true when CancelEvent is signalled in time.
  bool WaitForCancelEvent(std::chrono::milliseconds timeout);

  // Process teardown: stops the response reader, closes the link (so every
  // task still running meets a closed link) and waits up to bound for the
  // tasks. True when none is left running.
  bool Shutdown(std::chrono::milliseconds bound);

  // For a front that outlives its operations (the library): once the
  // operation and every cancel have ended, ends the upgrade's response reader
  // and closes the link, so that no task and no link thread is left running.
  // True when the reader ended within bound.
  bool Settle(std::chrono::milliseconds bound);

  // With on, an upload reads its file back from the device and compares;
  // set before the launch.
  void ReadBackUploads(bool on) { ReadBackUploads_ = on; }

  bool IsOperationRunning() const { return OperationRunning.load(); }
  // How the last operation that started has ended (or is going), for the
  // opt-in exit status.
  Outcome LastOutcome() const { return Result.Result(); }

 private:
  // What an entry point does before its worker starts.
  enum class BeforeWorker { Nothing, OpenLink, OpenLinkAndStartReader };
  // The launch every entry point shares: the busy guard (1, and the busy
  // message, when an operation runs), CancelEvent reset, the running flag,
  // what happens before the worker, then the worker on a task of its own.
  int Launch(ILogMessageCallBack* log, BeforeWorker before, std::function<void()> worker);
  OperationContext Context(IProgressChangeCallBack* progress, ILogMessageCallBack* log);

  // Workers.
  void RetrieveVersion(IVersionInfoReadyCallBack* version, IProgressChangeCallBack* progress,
                       ILogMessageCallBack* log, bool verbose);
  void StartCli(IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  void StopCli(IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  void SendCliCommand(std::string command, IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  void ProgramCaptouch(IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  void StartOrt(IProgressChangeCallBack* progress, ILogMessageCallBack* log, char* ortString);
  void EndOrt(IProgressChangeCallBack* progress, ILogMessageCallBack* log, bool verbose);
  void UpgradeBundle(std::string bundlePath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                     bool verbose);
  void UploadFile(std::string localPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  void DownloadFile(std::string devicePath, std::string savePath, IProgressChangeCallBack* progress,
                    ILogMessageCallBack* log);
  void DownloadLogs(std::string zipPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                    bool verbose);

  // Taken by the upgrade sender for each packet step; the response reader
  // never takes it, so it paces nothing.
  std::mutex LinkMutex;
  ConsoleSink& Console;
  // Manual reset; reset at every launch, listed first by every waited transfer.
  platform::Event CancelEvent;
  std::unique_ptr<platform::DeviceBackend> Backend;
  UsbLink Link;

  std::mutex taskMutex_;  // guards the two task handles
  Task ReaderFuture;
  Task OperationFuture;
  std::atomic<bool> OperationRunning{false};
  // NackedPacketNumber and ReaderDone.
  ReaderState Reader;
  // Set by Shutdown: the reader and every loop of a worker without a bound
  // of its own stop.
  std::atomic<bool> TearingDown{false};
  bool ReadBackUploads_ = false;
  // Cancels that have not yet printed their line.
  std::atomic<int> CancelsUnderWay{0};
  // What the running (or last) operation reached; reset at every launch.
  OperationOutcome Result;
};

}  // namespace ferrolt
