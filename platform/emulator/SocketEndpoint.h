// Where the emulated device listens: "tcp:HOST:PORT" (IPv4 or IPv6, the host
// optionally in brackets) or the path of a Unix-domain stream socket.
#pragma once

#include <string>

#include "platform/emulator/SocketIo.h"
#include "platform/emulator/UniqueFd.h"

namespace ferrolt::platform {

// A connected, blocking stream socket, or an invalid one when nothing accepts
// the connection before the deadline.
UniqueFd ConnectEndpoint(const std::string& endpoint, Deadline deadline);

}  // namespace ferrolt::platform
