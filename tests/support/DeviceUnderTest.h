// The device an end-to-end test runs the built tool against, whatever
// carries the blocks: ferrolt-devsim on a Unix socket or on TCP, or the same
// device logic behind an emulated USB device.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace ferrolt::test {

namespace fs = std::filesystem;

using Block = std::array<uint8_t, 64>;

// What a started tool needs in its environment to reach a device: variables
// to set and variables to remove.
struct ToolEnvironment {
  std::vector<std::pair<std::string, std::string>> set;
  std::vector<std::string> unset;
};

class DeviceUnderTest {
 public:
  virtual ~DeviceUnderTest() = default;

  // False when the device could not be started.
  virtual bool Running() const = 0;
  virtual ToolEnvironment Environment() const = 0;
  // The device's folder: its version, its /tmp/, its logs, the last upgrade.
  virtual const fs::path& Root() const = 0;
  // Every OUT block the device received, in order.
  virtual std::vector<Block> Received() const = 0;
  // The device's event log so far.
  virtual std::string Events() const = 0;
  virtual void Stop() = 0;
};

}  // namespace ferrolt::test
