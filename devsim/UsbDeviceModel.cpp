#include "devsim/UsbDeviceModel.h"

namespace ferrolt::devsim {
namespace {

constexpr uint8_t kHelloLowSpeed = 1;
constexpr uint8_t kHelloFullSpeed = 2;
constexpr uint8_t kHelloHighSpeed = 3;

}  // namespace

bool ModelFromHello(const LinkHello& hello, UsbDeviceModel& model, std::string& error) {
  model.vendorId = hello.vendorId;
  model.productId = hello.productId;
  model.bulkInterface = hello.interfaceNumber;
  model.interfaceCount = static_cast<uint8_t>(hello.interfaceNumber + 1);
  switch (hello.speed) {
    case kHelloLowSpeed:
      model.speed = UsbSpeed::Low;
      return true;
    case kHelloFullSpeed:
      model.speed = UsbSpeed::Full;
      return true;
    case kHelloHighSpeed:
      model.speed = UsbSpeed::High;
      return true;
    default:
      error = "speed " + std::to_string(hello.speed) + " has no USB form";
      return false;
  }
}

}  // namespace ferrolt::devsim
