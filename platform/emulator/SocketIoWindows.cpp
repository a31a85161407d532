// Winsock 2 brings in windows.h itself, after it.
#include <winsock2.h>

#include "platform/emulator/SocketIo.h"

namespace ferrolt::platform {
namespace {

using std::chrono::milliseconds;

constexpr BOOL kAnyOne = FALSE;
constexpr BOOL kWaitForIt = TRUE;
constexpr BOOL kDoNotWait = FALSE;
// The receive of the frame reader keeps no limit: its stop event ends it.
constexpr DWORD kUntilStopped = INFINITE;

SOCKET AsSocket(SocketHandle socket) { return static_cast<SOCKET>(socket); }

// Milliseconds left before the deadline, rounded up so a wait never ends early.
DWORD RemainingMilliseconds(Deadline deadline) {
  const auto left = deadline - std::chrono::steady_clock::now();
  if (left <= Deadline::duration::zero()) return 0;
  return static_cast<DWORD>(std::chrono::ceil<milliseconds>(left).count());
}

enum class Direction { Send, Receive };

// One overlapped send or receive, waited on together with stop (when given)
// for at most wait. A transfer that has not finished by then is cancelled,
// and waited for, so that its buffer is free again on return. Returns the
// bytes moved, 0 at the end of the stream, -1 on an error, a time-out or a stop.
int TransferSome(SocketHandle socket, Direction direction, uint8_t* data, size_t size, const Event* stop, DWORD wait) {
  Event finished;
  WSAOVERLAPPED overlapped{};
  overlapped.hEvent = static_cast<HANDLE>(finished.NativeHandle());
  if (overlapped.hEvent == nullptr) return -1;
  WSABUF buffer{static_cast<ULONG>(size), reinterpret_cast<CHAR*>(data)};
  DWORD flags = 0;
  const int started = direction == Direction::Send
                          ? WSASend(AsSocket(socket), &buffer, 1, nullptr, flags, &overlapped, nullptr)
                          : WSARecv(AsSocket(socket), &buffer, 1, nullptr, &flags, &overlapped, nullptr);
  if (started != 0 && WSAGetLastError() != WSA_IO_PENDING) return -1;

  // The stop, when there is one, is listed first: it wins.
  HANDLE handles[2] = {};
  DWORD count = 0;
  if (stop != nullptr) handles[count++] = static_cast<HANDLE>(stop->NativeHandle());
  const DWORD finishedAt = count;
  handles[count++] = overlapped.hEvent;
  DWORD moved = 0;
  if (WaitForMultipleObjects(count, handles, kAnyOne, wait) != WAIT_OBJECT_0 + finishedAt) {
    CancelIoEx(reinterpret_cast<HANDLE>(AsSocket(socket)), &overlapped);
    WSAGetOverlappedResult(AsSocket(socket), &overlapped, &moved, kWaitForIt, &flags);
    return -1;
  }
  if (!WSAGetOverlappedResult(AsSocket(socket), &overlapped, &moved, kDoNotWait, &flags)) return -1;
  return static_cast<int>(moved);
}

}  // namespace

void CloseSocket(SocketHandle socket) { closesocket(AsSocket(socket)); }

void ShutdownSocket(SocketHandle socket) { shutdown(AsSocket(socket), SD_BOTH); }

bool WaitReady(SocketHandle socket, short events, Deadline deadline) {
  fd_set readable;
  fd_set writable;
  fd_set failed;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  FD_ZERO(&failed);
  if (events & POLLIN) FD_SET(AsSocket(socket), &readable);
  if (events & POLLOUT) FD_SET(AsSocket(socket), &writable);
  // A connection that fails shows here, not as writable.
  FD_SET(AsSocket(socket), &failed);
  const DWORD left = RemainingMilliseconds(deadline);
  timeval timeout{static_cast<long>(left / 1000), static_cast<long>(left % 1000) * 1000};
  return select(0, &readable, &writable, &failed, &timeout) > 0;
}

bool ReceiveBefore(SocketHandle socket, uint8_t* data, size_t size, Deadline deadline) {
  size_t received = 0;
  while (received < size) {
    const int count = TransferSome(socket, Direction::Receive, data + received, size - received, nullptr,
                                   RemainingMilliseconds(deadline));
    if (count <= 0) return false;
    received += static_cast<size_t>(count);
  }
  return true;
}

size_t ReceiveSome(SocketHandle socket, uint8_t* data, size_t capacity, const Event& stop) {
  const int count = TransferSome(socket, Direction::Receive, data, capacity, &stop, kUntilStopped);
  return count > 0 ? static_cast<size_t>(count) : 0;
}

bool SendAll(SocketHandle socket, const uint8_t* data, size_t size, milliseconds wait) {
  const Deadline deadline = std::chrono::steady_clock::now() + wait;
  size_t sent = 0;
  while (sent < size) {
    // WSASend takes a writable buffer; it only reads from it.
    const int count = TransferSome(socket, Direction::Send, const_cast<uint8_t*>(data + sent), size - sent, nullptr,
                                   RemainingMilliseconds(deadline));
    if (count <= 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

}  // namespace ferrolt::platform
