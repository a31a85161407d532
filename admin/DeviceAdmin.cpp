// The operation runner: the one-operation-at-a-time launch, the waits, the
// cancel and the teardown, and the small helpers every worker shares.
#include "admin/DeviceAdmin.h"

#include <cstdio>
#include <thread>
#include <utility>

#include "admin/DeviceSilence.h"
#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/Limits.h"

namespace ferrolt {

namespace {

constexpr const char* kBusyMessage =
    "Error: Another operation is already running now. Please wait the current operation or cancel to start new "
    "operation.";
constexpr const char* kCancelText = "Cancel";

}  // namespace

DeviceAdmin::DeviceAdmin(std::unique_ptr<platform::DeviceBackend> backend)
    : Backend(std::move(backend)), Link(*Backend, CancelEvent) {}

// Nothing waits here: Shutdown() has given the tasks their bounded chance.
DeviceAdmin::~DeviceAdmin() { Link.CloseDevice(); }

int DeviceAdmin::RetrieveVersionAsync(IVersionInfoReadyCallBack* version, IProgressChangeCallBack* progress,
                                      ILogMessageCallBack* log, bool verbose) {
  if (!BeginLaunch(log)) return 1;
  ConnectDefaultDevice(nullptr);
  StartWorker([this, version, progress, log, verbose] { RetrieveVersion(version, progress, log, verbose); });
  return 0;
}

int DeviceAdmin::StartCliAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  if (!BeginLaunch(log)) return 1;
  StartWorker([this, progress, log] { StartCli(progress, log); });
  return 0;
}

int DeviceAdmin::StopCliAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  if (!BeginLaunch(log)) return 1;
  StartWorker([this, progress, log] { StopCli(progress, log); });
  return 0;
}

int DeviceAdmin::SendCliCommandAsync(std::string command, IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  if (!BeginLaunch(log)) return 1;
  StartWorker([this, command = std::move(command), progress, log]() mutable {
    SendCliCommand(std::move(command), progress, log);
  });
  return 0;
}

int DeviceAdmin::ProgramCaptouchAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  if (!BeginLaunch(log)) return 1;
  StartWorker([this, progress, log] { ProgramCaptouch(progress, log); });
  return 0;
}

int DeviceAdmin::StartOrtAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log, char* ortString) {
  if (!BeginLaunch(log)) return 1;
  StartWorker([this, progress, log, ortString] { StartOrt(progress, log, ortString); });
  return 0;
}

int DeviceAdmin::EndOrtAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log, bool verbose) {
  if (!BeginLaunch(log)) return 1;
  StartWorker([this, progress, log, verbose] { EndOrt(progress, log, verbose); });
  return 0;
}

int DeviceAdmin::UpgradeBundleAsync(std::string bundlePath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                                    bool verbose) {
  if (!BeginLaunch(log)) return 1;
  ConnectDefaultDevice(nullptr);
  // A reader left from an earlier upgrade must not hand its state over.
  Reader.NackedPacketNumber.exchange(kNoNack);
  Reader.ReaderDone.exchange(false);
  {
    std::lock_guard<std::mutex> lock(taskMutex_);
    ReaderFuture = Task::Start([this, log] { ReadResponses(Link, Reader, log); });
  }
  StartWorker([this, bundlePath = std::move(bundlePath), progress, log, verbose]() mutable {
    UpgradeBundle(std::move(bundlePath), progress, log, verbose);
  });
  return 0;
}

int DeviceAdmin::UploadFileAsync(std::string localPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  if (!BeginLaunch(log)) return 1;
  ConnectDefaultDevice(nullptr);
  StartWorker([this, localPath = std::move(localPath), progress, log]() mutable {
    UploadFile(std::move(localPath), progress, log);
  });
  return 0;
}

int DeviceAdmin::DownloadFileAsync(std::string devicePath, std::string savePath, IProgressChangeCallBack* progress,
                                   ILogMessageCallBack* log) {
  if (!BeginLaunch(log)) return 1;
  ConnectDefaultDevice(nullptr);
  StartWorker([this, devicePath = std::move(devicePath), savePath = std::move(savePath), progress, log]() mutable {
    DownloadFile(std::move(devicePath), std::move(savePath), progress, log);
  });
  return 0;
}

