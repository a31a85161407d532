// The device in the test's own process, behind the platform interface, as a
// USB device is: a write stays pending until the device completes it, a read
// until the device sends a packet, and the device sends only while a read is
// pending, so flushing the IN pipe drops no block the device still holds.
// Behind the pipes stands the device logic (devsim's, see InProcessDevsim.h)
// or nothing, and then a test sends by hand. Switches: stalled completions,
// failed writes, short and failed packets, unplugging, and the ways a device
// node lists and opens. Copies share one device: a copy can be handed to an
// owner of a backend.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/DeviceBackend.h"

namespace ferrolt::test {

using DeviceBlock = std::array<uint8_t, 64>;

inline constexpr uint8_t kDeviceInPipe = 0x81;
inline constexpr uint8_t kDeviceOutPipe = 0x02;
inline constexpr const char* kDevicePath = "\\\\?\\usb#vid_1209&pid_0001&mi_04#7&1a2b3c&0&0004#{a5dcbf10}";

// What stands behind the pipes. Called with the device's lock held, from the
// host's threads and the device's clock thread.
class DeviceLogic {
 public:
  using Clock = std::chrono::steady_clock;
  virtual ~DeviceLogic() = default;
  virtual void LinkOpened() = 0;
  virtual void LinkClosed() = 0;
  // False while the device refuses OUT blocks (NAKs them): the write waits.
  virtual bool TakesOutBlocks() const = 0;
  virtual void OutBlock(const DeviceBlock& block) = 0;
  // Lets time pass; returns the write completions now due.
  virtual size_t Poll() = 0;
  virtual std::optional<DeviceBlock> PopInBlock() = 0;
  // When Poll is next needed; none: not before something happens.
  virtual std::optional<Clock::time_point> NextDue() const = 0;
  // True once the device has dropped the current link (it re-enumerates).
  virtual bool DroppedLink() const = 0;
};

enum class OpenStage { None, Open, Initialize, InterfaceSettings, PipeQuery };

class InProcessDevice : public platform::DeviceBackend {
 public:
  // Nothing behind the pipes: every write completes at once.
  InProcessDevice();
  explicit InProcessDevice(std::unique_ptr<DeviceLogic> logic);

  // Discovery and opening.
  void SetPaths(std::vector<std::string> paths, uint32_t lastError = platform::kErrorNoMoreItems);
  void SetRegisteredPaths(std::vector<std::string> paths);
  void FailListing(uint32_t error);
  void FailAt(OpenStage stage);
  void SetEndpoints(std::vector<platform::PipeInfo> endpoints);
  void SetSpeed(uint8_t speed);
  void FailSpeedQuery(uint32_t error);

  // The device completes no write while stalled; CompleteOldestWrite is its
  // late completion (false when none is pending).
  void Stall(bool stalled);
  bool CompleteOldestWrite();
  // Once the device has sent an IN block it takes no OUT block until the host
  // has started its next read: the host has handled every answer (a NACK
  // above all) before its next packet goes out, however fast the writes are.
  void PaceOutByReads(bool paced);
  // Called on the writer's thread, without the device's lock, with each block
  // before the device takes it; false fails the write (the block never
  // reaches the device). It may send blocks.
  void OnWrite(std::function<bool(const DeviceBlock&)> hook);
  // The device queues a block, or a packet of length bytes of it (short, or
  // zero-length), or one that the host's read ends failed with.
  void Send(const DeviceBlock& block);
  void SendPacket(const DeviceBlock& block, uint32_t length, bool succeeded = true);
  // Sends the block and returns once the host has taken it and started its
  // next read (it has handled the block); false when not within bound.
  bool SendAndWaitTaken(const DeviceBlock& block, std::chrono::milliseconds bound = std::chrono::milliseconds(3000));
  // When set, a read that finds nothing to take calls the hook and fails at once.
  void OnReadWhenEmpty(std::function<void()> hook);
  // Pending transfers fail; nothing opens or starts any more.
  void Unplug();

  // What the host did.
  int ListCount() const;
  int RegisteredSearches() const;
  std::vector<std::string> OpenedPaths() const;
  // Every block the host started writing, failed ones too.
  std::vector<DeviceBlock> Written() const;
  std::vector<uint8_t> FlushedPipes() const;
  int ReadsStarted() const;
  int LiveConnections() const;

  platform::InterfaceListing ListInterfaces() override;
  std::vector<std::string> ListRegisteredInterfaces(const platform::UsbInterfaceId& wanted) override;
  std::unique_ptr<platform::DeviceConnection> Open(const std::string& path) override;

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace ferrolt::test
