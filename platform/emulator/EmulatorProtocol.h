// The emulator link's wire format: the device's hello, then frames in both
// directions. Fixed, so that any device emulator can serve the tool.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace ferrolt::platform::emulator {

inline constexpr size_t kBlockSize = 64;

// Frame kinds, the first byte of every frame.
inline constexpr uint8_t kHelloByte = 'H';
inline constexpr uint8_t kWriteFrame = 'W';  // host to device, + one block
inline constexpr uint8_t kAckFrame = 'A';    // device to host: oldest open W done
inline constexpr uint8_t kReadFrame = 'R';   // device to host, + one block
inline constexpr size_t kWriteFrameSize = 1 + kBlockSize;

// 'H', vendor id (u16 LE), product id (u16 LE), interface, speed, state.
inline constexpr size_t kHelloSize = 8;

// The states a device announces in its hello.
inline constexpr uint8_t kStateReady = 0;
inline constexpr uint8_t kStateNoDriver = 3;        // driver initialisation fails
inline constexpr uint8_t kStateEndpointsMissing = 4;  // the pipe query fails

// The pipes the emulated interface offers.
inline constexpr uint8_t kBulkOutPipe = 0x01;
inline constexpr uint8_t kBulkInPipe = 0x81;
inline constexpr uint16_t kMaxPacketSize = 64;
inline constexpr uint8_t kEndpointCount = 2;

// Connecting and the device's hello, together, within this; otherwise the
// device is not there.
inline constexpr std::chrono::milliseconds kHelloWait{1000};
// The longest one frame may take to leave: a device that stops reading is a
// removed device rather than a caller stuck for ever.
inline constexpr std::chrono::milliseconds kFrameSendWait{1000};
// IN blocks held for reads before the link stops taking more from the socket,
// as a USB device holds its data while no read is pending.
inline constexpr size_t kMaxQueuedInBlocks = 1024;

using Block = std::array<uint8_t, kBlockSize>;

struct Hello {
  uint16_t vendorId = 0;
  uint16_t productId = 0;
  uint8_t interfaceNumber = 0;
  uint8_t speed = 0;
  uint8_t state = kStateReady;
};

// Empty when the bytes are not a hello.
std::optional<Hello> ParseHello(const std::array<uint8_t, kHelloSize>& bytes);

// The interface path a device with this hello is listed under.
std::string InterfacePathOf(const Hello& hello);

}  // namespace ferrolt::platform::emulator
