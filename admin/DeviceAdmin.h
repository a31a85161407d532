// DeviceAdmin: the one object through which the front end reaches the
// device. One operation runs at a time, on a task of its own; its public
// entry points start it and return at once (0 started, 1 refused as busy).
// The workers are private members defined in admin/ and transfer/, one file
// per operation.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "link/Callbacks.h"
#include "admin/Task.h"
#include "link/ResponseReader.h"
#include "link/UsbLink.h"
#include "platform/DeviceBackend.h"
#include "platform/Event.h"
#include "transfer/OutputFile.h"

namespace ferrolt {

class DeviceAdmin {
 public:
  explicit DeviceAdmin(std::unique_ptr<platform::DeviceBackend> backend);
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
  // Stops the running worker, waits for it, then writes the Cancel packet,
  // prints its line and signals CancelEvent.
  void CancelOperation(ILogMessageCallBack* log);
  // The front end's end wait: true when CancelEvent is signalled in time.
  bool WaitForCancelEvent(std::chrono::milliseconds timeout);

  // Process teardown: stops the response reader, closes the link (so every
  // task still running meets a closed link) and waits up to bound for the
  // tasks. True when none is left running.
  bool Shutdown(std::chrono::milliseconds bound);

  bool IsOperationRunning() const { return OperationRunning.load(); }

 private:
  // Busy guard, CancelEvent reset, running flag; false (and the busy message)
  // when an operation runs.
  bool BeginLaunch(ILogMessageCallBack* log);
  void StartWorker(std::function<void()> worker);
  // ConnectDevice with the device's ids.
  bool ConnectDefaultDevice(ILogMessageCallBack* log);
  // After a failed write: CloseDevice, pause limits::kReconnectPause,
  // ConnectDevice with log. False, after ReportOpenFailure, when the link
  // could not be reopened.
  bool Reconnect(ILogMessageCallBack* log);
  // The console line of a link that could not be opened.
  static void ReportOpenFailure();
  // A worker's normal way out: CloseDevice, then clear OperationRunning.
  void EndOperation();
  // The read of the download loops: a failed read is retried after
  // limits::kFailedReadPause; false, after one log line, once the device has
  // sent nothing for limits::kDeviceSilenceLimit.
  bool ReadBlockWithinSilenceLimit(uint8_t* block, ILogMessageCallBack* log);

  // Workers (admin/).
  void RetrieveVersion(IVersionInfoReadyCallBack* version, IProgressChangeCallBack* progress,
                       ILogMessageCallBack* log, bool verbose);
  void StartCli(IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  void StopCli(IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  void SendCliCommand(std::string command, IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  void ProgramCaptouch(IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  void StartOrt(IProgressChangeCallBack* progress, ILogMessageCallBack* log, char* ortString);
  void EndOrt(IProgressChangeCallBack* progress, ILogMessageCallBack* log, bool verbose);
  // The one-block exchange of captouch and the ORT workers: open, progress 5,
  // send until written (reconnecting after each failed write, at most
  // limits::kMaxReconnectRounds writes), progress 100, close. subject names
  // the block in the give-up line.
  void SendCommandBlock(const uint8_t* block, const char* sentMessage, const char* failedMessage,
                        const char* subject, IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  // Workers (transfer/).
  void UpgradeBundle(std::string bundlePath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                     bool verbose);
  void UploadFile(std::string localPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  void DownloadFile(std::string devicePath, std::string savePath, IProgressChangeCallBack* progress,
                    ILogMessageCallBack* log);
  void DownloadLogs(std::string zipPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                    bool verbose);
  // The opening both downloads share, once the link is open: progress 5,
  // then (unless the run was stopped, which closes the link) refusal as an
  // error line when not empty, then the output file created, which
  // destination names in its error line. False when the download must not
  // go on; the operation has then ended.
  bool OpenDownload(OutputFile& output, const std::string& savePath, const char* destination,
                    const std::string& refusal, IProgressChangeCallBack* progress, ILogMessageCallBack* log);
  // The request block that opens a download, written; after each failed
  // write a reconnect and the request again (a device that never saw it
  // would send nothing), at most limits::kMaxReconnectRounds writes. False,
  // after its own line, when the download must stop; subject names the
  // download in the give-up line.
  bool SendDownloadRequest(const uint8_t* request, const char* subject, ILogMessageCallBack* log);

  // Taken by the upgrade sender for each packet step; the response reader
  // never takes it, so it paces nothing.
  std::mutex LinkMutex;
  // Manual reset; reset at every launch, listed first by every waited transfer.
  platform::Event CancelEvent;
  std::unique_ptr<platform::DeviceBackend> Backend;
  UsbLink Link;

  std::mutex taskMutex_;  // guards the two task handles
  Task ReaderFuture;
  Task OperationFuture;
  std::atomic<bool> OperationRunning{false};
  // NackedPacketNumber, ReaderDone, and the teardown stop for the reader.
  ReaderState Reader;
};

}  // namespace ferrolt
