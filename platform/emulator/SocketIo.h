// Whole-buffer sends and receives on a stream socket, each with its bound.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "platform/Event.h"
#include "platform/emulator/Socket.h"

namespace ferrolt::platform {

using Deadline = std::chrono::steady_clock::time_point;

// Waits until the socket is ready for events (POLLIN, POLLOUT) or in error,
// or the deadline passes; true when ready.
bool WaitReady(SocketHandle socket, short events, Deadline deadline);

// Receives exactly size bytes before the deadline.
bool ReceiveBefore(SocketHandle socket, uint8_t* data, size_t size, Deadline deadline);

// Receives what has arrived, at least one byte and at most capacity,
// blocking until something comes; 0 at the end of the stream, on an error, or
// once stop is set (whoever sets it also shuts the socket down).
size_t ReceiveSome(SocketHandle socket, uint8_t* data, size_t capacity, const Event& stop);

// Sends every byte, false when the peer has gone or has not taken them within
// wait. Never raises SIGPIPE.
bool SendAll(SocketHandle socket, const uint8_t* data, size_t size, std::chrono::milliseconds wait);

}  // namespace ferrolt::platform
