// Serves the device on the emulator link: a Unix-domain stream socket or a
// TCP endpoint, one host link (connection) at a time. On each connection it
// sends the hello, then moves frames: 'W' + 64 bytes from the host become
// OUT blocks of the device; the device's write completions go back as 'A'
// and its IN blocks as 'R' + 64 bytes.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

#include "devsim/Device.h"
#include "devsim/DeviceLimits.h"
#include "devsim/Front.h"
#include "devsim/Listener.h"

namespace ferrolt::devsim {

class FrameReader;

// What the device announces when a host connects.
struct LinkHello {
  // The tool's own ids, from the same build settings.
  uint16_t vendorId = FERROLT_VENDOR_ID;
  uint16_t productId = FERROLT_PRODUCT_ID;
  uint8_t interfaceNumber = 4;
  uint8_t speed = 3;  // 1 low, 2 full, 3 high
  uint8_t state = 0;  // 0 ready, 3 no driver bound, 4 no bulk endpoints

  std::array<uint8_t, 8> Encode() const;
};

struct ServerSettings {
  ListenAddress address;
  bool listenAny = false;  // the TCP host may be other than loopback
  std::chrono::seconds idleLimit = limits::kDefaultIdleLimit;
  LinkHello hello;
};

class SocketServer final : public Front {
 public:
  SocketServer(Device& device, const ServerSettings& settings);
  SocketServer(const SocketServer&) = delete;
  SocketServer& operator=(const SocketServer&) = delete;

  // Front
  bool Listen(std::string& error) override { return listener_.Listen(error); }
  std::string Endpoint() const override { return listener_.Endpoint(); }
  void Serve() override;  // one host link at a time
  void RequestStop() override { listener_.RequestStop(); }

 private:
  void ServeLink(int connection);
  // False when the link must close (the host left, a bad frame, a failed send).
  // moved is set when bytes came or went.
  bool ReadFrames(int connection, FrameReader& frames, bool& moved);
  bool SendDue(int connection, bool& moved);
  // Every byte, unless the host takes none for the idle limit or a stop is
  // requested.
  bool SendWithinIdleLimit(int connection, const char* data, size_t size);
  int PollTimeoutMs(Device::Clock::time_point idleDeadline) const;

  Device& device_;
  ServerSettings settings_;
  Listener listener_;
};

}  // namespace ferrolt::devsim
