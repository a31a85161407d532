// Drives a Device directly: blocks in, blocks out, time passing, with its
// root, record and event files in a temporary folder.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "devsim/Device.h"
#include "devsim/DevicePackets.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::devsim::test {

using namespace std::chrono_literals;
using ferrolt::test::TempDir;

struct HarnessOptions {
  std::vector<std::pair<std::string, std::string>> faults{};
  std::chrono::seconds cliTimeout{10};
  std::string initialVersion = "1.0.0";
  bool hostShell = false;
  unsigned seed = 1;
};

class DeviceHarness {
 public:
  explicit DeviceHarness(const HarnessOptions& options = {}, const std::filesystem::path& root = {}) {
    DeviceSettings settings;
    settings.root = root.empty() ? dir_ / "root" : root;
    settings.recordFile = dir_ / "record.bin";
    settings.eventsFile = dir_ / "events.log";
    settings.cliTimeout = options.cliTimeout;
    settings.initialVersion = options.initialVersion;
    settings.hostShell = options.hostShell;
    for (const auto& [name, value] : options.faults) settings.faults.Add(name, value);
    settings.faults.SetSeed(options.seed);
    std::string error;
    device_ = Device::Create(settings, error);
  }

  Device& Dev() { return *device_; }
  std::string Events() const { return ferrolt::test::ReadFile(dir_ / "events.log"); }

  void Text(uint8_t type, const std::string& text) { device_->OnOutBlock(MakeTextPacket(type, text)); }

  // Every IN block due now, after one Poll.
  std::vector<Block> Drain() {
    device_->Poll();
    std::vector<Block> blocks;
    while (auto block = device_->PopInBlock()) blocks.push_back(*block);
    return blocks;
  }

  // Polls and collects IN blocks until a CLI end text arrives or the time-out passes.
  std::vector<Block> CollectCommand(std::chrono::milliseconds timeout) {
    std::vector<Block> blocks;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      for (const Block& block : Drain()) {
        blocks.push_back(block);
        if (PayloadText(block) == "ending testdata") return blocks;
      }
      std::this_thread::sleep_for(2ms);
    }
    return blocks;
  }

 private:
  TempDir dir_;
  std::unique_ptr<Device> device_;
};

// A command block without packet fields: the text from byte 0.
inline Block RawBlock(const std::string& text) {
  Block block{};
  std::memcpy(block.data(), text.data(), std::min(text.size(), block.size()));
  return block;
}

// The output bytes of CLI packets (their first length bytes), end text excluded.
inline std::string OutputOf(const std::vector<Block>& blocks) {
  std::string output;
  for (const Block& block : blocks) {
    if (PayloadText(block) == "ending testdata") continue;
    output.append(reinterpret_cast<const char*>(PayloadOf(block)), LengthOf(block));
  }
  return output;
}

}  // namespace ferrolt::devsim::test
