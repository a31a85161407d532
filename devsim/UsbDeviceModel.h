// The emulated device on a USB bus. Its model and descriptors are shared with
// the captures (capture/UsbDeviceModel.h); here they take the device's own
// names, beside the model that the emulator link's hello announces.
#pragma once

#include <string>

#include "capture/UsbDeviceModel.h"
#include "devsim/SocketServer.h"

namespace ferrolt::devsim {

using capture::BosDescriptorOf;
using capture::BulkPacketSizeOf;
using capture::ConfigDescriptorOf;
using capture::DescriptorsOf;
using capture::DeviceDescriptorOf;
using capture::DeviceQualifierOf;
using capture::kBulkInEndpoint;
using capture::kBulkOutEndpoint;
using capture::kConfigurationValue;
using capture::kMsOsVendorCode;
using capture::MsOs20DescriptorSetOf;
using capture::StringDescriptorOf;
using capture::UsbDeviceModel;
using capture::UsbSpeed;

// The ids, the bulk interface and the speed that the emulator link's hello
// announces; false, with error set, for a speed USB has no form of.
bool ModelFromHello(const LinkHello& hello, UsbDeviceModel& model, std::string& error);

}  // namespace ferrolt::devsim
