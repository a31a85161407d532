// Feeds arbitrary blocks to the device's services, each with its CRC made
// right so that the payload reaches the parsers behind the check: upgrade,
// upload, download and log requests, CLI commands, version and the texts.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "devsim/DevicePackets.h"
#include "tests/fuzz/DevsimRun.h"

namespace {

// Keeps one run short.
constexpr size_t kMaxBlocks = 64;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace ferrolt::devsim;
  ferrolt::fuzz::DevsimRun run;
  for (size_t offset = 0, blocks = 0; offset < size && blocks < kMaxBlocks; offset += kCrcOffset, ++blocks) {
    Block block{};
    std::memcpy(block.data(), data + offset, std::min(kCrcOffset, size - offset));
    block[kCrcOffset] = Crc8(block.data(), kCrcOffset);
    run.Feed(block);
  }
  run.Settle();
  return 0;
}
