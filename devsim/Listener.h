// Where a front of the device waits for its host: a Unix-domain stream socket
// or a TCP endpoint, one connection taken at a time, and a wake pipe that ends
// every wait when a stop is requested.
#pragma once

#include <string>

namespace ferrolt::devsim {

struct ListenAddress {
  std::string socketPath;  // a Unix socket, or
  std::string tcpHost;     // a TCP endpoint (port 0: any free port)
  int tcpPort = -1;
};

class Listener {
 public:
  explicit Listener(const ListenAddress& address);
  ~Listener();  // closes the sockets and removes the Unix socket file
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Binds and listens; false with error set when that fails.
  bool Listen(std::string& error);
  // "PATH" or "tcp:HOST:PORT" with the port actually bound.
  std::string Endpoint() const;
  // Waits for the next host; -1 once a stop is requested.
  int Accept();
  // Ends every wait soon; async-signal-safe, callable from any thread.
  void RequestStop();
  bool StopRequested() const;
  // Readable once a stop is requested: for the fronts' own polls.
  int WakeFd() const { return wakeFds_[0]; }

 private:
  bool ListenUnix(std::string& error);
  bool ListenTcp(std::string& error);

  ListenAddress address_;
  int listenFd_ = -1;
  int wakeFds_[2] = {-1, -1};
  int boundPort_ = -1;
};

// True when every address host names is a loopback one.
bool IsLoopbackHost(const std::string& host);

// Sends every byte; false when the host has gone or a stop was requested.
bool SendAll(int fd, const char* data, size_t size, int wakeFd);

}  // namespace ferrolt::devsim
