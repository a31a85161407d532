// Feeds arbitrary bytes to what the host reads from an emulated device: the
// hello, then the frame stream, with writes and reads outstanding while the
// frames arrive. Every transfer must end, whatever the bytes.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/emulator/EmulatorConnection.h"
#include "platform/emulator/EmulatorProtocol.h"

namespace {

using namespace ferrolt::platform;
using namespace ferrolt::platform::emulator;

constexpr auto kTransferEnd = std::chrono::milliseconds(2000);
constexpr int kTransfersEach = 4;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::array<uint8_t, kHelloSize> helloBytes{};
  std::memcpy(helloBytes.data(), data, std::min(size, kHelloSize));
  const std::optional<Hello> hello = ParseHello(helloBytes);
  if (!hello || size <= kHelloSize) return 0;
  (void)InterfacePathOf(*hello);

  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 0;
  // The device's frames, then its end of the link.
  const size_t frames = size - kHelloSize;
  if (write(ends[1], data + kHelloSize, frames) != static_cast<ssize_t>(frames)) __builtin_trap();
  close(ends[1]);

  std::vector<std::shared_ptr<Transfer>> transfers;
  {
    EmulatorConnection connection(UniqueSocket(ends[0]), *hello);
    const std::array<uint8_t, 64> block{};
    for (int i = 0; i < kTransfersEach; ++i) {
      if (auto write = connection.StartWrite(kBulkOutPipe, block.data(), 64)) transfers.push_back(write);
      if (auto read = connection.StartRead(kBulkInPipe, 64)) transfers.push_back(read);
    }
    for (const auto& transfer : transfers)
      if (!transfer->Completion().WaitFor(kTransferEnd)) __builtin_trap();
  }
  return 0;
}
