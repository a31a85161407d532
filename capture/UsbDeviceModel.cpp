#include "capture/UsbDeviceModel.h"

#include <string_view>

#include "capture/LittleEndian.h"

namespace ferrolt::capture {
namespace {

constexpr uint8_t kStringDescriptorType = 3;
constexpr uint8_t kInterfaceDescriptorType = 4;
constexpr uint8_t kEndpointDescriptorType = 5;
constexpr uint8_t kQualifierDescriptorType = 6;
constexpr uint8_t kBosDescriptorType = 0x0F;
constexpr uint8_t kDeviceCapabilityType = 0x10;
constexpr uint8_t kPlatformCapability = 0x05;
constexpr uint8_t kDeviceDescriptorLength = 18;
constexpr uint8_t kConfigDescriptorLength = 9;
constexpr uint8_t kInterfaceDescriptorLength = 9;
constexpr uint8_t kEndpointDescriptorLength = 7;
constexpr uint8_t kQualifierDescriptorLength = 10;
constexpr uint8_t kBosHeaderLength = 5;
constexpr uint8_t kPlatformCapabilityLength = 28;
// 2.01: the version from which hosts read the BOS descriptor.
constexpr uint16_t kUsbRelease = 0x0201;
constexpr uint16_t kDeviceRelease = 0x0100;
constexpr uint8_t kControlPacketSize = 64;
constexpr uint8_t kBusPowered = 0x80;
constexpr uint8_t kMaxPowerIn2mA = 50;
constexpr uint8_t kVendorSpecificClass = 0xFF;
constexpr uint8_t kBulkTransferType = 2;
constexpr uint16_t kFullSpeedBulkPacket = 64;
constexpr uint16_t kHighSpeedBulkPacket = 512;

// String indexes of the device descriptor.
constexpr uint8_t kManufacturerIndex = 1;
constexpr uint8_t kProductIndex = 2;
constexpr uint8_t kSerialIndex = 3;
constexpr uint16_t kEnglishUs = 0x0409;
constexpr std::string_view kStrings[] = {"", "ferrolt", "ferrolt-devsim emulated device"};

// Microsoft OS 2.0 descriptors, as Microsoft documents them for WinUSB devices:
// the platform capability UUID D8DD60DF-4589-4CC7-9CD2-659D9E648A9F
// as its bytes go on the wire, Windows 8.1 as the least version, and the
// descriptor set's parts.
constexpr uint8_t kMsOs20Uuid[16] = {0xDF, 0x60, 0xDD, 0xD8, 0x89, 0x45, 0xC7, 0x4C,
                                     0x9C, 0xD2, 0x65, 0x9D, 0x9E, 0x64, 0x8A, 0x9F};
constexpr uint32_t kWindows81 = 0x06030000;
constexpr uint16_t kSetHeader = 0, kConfigurationSubset = 1, kFunctionSubset = 2, kCompatibleId = 3,
                   kRegistryProperty = 4;
constexpr uint16_t kSetHeaderLength = 10, kSubsetHeaderLength = 8, kCompatibleIdLength = 20;
constexpr uint16_t kMultiStringType = 7;
constexpr std::u16string_view kInterfaceGuidsName = u"DeviceInterfaceGUIDs";
// The device interface class registered for the bulk interface: the Windows
// build lists the interfaces of whatever class is registered there.
constexpr std::u16string_view kInterfaceGuid = u"{6D6E3C0B-5A0E-4F53-9C1B-2E8F3A6D1F47}";

// UTF-16LE text, then as many zero characters as terminators says.
void AppendUtf16(std::vector<uint8_t>& bytes, std::u16string_view text, int terminators) {
  for (const char16_t unit : text) AppendU16(bytes, static_cast<uint16_t>(unit));
  for (int i = 0; i < terminators; ++i) AppendU16(bytes, 0);
}

void AppendEndpoint(uint8_t address, uint16_t packetSize, std::vector<uint8_t>& bytes) {
  bytes.insert(bytes.end(), {kEndpointDescriptorLength, kEndpointDescriptorType, address, kBulkTransferType});
  AppendU16(bytes, packetSize);
  bytes.push_back(0);
}

void AppendInterfaces(const UsbDeviceModel& model, std::vector<uint8_t>& bytes) {
  for (uint8_t number = 0; number < model.interfaceCount; ++number) {
    const bool bulk = number == model.bulkInterface && model.bulkEndpoints;
    const uint8_t endpoints = bulk ? 2 : 0;
    bytes.insert(bytes.end(), {kInterfaceDescriptorLength, kInterfaceDescriptorType, number, 0, endpoints,
                               kVendorSpecificClass, 0, 0, 0});
    if (!bulk) continue;
    AppendEndpoint(model.bulkOutEndpoint, BulkPacketSizeOf(model.speed), bytes);
    AppendEndpoint(model.bulkInEndpoint, BulkPacketSizeOf(model.speed), bytes);
  }
}

// Writes the length of what was appended since start at offset within it.
void PatchLength(std::vector<uint8_t>& bytes, size_t start, size_t offset) {
  const auto length = static_cast<uint16_t>(bytes.size() - start);
  bytes[start + offset] = static_cast<uint8_t>(length & 0xFF);
  bytes[start + offset + 1] = static_cast<uint8_t>(length >> 8);
}

}  // namespace

uint16_t BulkPacketSizeOf(UsbSpeed speed) {
  return speed == UsbSpeed::High ? kHighSpeedBulkPacket : kFullSpeedBulkPacket;
}

std::vector<uint8_t> DeviceDescriptorOf(const UsbDeviceModel& model) {
  std::vector<uint8_t> bytes = {kDeviceDescriptorLength, kDeviceDescriptorType};
  AppendU16(bytes, kUsbRelease);
  bytes.insert(bytes.end(), {0, 0, 0, kControlPacketSize});
  AppendU16(bytes, model.vendorId);
  AppendU16(bytes, model.productId);
  AppendU16(bytes, kDeviceRelease);
  bytes.insert(bytes.end(), {kManufacturerIndex, kProductIndex, kSerialIndex, 1});
  return bytes;
}

std::vector<uint8_t> ConfigDescriptorOf(const UsbDeviceModel& model) {
  std::vector<uint8_t> bytes = {kConfigDescriptorLength, kConfigDescriptorType, 0, 0,
                                model.interfaceCount,    kConfigurationValue,   0, kBusPowered,
                                kMaxPowerIn2mA};
  AppendInterfaces(model, bytes);
  PatchLength(bytes, 0, 2);
  return bytes;
}

std::vector<uint8_t> DescriptorsOf(const UsbDeviceModel& model) {
  std::vector<uint8_t> bytes = DeviceDescriptorOf(model);
  const std::vector<uint8_t> config = ConfigDescriptorOf(model);
  bytes.insert(bytes.end(), config.begin(), config.end());
  return bytes;
}

std::optional<std::vector<uint8_t>> StringDescriptorOf(const UsbDeviceModel& model, uint8_t index) {
  if (index > kSerialIndex) return std::nullopt;
  std::vector<uint8_t> bytes = {0, kStringDescriptorType};
  if (index == 0) {
    AppendU16(bytes, kEnglishUs);
  } else {
    const std::string_view text = index == kSerialIndex ? std::string_view(model.serial) : kStrings[index];
    for (const char c : text) AppendU16(bytes, static_cast<uint8_t>(c));
  }
  bytes[0] = static_cast<uint8_t>(bytes.size());
  return bytes;
}

std::optional<std::vector<uint8_t>> DeviceQualifierOf(const UsbDeviceModel& model) {
  if (model.speed != UsbSpeed::High) return std::nullopt;
  std::vector<uint8_t> bytes = {kQualifierDescriptorLength, kQualifierDescriptorType};
  AppendU16(bytes, kUsbRelease);
  bytes.insert(bytes.end(), {0, 0, 0, kControlPacketSize, 1, 0});
  return bytes;
}

std::vector<uint8_t> BosDescriptorOf(const UsbDeviceModel& model) {
  std::vector<uint8_t> bytes = {kBosHeaderLength, kBosDescriptorType, 0, 0, 1};
  bytes.insert(bytes.end(), {kPlatformCapabilityLength, kDeviceCapabilityType, kPlatformCapability, 0});
  bytes.insert(bytes.end(), std::begin(kMsOs20Uuid), std::end(kMsOs20Uuid));
  AppendU32(bytes, kWindows81);
  AppendU16(bytes, static_cast<uint16_t>(MsOs20DescriptorSetOf(model).size()));
  bytes.insert(bytes.end(), {kMsOsVendorCode, 0});
  PatchLength(bytes, 0, 2);
  return bytes;
}

std::vector<uint8_t> MsOs20DescriptorSetOf(const UsbDeviceModel& model) {
  std::vector<uint8_t> bytes;
  AppendU16(bytes, kSetHeaderLength);
  AppendU16(bytes, kSetHeader);
  AppendU32(bytes, kWindows81);
  AppendU16(bytes, 0);  // wTotalLength, patched below
  // The subset of the first configuration (an index, not its value).
  const size_t configuration = bytes.size();
  AppendU16(bytes, kSubsetHeaderLength);
  AppendU16(bytes, kConfigurationSubset);
  bytes.insert(bytes.end(), {0, 0, 0, 0});
  const size_t function = bytes.size();
  AppendU16(bytes, kSubsetHeaderLength);
  AppendU16(bytes, kFunctionSubset);
  bytes.insert(bytes.end(), {model.bulkInterface, 0, 0, 0});
  AppendU16(bytes, kCompatibleIdLength);
  AppendU16(bytes, kCompatibleId);
  for (const char c : std::string_view("WINUSB\0\0\0\0\0\0\0\0\0\0", 16)) bytes.push_back(static_cast<uint8_t>(c));
  const size_t property = bytes.size();
  AppendU16(bytes, 0);  // wLength, patched below
  AppendU16(bytes, kRegistryProperty);
  AppendU16(bytes, kMultiStringType);
  AppendU16(bytes, static_cast<uint16_t>((kInterfaceGuidsName.size() + 1) * 2));
  AppendUtf16(bytes, kInterfaceGuidsName, 1);
  // REG_MULTI_SZ: one string, then the empty string that ends the list.
  AppendU16(bytes, static_cast<uint16_t>((kInterfaceGuid.size() + 2) * 2));
  AppendUtf16(bytes, kInterfaceGuid, 2);
  PatchLength(bytes, property, 0);
  PatchLength(bytes, function, 6);
  PatchLength(bytes, configuration, 6);
  PatchLength(bytes, 0, 8);
  return bytes;
}

}  // namespace ferrolt::capture
