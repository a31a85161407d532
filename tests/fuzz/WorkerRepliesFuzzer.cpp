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
#include <vector>

#include "admin/CliSession.h"
#include "admin/RetrieveVersion.h"
#include "link/DevicePacket.h"
#include "link/Reporting.h"
#include "tests/fuzz/FedLink.h"
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
  std::vector<DeviceBlock> blocks;
  for (size_t offset = 1; offset < size && blocks.size() < kMaxBlocks; offset += ferrolt::kBlockSize) {
    DeviceBlock block{};
    std::memcpy(block.data(), data + offset, std::min(ferrolt::kBlockSize, size - offset));
    blocks.push_back(block);
  }
  ferrolt::test::FedLink fed(blocks);

  std::atomic<bool> running{true};
  std::mutex linkMutex;
  DiscardingLog log;
  ferrolt::OperationOutcome outcome;
  const ferrolt::OperationContext op{fed.link,       running, fed.stop, fed.reader,         linkMutex,
                                     ferrolt::ProgressOrSilent(nullptr), log,      fed.link.Console(), outcome,
                                     false};
  DiscardingVersion version;
  switch (worker) {
    case kVersion:
      ferrolt::RetrieveVersion(op, version, false);
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
