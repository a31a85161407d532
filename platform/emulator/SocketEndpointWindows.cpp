#include <winsock2.h>
#include <ws2tcpip.h>

#include <string>

#include "platform/emulator/SocketEndpoint.h"

namespace ferrolt::platform {
namespace {

constexpr WORD kWinsockVersion = MAKEWORD(2, 2);
constexpr DWORD kErrorTextSize = 256;

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

// The system's text for a Winsock error, without its line break.
std::string ErrorText(int error) {
  char text[kErrorTextSize] = {};
  const DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                      static_cast<DWORD>(error), 0, text, sizeof text, nullptr);
  std::string message(text, length);
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r' || message.back() == '.'))
    message.pop_back();
  return message.empty() ? "Windows error " + std::to_string(error) : message;
}

UniqueSocket Failed(int error, std::string& failure) {
  failure = ErrorText(error);
  return {};
}

// Connects without blocking past the deadline, then hands the socket back in
// blocking mode.
UniqueSocket ConnectAddress(const addrinfo& entry, Deadline deadline, std::string& failure) {
  UniqueSocket socket(::socket(entry.ai_family, entry.ai_socktype, entry.ai_protocol));
  if (!socket.Valid()) return Failed(WSAGetLastError(), failure);
  const SOCKET handle = static_cast<SOCKET>(socket.Get());
  if (!SetBlocking(handle, false)) return Failed(WSAGetLastError(), failure);
  if (connect(handle, entry.ai_addr, static_cast<int>(entry.ai_addrlen)) != 0) {
    if (WSAGetLastError() != WSAEWOULDBLOCK) return Failed(WSAGetLastError(), failure);
    if (!WaitReady(socket.Get(), POLLOUT, deadline)) return Failed(WSAETIMEDOUT, failure);
    int error = 0;
    int size = sizeof error;
    if (getsockopt(handle, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size) != 0)
      return Failed(WSAGetLastError(), failure);
    if (error != 0) return Failed(error, failure);
  }
  if (!SetBlocking(handle, true)) return Failed(WSAGetLastError(), failure);
  DisableCoalescing(handle);
  return socket;
}

}  // namespace

// The Windows build reaches the emulator over TCP only.
UniqueSocket ConnectEndpoint(const std::string& endpoint, Deadline deadline, std::string& failure) {
  const std::optional<TcpAddress> target = TcpAddressOf(endpoint);
  if (!target) {
    failure = kNotAnAddress;
    return {};
  }
  if (!StartWinsock()) return Failed(WSAGetLastError(), failure);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* found = nullptr;
  const int resolved = getaddrinfo(target->host.c_str(), target->port.c_str(), &hints, &found);
  if (resolved != 0) return Failed(resolved, failure);
  UniqueSocket socket;
  for (const addrinfo* entry = found; entry != nullptr && !socket.Valid(); entry = entry->ai_next)
    socket = ConnectAddress(*entry, deadline, failure);
  freeaddrinfo(found);
  return socket;
}

}  // namespace ferrolt::platform
