// Whole-buffer sends and receives on a stream socket, each with its bound.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace ferrolt::platform {

using Deadline = std::chrono::steady_clock::time_point;

// Waits until the socket is ready for events (or in error) or the deadline
// passes; true when ready.
bool WaitReady(int fd, short events, Deadline deadline);

// Receives exactly size bytes before the deadline.
bool ReceiveBefore(int fd, uint8_t* data, size_t size, Deadline deadline);

// Receives exactly size bytes, blocking; false at the end of the stream (also
// after a shutdown of the socket) or on an error.
bool ReceiveAll(int fd, uint8_t* data, size_t size);

// Sends every byte, false when the peer has gone or has not taken them within
// wait. Never raises SIGPIPE.
bool SendAll(int fd, const uint8_t* data, size_t size, std::chrono::milliseconds wait);

}  // namespace ferrolt::platform
