// Feeds arbitrary device replies, 64 bytes at a time, to the workers that
// read them: the version reply, a CLI command's output, the file download's
// and the log download's replies. The first byte picks the worker.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

#include "admin/CliSession.h"
#include "admin/RetrieveVersion.h"
#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "platform/Event.h"
#include "tests/support/InProcessDevice.h"
#include "transfer/DownloadFile.h"
#include "transfer/DownloadLogs.h"

namespace {

using ferrolt::test::DeviceBlock;

// Keeps one run short.
constexpr size_t kMaxBlocks = 64;
enum Worker : uint8_t { kVersion, kCliCommand, kFileDownload, kLogDownload, kWorkers };

class DiscardingLog : public ferrolt::ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string format, ...) override { messages_ += format.size(); }

 private:
  size_t messages_ = 0;
};

class DiscardingVersion : public ferrolt::IVersionInfoReadyCallBack {
 public:
  void VersionInfoReadyCallBack(std::string text) override { texts_ += text.size(); }

 private:
  size_t texts_ = 0;
};

std::string SavePath() {
  static const std::string path = "/tmp/ferrolt-fuzz-" + std::to_string(getpid());
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t worker = data[0] % kWorkers;
  ferrolt::test::InProcessDevice backend;
  backend.SetSpeed(ferrolt::platform::kSpeedLow);  // nothing printed on opening
  ferrolt::platform::Event cancel;
  ferrolt::UsbLink link(backend, cancel);
  // Once the replies are used up the run tears down, so no worker waits; the
  // drain that opening makes finds nothing and leaves no read pending.
  ferrolt::ReaderState reader;
  bool armed = false;
  backend.OnReadWhenEmpty([&] {
    if (armed) reader.StopRequested = true;
  });
  if (!link.ConnectDevice(ferrolt::kProductId, ferrolt::kVendorId, nullptr)) __builtin_trap();
  for (size_t offset = 1, count = 0; offset < size && count < kMaxBlocks; offset += ferrolt::kBlockSize, ++count) {
    DeviceBlock block{};
    std::memcpy(block.data(), data + offset, std::min(ferrolt::kBlockSize, size - offset));
    backend.Send(block);
  }
  armed = true;

  std::atomic<bool> running{true};
  std::mutex linkMutex;
  DiscardingLog log;
  ferrolt::OperationOutcome outcome;
  const ferrolt::OperationContext op{link, running, reader, linkMutex, nullptr, &log, outcome};
  DiscardingVersion version;
  switch (worker) {
    case kVersion:
      ferrolt::RetrieveVersion(op, &version, false);
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
