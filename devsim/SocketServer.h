// Serves the device on the emulator link: a Unix-domain stream socket or a
// TCP endpoint, one host link (connection) at a time. On each connection it
// sends the hello, then moves frames: 'W' + 64 bytes from the host become
// OUT blocks of the device; the device's write completions go back as 'A'
// and its IN blocks as 'R' + 64 bytes. A host that leaves its link idle, or
// stops reading, is dropped after the idle limit, so the next one is served.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

#include "devsim/Device.h"
#include "devsim/DeviceLimits.h"

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
  std::string socketPath;  // a Unix socket, or
  std::string tcpHost;     // a TCP endpoint (port 0: any free port)
  int tcpPort = -1;
  bool listenAny = false;  // the TCP host may be other than loopback
  std::chrono::seconds idleLimit = limits::kDefaultIdleLimit;
  LinkHello hello;
};

// True when every address host names is a loopback one.
bool IsLoopbackHost(const std::string& host);

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
  // moved is set when bytes came or went.
  bool ReadFrames(int connection, FrameReader& frames, bool& moved);
  bool SendDue(int connection, bool& moved);
  // Every byte, unless the host takes none for the idle limit or a stop is
  // requested.
  bool SendAll(int connection, const char* data, size_t size);
  int PollTimeoutMs(Device::Clock::time_point idleDeadline) const;
  bool StopRequested() const;

  Device& device_;
  ServerSettings settings_;
  int listenFd_ = -1;
  int wakeFds_[2] = {-1, -1};
  int boundPort_ = -1;
};

}  // namespace ferrolt::devsim
