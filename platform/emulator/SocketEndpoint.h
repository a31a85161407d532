// Where the emulated device listens: "tcp:HOST:PORT" (IPv4 or IPv6, the host
// optionally in brackets) or, on POSIX, the path of a Unix-domain stream
// socket.
#pragma once

#include <optional>
#include <string>

#include "platform/emulator/Socket.h"
#include "platform/emulator/SocketIo.h"

namespace ferrolt::platform {

// Why a "tcp:" endpoint without a host and a port (or, on Windows, any other
// endpoint) cannot be reached.
inline constexpr const char* kNotAnAddress = "not of the form tcp:HOST:PORT";

// A connected, blocking stream socket, or an invalid one when nothing accepts
// the connection before the deadline; then failure says why, in the system's
// words where the system gave any.
UniqueSocket ConnectEndpoint(const std::string& endpoint, Deadline deadline, std::string& failure);

struct TcpAddress {
  std::string host;
  std::string port;
};

bool IsTcpEndpoint(const std::string& endpoint);
// The host and port of a "tcp:" endpoint; empty when it names none.
std::optional<TcpAddress> TcpAddressOf(const std::string& endpoint);

}  // namespace ferrolt::platform
