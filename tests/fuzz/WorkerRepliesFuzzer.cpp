// Feeds arbitrary device replies, 64 bytes at a time, to the workers that
// read them: the version reply, a CLI command's output, the file download's
// and the log download's replies. The first byte picks the worker.
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "admin/CliSession.h"
#include "admin/RetrieveVersion.h"
#include "link/DevicePacket.h"
#include "link/Reporting.h"
#include "tests/fuzz/FedLink.h"
#include "transfer/DownloadFile.h"
#include "transfer/DownloadLogs.h"

namespace {

// Keeps one run short.
constexpr size_t kMaxBlocks = 64;
enum Worker : uint8_t { kVersion, kCliCommand, kFileDownload, kLogDownload, kWorkers };

std::string SavePath() {
  static const std::string path = "/tmp/ferrolt-fuzz-" + std::to_string(getpid());
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t worker = data[0] % kWorkers;
  ferrolt::test::FedLink fed(ferrolt::test::BlocksOf(data + 1, size - 1, kMaxBlocks));

  std::atomic<bool> running{true};
  std::mutex linkMutex;
  ferrolt::OperationOutcome outcome;
  ferrolt::ILogMessageCallBack& log = ferrolt::LogOrSilent(nullptr);
  const ferrolt::OperationContext op{
      fed.link,           running, fed.stop, fed.reader, linkMutex, ferrolt::ProgressOrSilent(nullptr), log,
      fed.link.Console(), outcome, false};
  switch (worker) {
    case kVersion:
      ferrolt::RetrieveVersion(op, ferrolt::VersionOrSilent(nullptr), false);
      break;
    case kCliCommand:
      ferrolt::SendCliCommand(op, "ls");
      break;
    case kFileDownload:
      ferrolt::DownloadFile(op, "/tmp/f", SavePath());
      break;
    default:
      ferrolt::DownloadLogs(op, SavePath());
      break;
  }
  if (running.load()) __builtin_trap();  // every worker ends with the flag clear
  return 0;
}
