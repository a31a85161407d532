#include "tests/windows/WinUsbStandIn.h"

#include <atomic>

namespace ferrolt::test {
namespace {

// Device to host: room for many blocks, so a send never waits. Host to
// device: none, so a host write completes only when the device reads it.
constexpr DWORD kDeviceToHostBuffer = 64 * 64;
constexpr DWORD kHostToDeviceBuffer = 0;
constexpr DWORD kOneInstance = 1;

HANDLE PipeOf(WINUSB_INTERFACE_HANDLE winUsb) { return static_cast<HANDLE>(winUsb); }

BOOL Refuse() {
  SetLastError(ERROR_INVALID_PARAMETER);
  return FALSE;
}

WINBOOL WINAPI Initialize(HANDLE file, PWINUSB_INTERFACE_HANDLE winUsb) {
  *winUsb = file;
  return TRUE;
}

WINBOOL WINAPI Free(WINUSB_INTERFACE_HANDLE) { return TRUE; }

WINBOOL WINAPI QueryInterfaceSettings(WINUSB_INTERFACE_HANDLE, UCHAR alternate, PUSB_INTERFACE_DESCRIPTOR setting) {
  if (alternate != 0) return Refuse();
  *setting = {};
  setting->bInterfaceNumber = 4;
  setting->bNumEndpoints = 2;
  return TRUE;
}

WINBOOL WINAPI QueryPipe(WINUSB_INTERFACE_HANDLE, UCHAR alternate, UCHAR index, PWINUSB_PIPE_INFORMATION pipe) {
  if (alternate != 0 || index > 1) return Refuse();
  *pipe = {};
  pipe->PipeType = UsbdPipeTypeBulk;
  pipe->PipeId = index == 0 ? kStandInOutPipe : kStandInInPipe;
  pipe->MaximumPacketSize = 64;
  return TRUE;
}

WINBOOL WINAPI QueryDeviceInformation(WINUSB_INTERFACE_HANDLE, ULONG type, PULONG length, PVOID buffer) {
  if (type != DEVICE_SPEED || *length < 1) return Refuse();
  *static_cast<UCHAR*>(buffer) = kStandInSpeed;
  *length = 1;
  return TRUE;
}

WINBOOL WINAPI WritePipe(WINUSB_INTERFACE_HANDLE winUsb, UCHAR pipe, PUCHAR data, ULONG length, PULONG,
                         LPOVERLAPPED overlapped) {
  if (pipe != kStandInOutPipe) return Refuse();
  return WriteFile(PipeOf(winUsb), data, length, nullptr, overlapped);
}

WINBOOL WINAPI ReadPipe(WINUSB_INTERFACE_HANDLE winUsb, UCHAR pipe, PUCHAR data, ULONG length, PULONG,
                        LPOVERLAPPED overlapped) {
  if (pipe != kStandInInPipe) return Refuse();
  return ReadFile(PipeOf(winUsb), data, length, nullptr, overlapped);
}

WINBOOL WINAPI OverlappedResult(WINUSB_INTERFACE_HANDLE winUsb, LPOVERLAPPED overlapped, LPDWORD count, WINBOOL wait) {
  return GetOverlappedResult(PipeOf(winUsb), overlapped, count, wait);
}

// Nothing is held at the host's end of the pipe.
WINBOOL WINAPI FlushPipe(WINUSB_INTERFACE_HANDLE, UCHAR pipe) {
  return pipe == kStandInOutPipe || pipe == kStandInInPipe ? TRUE : Refuse();
}

// One handle carries both pipes: aborting either aborts everything in flight.
WINBOOL WINAPI AbortPipe(WINUSB_INTERFACE_HANDLE winUsb, UCHAR pipe) {
  if (pipe != kStandInOutPipe && pipe != kStandInInPipe) return Refuse();
  CancelIoEx(PipeOf(winUsb), nullptr);
  return TRUE;
}

// One whole block through the device's end of the pipe, read when taking and
// written when sending; a transfer not done within wait is cancelled.
bool MoveBlock(HANDLE pipe, uint8_t* data, bool take, DWORD wait) {
  OVERLAPPED overlapped{};
  overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  const BOOL done =
      take ? ReadFile(pipe, data, 64, nullptr, &overlapped) : WriteFile(pipe, data, 64, nullptr, &overlapped);
  DWORD count = 0;
  bool moved = false;
  if (done || GetLastError() == ERROR_IO_PENDING) {
    if (WaitForSingleObject(overlapped.hEvent, wait) != WAIT_OBJECT_0) CancelIoEx(pipe, &overlapped);
    moved = GetOverlappedResult(pipe, &overlapped, &count, TRUE) && count == 64;
  }
  CloseHandle(overlapped.hEvent);
  return moved;
}

std::string UniquePipePath() {
  static std::atomic<int> counter{0};
  return "\\\\.\\pipe\\ferrolt-standin-" + std::to_string(GetCurrentProcessId()) + "-" +
         std::to_string(counter.fetch_add(1));
}

}  // namespace

const platform::WinUsbApi& StandInWinUsbApi() {
  static const platform::WinUsbApi api{Initialize, Free,     QueryInterfaceSettings, QueryPipe, QueryDeviceInformation,
                                       WritePipe,  ReadPipe, OverlappedResult,       FlushPipe, AbortPipe};
  return api;
}

StandInDevice::StandInDevice() : path_(UniquePipePath()) {
  pipe_ = CreateNamedPipeA(path_.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                           PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, kOneInstance, kDeviceToHostBuffer,
                           kHostToDeviceBuffer, 0, nullptr);
}

StandInDevice::~StandInDevice() {
  if (pipe_ != INVALID_HANDLE_VALUE) CloseHandle(pipe_);
}

bool StandInDevice::TakeBlock(StandInBlock& block, std::chrono::milliseconds wait) {
  return MoveBlock(pipe_, block.data(), true, static_cast<DWORD>(wait.count()));
}

bool StandInDevice::SendBlock(StandInBlock block) { return MoveBlock(pipe_, block.data(), false, INFINITE); }

}  // namespace ferrolt::test
