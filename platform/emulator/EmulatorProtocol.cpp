#include "platform/emulator/EmulatorProtocol.h"

#include "platform/UsbInterfacePath.h"

namespace ferrolt::platform::emulator {
namespace {

// Instance part of the path: the emulator has no bus position to give.
constexpr const char* kEmulatorInstance = "EMULATOR";

uint16_t LittleEndian16(uint8_t low, uint8_t high) { return static_cast<uint16_t>(low | (high << 8)); }

}  // namespace

std::optional<Hello> ParseHello(const std::array<uint8_t, kHelloSize>& bytes) {
  if (bytes[0] != kHelloByte) return std::nullopt;
  Hello hello;
  hello.vendorId = LittleEndian16(bytes[1], bytes[2]);
  hello.productId = LittleEndian16(bytes[3], bytes[4]);
  hello.interfaceNumber = bytes[5];
  hello.speed = bytes[6];
  hello.state = bytes[7];
  return hello;
}

std::string InterfacePathOf(const Hello& hello) {
  return FormatInterfacePath({hello.vendorId, hello.productId, hello.interfaceNumber}, kEmulatorInstance);
}

}  // namespace ferrolt::platform::emulator
