// The operation runner: the one-operation-at-a-time launch, the waits, the
// cancel and the teardown, and the worker shims.
#include "admin/DeviceAdmin.h"

#include <utility>

#include "admin/CliSession.h"
#include "admin/ProgramCaptouch.h"
#include "admin/ReliabilityTest.h"
#include "admin/RetrieveVersion.h"
#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/Reporting.h"
#include "transfer/DownloadFile.h"
#include "transfer/DownloadLogs.h"
#include "transfer/UpgradeBundle.h"
#include "transfer/UploadFile.h"

namespace ferrolt {

namespace {

constexpr const char* kBusyMessage =
    "Error: Another operation is already running now. Please wait the current operation or cancel to start new "
    "operation.";
constexpr const char* kCancelText = "Cancel";

}  // namespace

DeviceAdmin::DeviceAdmin(std::unique_ptr<platform::DeviceBackend> backend, ConsoleSink& console)
    : Console(console), Backend(std::move(backend)), Link(*Backend, CancelEvent, console) {}

// Nothing waits here: Shutdown() has given the tasks their bounded chance.
DeviceAdmin::~DeviceAdmin() { Link.CloseDevice(); }

int DeviceAdmin::RetrieveVersionAsync(IVersionInfoReadyCallBack* version, IProgressChangeCallBack* progress,
                                      ILogMessageCallBack* log, bool verbose) {
  return Launch(log, BeforeWorker::OpenLink,
                [=, this] { RetrieveVersion(version, progress, log, verbose); });
}

int DeviceAdmin::StartCliAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  return Launch(log, BeforeWorker::Nothing, [=, this] { StartCli(progress, log); });
}

int DeviceAdmin::StopCliAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  return Launch(log, BeforeWorker::Nothing, [=, this] { StopCli(progress, log); });
}

int DeviceAdmin::SendCliCommandAsync(std::string command, IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  return Launch(log, BeforeWorker::Nothing, [=, this, command = std::move(command)] {
    SendCliCommand(command, progress, log);
  });
}

int DeviceAdmin::ProgramCaptouchAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  return Launch(log, BeforeWorker::Nothing, [=, this] { ProgramCaptouch(progress, log); });
}

int DeviceAdmin::StartOrtAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log, char* ortString) {
  return Launch(log, BeforeWorker::Nothing, [=, this] { StartOrt(progress, log, ortString); });
}

int DeviceAdmin::EndOrtAsync(IProgressChangeCallBack* progress, ILogMessageCallBack* log, bool verbose) {
  return Launch(log, BeforeWorker::Nothing, [=, this] { EndOrt(progress, log, verbose); });
}

int DeviceAdmin::UpgradeBundleAsync(std::string bundlePath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                                    bool verbose) {
  return Launch(log, BeforeWorker::OpenLinkAndStartReader, [=, this, bundlePath = std::move(bundlePath)] {
    UpgradeBundle(bundlePath, progress, log, verbose);
  });
}

int DeviceAdmin::UploadFileAsync(std::string localPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  return Launch(log, BeforeWorker::OpenLink,
                [=, this, localPath = std::move(localPath)] { UploadFile(localPath, progress, log); });
}

int DeviceAdmin::DownloadFileAsync(std::string devicePath, std::string savePath, IProgressChangeCallBack* progress,
                                   ILogMessageCallBack* log) {
  return Launch(log, BeforeWorker::OpenLink,
                [=, this, devicePath = std::move(devicePath), savePath = std::move(savePath)] {
                  DownloadFile(devicePath, savePath, progress, log);
                });
}

int DeviceAdmin::DownloadLogsAsync(std::string zipPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                                   bool verbose) {
  return Launch(log, BeforeWorker::Nothing,
                [=, this, zipPath = std::move(zipPath)] { DownloadLogs(zipPath, progress, log, verbose); });
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
  CancelsUnderWay.fetch_add(1);
  Result.MarkCancelled();
  OperationRunning.exchange(false);
  Task worker;
  {
    std::lock_guard<std::mutex> lock(taskMutex_);
    worker = OperationFuture;
  }
  worker.Wait();
  const Block cancel = BuildTextPacket(PacketType::Cancel, kCancelText);
  Link.WritePacket(cancel.data(), kBlockSize, log);
  Console.Print("Cancel Operation has succeeded.\n");
  Console.Flush();
  // Only once the last cancel under way has printed its line: a signalled
  // event would cut another cancel's write short, and the front end ends the
  // run as soon as it sees it.
  if (CancelsUnderWay.fetch_sub(1) == 1) CancelEvent.Set();
}