int DeviceAdmin::DownloadLogsAsync(std::string zipPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                                   bool verbose) {
  if (!BeginLaunch(log)) return 1;
  StartWorker([this, zipPath = std::move(zipPath), progress, log, verbose]() mutable {
    DownloadLogs(std::move(zipPath), progress, log, verbose);
  });
  return 0;
}

void DeviceAdmin::WaitForOperation() {
  if (!OperationRunning.load()) return;
  Task worker;
  {
    std::lock_guard<std::mutex> lock(taskMutex_);
    worker = OperationFuture;
  }
  worker.Wait();
}

void DeviceAdmin::CancelOperation(ILogMessageCallBack* log) {
  OperationRunning.exchange(false);
  Task worker;
  {
    std::lock_guard<std::mutex> lock(taskMutex_);
    worker = OperationFuture;
  }
  worker.Wait();
  const Block cancel = BuildTextPacket(PacketType::Cancel, kCancelText);
  Link.WritePacket(cancel.data(), kBlockSize, log);
  std::printf("Cancel Operation has succeeded.\n");
  std::fflush(stdout);
  // Only now: a signalled event would have cut the write short, and the front
  // end ends the run as soon as it sees it.
  CancelEvent.Set();
}

bool DeviceAdmin::WaitForCancelEvent(std::chrono::milliseconds timeout) { return CancelEvent.WaitFor(timeout); }

bool DeviceAdmin::Shutdown(std::chrono::milliseconds bound) {
  Reader.StopRequested.exchange(true);
  Link.CloseDevice();
  Task worker;
  Task reader;
  {
    std::lock_guard<std::mutex> lock(taskMutex_);
    worker = OperationFuture;
    reader = ReaderFuture;
  }
  const auto deadline = std::chrono::steady_clock::now() + bound;
  const bool workerEnded = worker.WaitFor(bound);
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  const bool readerEnded =
      reader.WaitFor(left > std::chrono::milliseconds::zero() ? left : std::chrono::milliseconds::zero());
  return workerEnded && readerEnded;
}

bool DeviceAdmin::BeginLaunch(ILogMessageCallBack* log) {
  if (OperationRunning.load()) {
    if (log != nullptr) log->LogMessageCallBack(kBusyMessage);
    return false;
  }
  CancelEvent.Reset();
  Link.DrainAtNextOpen();
  OperationRunning.exchange(true);
  return true;
}

// Started under the lock, so a cancel that comes meanwhile waits for this
// worker rather than the last one.
void DeviceAdmin::StartWorker(std::function<void()> worker) {
  std::lock_guard<std::mutex> lock(taskMutex_);
  OperationFuture = Task::Start(std::move(worker));
}

bool DeviceAdmin::ConnectDefaultDevice(ILogMessageCallBack* log) {
  return Link.ConnectDevice(kProductId, kVendorId, log);
}

bool DeviceAdmin::Reconnect(ILogMessageCallBack* log) {
  Link.CloseDevice();
  std::this_thread::sleep_for(limits::kReconnectPause);
  if (Link.ConnectDevice(kProductId, kVendorId, log)) return true;
  ReportOpenFailure();
  return false;
}

void DeviceAdmin::ReportOpenFailure() { std::printf("Failed to open device\n"); }

void DeviceAdmin::EndOperation() {
  Link.CloseDevice();
  OperationRunning.exchange(false);
}

bool DeviceAdmin::ReadBlockWithinSilenceLimit(uint8_t* block, ILogMessageCallBack* log) {
  const auto start = std::chrono::steady_clock::now();
  while (!Reader.StopRequested.load()) {
    if (Link.ReadPacketBlocking(block, kBlockSize, log) == 0) return true;
    if (std::chrono::steady_clock::now() - start >= limits::kDeviceSilenceLimit) {
      ReportDeviceSilence(log);
      return false;
    }
    std::this_thread::sleep_for(limits::kFailedReadPause);
  }
  return false;
}

}  // namespace ferrolt
