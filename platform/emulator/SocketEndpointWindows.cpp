#include <winsock2.h>
#include <ws2tcpip.h>

#include "platform/emulator/SocketEndpoint.h"

namespace ferrolt::platform {
namespace {

constexpr WORD kWinsockVersion = MAKEWORD(2, 2);

// Winsock is started once per process and left running until it ends.
bool StartWinsock() {
  static const bool started = [] {
    WSADATA data{};
    return WSAStartup(kWinsockVersion, &data) == 0;
  }();
  return started;
}

// Small frames one at a time: without this, Nagle's algorithm and delayed
// acknowledgements would hold every block back.
void DisableCoalescing(SOCKET socket) {
  BOOL on = TRUE;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
}

bool SetBlocking(SOCKET socket, bool blocking) {
  u_long nonBlocking = blocking ? 0 : 1;
  return ioctlsocket(socket, FIONBIO, &nonBlocking) == 0;
}

// Connects without blocking past the deadline, then hands the socket back in
// blocking mode.
UniqueSocket ConnectAddress(const addrinfo& entry, Deadline deadline) {
  UniqueSocket socket(::socket(entry.ai_family, entry.ai_socktype, entry.ai_protocol));
  if (!socket.Valid()) return {};
  const SOCKET handle = static_cast<SOCKET>(socket.Get());
  if (!SetBlocking(handle, false)) return {};
  if (connect(handle, entry.ai_addr, static_cast<int>(entry.ai_addrlen)) != 0) {
    if (WSAGetLastError() != WSAEWOULDBLOCK) return {};
    if (!WaitReady(socket.Get(), POLLOUT, deadline)) return {};
    int error = 0;
    int size = sizeof error;
    if (getsockopt(handle, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size) != 0 || error != 0) return {};
  }
  if (!SetBlocking(handle, true)) return {};
  DisableCoalescing(handle);
  return socket;
}

}  // namespace

// The Windows build reaches the emulator over TCP only.
UniqueSocket ConnectEndpoint(const std::string& endpoint, Deadline deadline) {
  const std::optional<TcpAddress> target = TcpAddressOf(endpoint);
  if (!target || !StartWinsock()) return {};
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* found = nullptr;
  if (getaddrinfo(target->host.c_str(), target->port.c_str(), &hints, &found) != 0) return {};
  UniqueSocket socket;
  for (const addrinfo* entry = found; entry != nullptr && !socket.Valid(); entry = entry->ai_next)
    socket = ConnectAddress(*entry, deadline);
  freeaddrinfo(found);
  return socket;
}

}  // namespace ferrolt::platform
