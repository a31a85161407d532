// An open link to the in-memory device, fed the given blocks. Once they are
// used up, a read sets the teardown stop, so no worker or reader waits; the
// drain that opening makes finds nothing and leaves no read pending.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include "link/DeviceIds.h"
#include "link/ResponseReader.h"
#include "link/UsbLink.h"
#include "platform/Event.h"
#include "tests/support/InProcessDevice.h"

namespace ferrolt::test {

// The input cut into 64-byte blocks, the last padded with zeros; at most
// maxBlocks, which keeps one run short.
inline std::vector<DeviceBlock> BlocksOf(const uint8_t* data, size_t size, size_t maxBlocks) {
  std::vector<DeviceBlock> blocks;
  for (size_t offset = 0; offset < size && blocks.size() < maxBlocks; offset += kBlockSize) {
    DeviceBlock block{};
    std::memcpy(block.data(), data + offset, std::min(kBlockSize, size - offset));
    blocks.push_back(block);
  }
  return blocks;
}

struct FedLink {
  explicit FedLink(const std::vector<DeviceBlock>& blocks) {
    backend.SetSpeed(platform::kSpeedLow);  // nothing printed on opening
    backend.OnReadWhenEmpty([this] {
      if (armed) stop = true;
    });
    if (!link.ConnectDevice(kProductId, kVendorId, nullptr)) __builtin_trap();
    for (const DeviceBlock& block : blocks) backend.Send(block);
    armed = true;
  }
  FedLink(const FedLink&) = delete;
  FedLink& operator=(const FedLink&) = delete;

  InProcessDevice backend;
  platform::Event cancel;
  UsbLink link{backend, cancel};
  ReaderState reader;
  std::atomic<bool> stop{false};
  bool armed = false;
};

}  // namespace ferrolt::test
