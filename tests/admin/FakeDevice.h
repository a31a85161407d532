// An in-process device behind the platform interface, for what the emulator
// cannot show deterministically: it records every block written, hands out
// the IN blocks a test queues, and can withhold write completions.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/DeviceBackend.h"

namespace ferrolt::test {

using DeviceBlock = std::array<uint8_t, 64>;

struct FakeDeviceState {
  std::mutex mutex;
  bool present = true;
  bool stallWrites = false;
  int opens = 0;
  int closes = 0;
  std::vector<DeviceBlock> written;
  std::vector<DeviceBlock> inQueue;
  std::shared_ptr<platform::Transfer> pendingRead;
  // Called (without the lock) for every block written.
  std::function<void(const DeviceBlock&)> onWrite;
};

class FakeDevice {
 public:
  FakeDevice();
  // The backend to hand to a DeviceAdmin; it shares this device's state.
  std::unique_ptr<platform::DeviceBackend> Backend() const;

  void SetPresent(bool present);
  void SetStallWrites(bool stall);
  void OnWrite(std::function<void(const DeviceBlock&)> hook);
  // Queues one IN block (completing a read that waits for it).
  void Send(const DeviceBlock& block);
  std::vector<DeviceBlock> Written() const;
  int Opens() const;
  int Closes() const;

 private:
  std::shared_ptr<FakeDeviceState> state_;
};

// A device packet with a correct CRC: type, length byte, payload bytes.
DeviceBlock MakeDevicePacket(uint8_t type, uint8_t length, const std::string& payload);

}  // namespace ferrolt::test
