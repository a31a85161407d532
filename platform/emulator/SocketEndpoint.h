// Where the emulated device listens: "tcp:HOST:PORT" (IPv4 or IPv6, the host
// optionally in brackets) or, on POSIX, the path of a Unix-domain stream
// socket.
#pragma once

#include <optional>
#include <string>

#include "platform/emulator/Socket.h"
#include "platform/emulator/SocketIo.h"

namespace ferrolt::platform {

// A connected, blocking stream socket, or an invalid one when nothing accepts
// the connection before the deadline.
UniqueSocket ConnectEndpoint(const std::string& endpoint, Deadline deadline);

struct TcpAddress {
  std::string host;
  std::string port;
};

bool IsTcpEndpoint(const std::string& endpoint);
// The host and port of a "tcp:" endpoint; empty when it names none.
std::optional<TcpAddress> TcpAddressOf(const std::string& endpoint);

}  // namespace ferrolt::platform
