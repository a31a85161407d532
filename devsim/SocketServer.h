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
  std::string socketPath;  // a Unix socket, or
  std::string tcpHost;     // a TCP endpoint (port 0: any free port)
  int tcpPort = -1;
  LinkHello hello;
};

class SocketServer {
 public:
  SocketServer(Device& device, const ServerSettings& settings);
  ~SocketServer();  // closes the sockets and removes the Unix socket file
  SocketServer(const SocketServer&) = delete;
  SocketServer& operator=(const SocketServer&) = delete;

  // Binds and listens; false with error set when that fails.
  bool Listen(std::string& error);
  // "PATH" or "tcp:HOST:PORT" with the port actually bound.
  std::string Endpoint() const;
  // Serves host links until RequestStop.
  void Serve();
  // Ends Serve soon; async-signal-safe, callable from any thread.
  void RequestStop();

 private:
  bool ListenUnix(std::string& error);
  bool ListenTcp(std::string& error);
  int AcceptHost();
  void ServeLink(int connection);
  // False when the link must close (the host left, a bad frame, a failed send).
  bool ReadFrames(int connection, std::string& pending);
  bool SendDue(int connection);
  int PollTimeoutMs() const;
  bool StopRequested() const;

  Device& device_;
  ServerSettings settings_;
  int listenFd_ = -1;
  int wakeFds_[2] = {-1, -1};
  int boundPort_ = -1;
};

}  // namespace ferrolt::devsim
