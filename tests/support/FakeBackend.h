// An in-memory device behind the platform interface. It lists the paths a
// test chooses, fails opening at a chosen stage, records every block written
// and every pipe flushed, completes writes now, late or never, lets a hook
// fail a write or answer it, hands out queued IN blocks, and can be unplugged.
// Copies share one device: a copy can be handed to an owner of a backend.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/DeviceBackend.h"

namespace ferrolt::test {

using FakeBlock = std::array<uint8_t, 64>;

inline constexpr uint8_t kFakeInPipe = 0x81;
inline constexpr uint8_t kFakeOutPipe = 0x02;
inline constexpr const char* kFakeDevicePath = "\\\\?\\usb#vid_1209&pid_0001&mi_04#7&1a2b3c&0&0004#{a5dcbf10}";

enum class OpenStage { None, Open, Initialize, InterfaceSettings, PipeQuery };
enum class WriteOutcome { Accept, Withhold, Fail };
using WriteHook = std::function<bool(const FakeBlock&)>;

class FakeBackend : public platform::DeviceBackend {
 public:
  FakeBackend();

  // Discovery.
  void SetPaths(std::vector<std::string> paths, uint32_t lastError = platform::kErrorNoMoreItems);
  // What the second search finds.
  void SetRegisteredPaths(std::vector<std::string> paths);
  void FailListing(uint32_t error);
  // Opening.
  void FailAt(OpenStage stage);
  void SetEndpoints(std::vector<platform::PipeInfo> endpoints);
  void SetSpeed(uint8_t speed);
  void FailSpeedQuery(uint32_t error);
  // Transfers.
  void SetWriteOutcome(WriteOutcome outcome);
  // Called on the writer's thread, without the device's lock, with each
  // block before its write ends; false fails the write. It may send IN blocks.
  void OnWrite(WriteHook hook);
  // Completes the oldest withheld write; false when none is outstanding.
  bool CompleteOldestWrite();
  void QueueInBlock(const FakeBlock& block);
  // A read that ends with length bytes of block (a short or zero-length
  // packet under 64), or fails with what it brought.
  void QueueInPacket(const FakeBlock& block, uint32_t length, bool succeeded = true);
  // Queues blocks once the device has taken its next OUT block: the answer
  // to a command, which a device never sends before it is asked (blocks
  // queued before the link opens are stale to it, and dropped).
  void ReplyToNextWrite(std::vector<FakeBlock> blocks);
  // Queues the block and returns once the reader has handled it (it has then
  // started its next read); false when that did not happen within bound.
  bool QueueInBlockAndWait(const FakeBlock& block, std::chrono::milliseconds bound = std::chrono::milliseconds(3000));
  // When set, a read that finds no queued block calls the hook and fails at once.
  void OnReadWhenEmpty(std::function<void()> hook);
  // Unplugs the device: outstanding transfers fail, new ones fail at once.
  void Remove();

  // What was done to the device.
  int ListCount() const;
  int RegisteredSearches() const;
  std::vector<std::string> OpenedPaths() const;
  std::vector<FakeBlock> Written() const;
  std::vector<uint8_t> WritePipes() const;
  std::vector<uint8_t> FlushedPipes() const;
  int ReadsStarted() const;
  int LiveConnections() const;

  platform::InterfaceListing ListInterfaces() override;
  std::vector<std::string> ListRegisteredInterfaces(const platform::UsbInterfaceId& wanted) override;
  std::unique_ptr<platform::DeviceConnection> Open(const std::string& path) override;

  // The device's state, shared with the connections opened on it.
  struct Device;

 private:
  std::shared_ptr<Device> device_;
};

}  // namespace ferrolt::test
