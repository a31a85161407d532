// A device on the emulator link (a Unix socket) that a test drives by hand: it greets each
// connection with chosen bytes, records the host's W frames, and sends A and
// R frames (or anything else) when told, or hangs up.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TestSupport.h"

namespace ferrolt::test {

// The path the emulator backend lists a device with the tool's ids under.
inline constexpr const char* kListedPath =
    "\\\\?\\USB#VID_1209&PID_0001&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}";
inline constexpr uint8_t kWireHello = 'H';
inline constexpr uint8_t kWireWrite = 'W';
inline constexpr uint8_t kWireAck = 'A';
inline constexpr uint8_t kWireRead = 'R';

struct ScriptOptions {
  // Sent on every accepted connection: by default the hello of a ready
  // high-speed device with the tool's ids on interface 4.
  std::vector<uint8_t> greeting = {kWireHello, 0x09, 0x12, 0x01, 0x00, 4, 3, 0};
  // True: the device hangs up right after its greeting.
  bool hangsUpAfterGreeting = false;
  // False: the device never reads what the host sends.
  bool readsFrames = true;
};

class ScriptedDevice {
 public:
  explicit ScriptedDevice(ScriptOptions options = {});
  ~ScriptedDevice();
  ScriptedDevice(const ScriptedDevice&) = delete;
  ScriptedDevice& operator=(const ScriptedDevice&) = delete;

  // The value for the emulator backend's endpoint.
  std::string Endpoint() const { return endpoint_; }

  // Waits until the host has sent at least count W frames.
  bool WaitForWrites(size_t count, milliseconds timeout);
  std::vector<Block> Writes() const;

  // From now on, each W frame is answered with its A as it arrives (or not).
  void AckWrites(bool on);
  void SendAck();
  void SendBlock(const Block& block);
  void SendRaw(const std::vector<uint8_t>& bytes);
  // Hangs up the current connection.
  void Hangup();

 private:
  void Serve();
  void Accept();
  void ReadFromHost();
  void CloseClientLocked();

  ScriptOptions options_;
  TempDir dir_;
  std::string endpoint_;
  int listener_ = -1;
  std::atomic<bool> stop_{false};

  mutable std::mutex mutex_;
  std::condition_variable wrote_;
  int client_ = -1;
  std::vector<uint8_t> pending_;  // bytes of a W frame still coming
  std::vector<Block> writes_;
  bool acksWrites_ = false;

  std::thread server_;
};

}  // namespace ferrolt::test
