// Serves the device on the emulator link: a Unix-domain stream socket or a
// TCP endpoint, one host link (connection) at a time. On each connection it
// sends the hello, then moves frames: 'W' + 64 bytes from the host become
// OUT blocks of the device; the device's write completions go back as 'A'
// and its IN blocks as 'R' + 64 bytes.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "devsim/Device.h"
#include "devsim/Front.h"
#include "devsim/Listener.h"

namespace ferrolt::devsim {

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
  bool ReadFrames(int connection, std::string& pending);
  bool SendDue(int connection);

  Device& device_;
  ServerSettings settings_;
  Listener listener_;
};

}  // namespace ferrolt::devsim
