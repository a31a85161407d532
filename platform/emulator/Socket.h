// A stream socket of the system's kind (a descriptor on POSIX, a Winsock
// SOCKET on Windows) and the owner that closes it.
#pragma once

#include <cstdint>
#include <utility>

namespace ferrolt::platform {

#ifdef _WIN32
using SocketHandle = uintptr_t;  // SOCKET
inline constexpr SocketHandle kInvalidSocket = ~SocketHandle{0};
#else
using SocketHandle = int;
inline constexpr SocketHandle kInvalidSocket = -1;
#endif

void CloseSocket(SocketHandle socket);
// Ends the connection in both directions; on POSIX this also wakes a
// receive blocked on the socket.
void ShutdownSocket(SocketHandle socket);

class UniqueSocket {
 public:
  UniqueSocket() = default;
  explicit UniqueSocket(SocketHandle socket) : socket_(socket) {}
  ~UniqueSocket() { Reset(); }
  UniqueSocket(UniqueSocket&& other) noexcept : socket_(std::exchange(other.socket_, kInvalidSocket)) {}
  UniqueSocket& operator=(UniqueSocket&& other) noexcept {
    if (this != &other) {
      Reset();
      socket_ = std::exchange(other.socket_, kInvalidSocket);
    }
    return *this;
  }
  UniqueSocket(const UniqueSocket&) = delete;
  UniqueSocket& operator=(const UniqueSocket&) = delete;

  SocketHandle Get() const { return socket_; }
  bool Valid() const { return socket_ != kInvalidSocket; }
  void Reset() {
    if (Valid()) CloseSocket(socket_);
    socket_ = kInvalidSocket;
  }

 private:
  SocketHandle socket_ = kInvalidSocket;
};

}  // namespace ferrolt::platform