bool DeviceAdmin::WaitForCancelEvent(std::chrono::milliseconds timeout) { return CancelEvent.WaitFor(timeout); }

bool DeviceAdmin::Shutdown(std::chrono::milliseconds bound) {
  TearingDown.exchange(true);
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

bool DeviceAdmin::Settle(std::chrono::milliseconds bound) {
  // The reader of an upgrade that ended without the device's end report
  // would otherwise read on; the next upgrade resets the flag.
  Reader.ReaderDone.exchange(true);
  Task reader;
  {
    std::lock_guard<std::mutex> lock(taskMutex_);
    reader = ReaderFuture;
  }
  const bool ended = reader.WaitFor(bound);
  Link.CloseDevice();
  return ended;
}

int DeviceAdmin::Launch(ILogMessageCallBack* log, BeforeWorker before, std::function<void()> worker) {
  if (OperationRunning.load()) {
    if (log != nullptr) log->LogMessageCallBack(kBusyMessage);
    return 1;
  }
  CancelEvent.Reset();
  Link.DrainAtNextOpen();
  Result.Reset();
  OperationRunning.exchange(true);
  if (before != BeforeWorker::Nothing && !Link.ConnectDevice(kProductId, kVendorId, nullptr)) Result.MarkLinkFailed();
  // Started under the lock, so a cancel that comes meanwhile waits for this
  // worker rather than the last one.
  std::lock_guard<std::mutex> lock(taskMutex_);
  if (before == BeforeWorker::OpenLinkAndStartReader) {
    // A reader left from an earlier upgrade must not hand its state over.
    Reader.NackedPacketNumber.exchange(kNoNack);
    Reader.ReaderDone.exchange(false);
    Reader.ReportedFailure.exchange(false);
    ReaderFuture = Task::Start([this, log] { ReadResponses(Link, Reader, TearingDown, LogOrSilent(log)); });
  }
  OperationFuture = Task::Start(std::move(worker));
  return 0;
}

OperationContext DeviceAdmin::Context(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  return OperationContext{Link,
                          OperationRunning,
                          TearingDown,
                          Reader,
                          LinkMutex,
                          ProgressOrSilent(progress),
                          LogOrSilent(log),
                          Console,
                          Result,
                          ReadBackUploads_};
}

// The workers: each hands its operation's free function the context.

void DeviceAdmin::RetrieveVersion(IVersionInfoReadyCallBack* version, IProgressChangeCallBack* progress,
                                  ILogMessageCallBack* log, bool verbose) {
  ferrolt::RetrieveVersion(Context(progress, log), VersionOrSilent(version), verbose);
}

void DeviceAdmin::StartCli(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  ferrolt::StartCli(Context(progress, log));
}

void DeviceAdmin::StopCli(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  ferrolt::StopCli(Context(progress, log));
}

void DeviceAdmin::SendCliCommand(std::string command, IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  ferrolt::SendCliCommand(Context(progress, log), command);
}

void DeviceAdmin::ProgramCaptouch(IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  ferrolt::ProgramCaptouch(Context(progress, log));
}

void DeviceAdmin::StartOrt(IProgressChangeCallBack* progress, ILogMessageCallBack* log, char* ortString) {
  ferrolt::StartOrt(Context(progress, log), ortString);
}

void DeviceAdmin::EndOrt(IProgressChangeCallBack* progress, ILogMessageCallBack* log, bool verbose) {
  ferrolt::EndOrt(Context(progress, log), verbose);
}

void DeviceAdmin::UpgradeBundle(std::string bundlePath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                                bool /*verbose: the upgrade reports the same either way*/) {
  ferrolt::UpgradeBundle(Context(progress, log), bundlePath);
}

void DeviceAdmin::UploadFile(std::string localPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log) {
  ferrolt::UploadFile(Context(progress, log), localPath);
}

void DeviceAdmin::DownloadFile(std::string devicePath, std::string savePath, IProgressChangeCallBack* progress,
                               ILogMessageCallBack* log) {
  ferrolt::DownloadFile(Context(progress, log), devicePath, savePath);
}

void DeviceAdmin::DownloadLogs(std::string zipPath, IProgressChangeCallBack* progress, ILogMessageCallBack* log,
                               bool /*verbose: the log download reports the same either way*/) {
  ferrolt::DownloadLogs(Context(progress, log), zipPath);
}

}  // namespace ferrolt
