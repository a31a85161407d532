// The device as a USB device at the far end of a usbredir connection (the
// protocol QEMU's usb-redir device speaks: usbredir's
// usb-redirection-protocol.md). The virtual machine's host controller sends
// every transfer here; this end answers them as the device would: the
// descriptors and standard requests on endpoint 0, the Microsoft OS 2.0
// vendor request, and the bulk pair through the device logic. OUT transfers
// wait until the device takes their block, then until it reports the write
// completed; IN transfers each take one packet of the device's due blocks.
// The USB faults (a STALL, an unplug, a replug) act on the connection.
// One thread: the server's, which serves one connection at a time.
#pragma once

#include <usbredirparser.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "devsim/Device.h"
#include "devsim/UsbDeviceModel.h"
#include "devsim/UsbFaults.h"

namespace ferrolt::devsim {

class UsbredirDevice {
 public:
  UsbredirDevice(Device& device, const UsbDeviceModel& model, const UsbFaults& faults);

  // Serves the usbredir peer on connection (a connected stream socket) until
  // it leaves, the connection fails, or wakeFd turns readable.
  void Serve(int connection, int wakeFd);

 private:
  struct OutTransfer {
    uint64_t id;
    Block block;
    uint32_t length;
  };
  struct InTransfer {
    uint64_t id;
    uint32_t length;
  };
  struct AnsweredIn {
    uint64_t id;
    std::vector<Block> blocks;
  };
  using Clock = Device::Clock;

  // Callbacks of the parser (priv is this).
  static int Read(void* self, uint8_t* data, int count);
  static int Write(void* self, uint8_t* data, int count);
  static void Log(void* self, int level, const char* message);
  static void OnHello(void* self, usb_redir_hello_header* hello);
  static void OnReset(void* self);
  static void OnSetConfiguration(void* self, uint64_t id, usb_redir_set_configuration_header* header);
  static void OnGetConfiguration(void* self, uint64_t id);
  static void OnSetAltSetting(void* self, uint64_t id, usb_redir_set_alt_setting_header* header);
  static void OnGetAltSetting(void* self, uint64_t id, usb_redir_get_alt_setting_header* header);
  static void OnCancel(void* self, uint64_t id);
  static void OnControl(void* self, uint64_t id, usb_redir_control_packet_header* header, uint8_t* data, int length);
  static void OnBulk(void* self, uint64_t id, usb_redir_bulk_packet_header* header, uint8_t* data, int length);

  void Attach();
  void Unplug();
  // Where a connection ends: the device goes with it, faults or not.
  void Detach();
  bool StandardRequest(const usb_redir_control_packet_header& request, std::vector<uint8_t>& reply);
  std::optional<std::vector<uint8_t>> Descriptor(uint16_t value) const;
  void Cancel(uint64_t id);
  void AnswerBulk(uint64_t id, uint8_t endpoint, uint8_t status, const uint8_t* data, uint32_t length);
  // Lets the device's time pass and answers what it has finished with.
  void Settle();
  void AdvanceOut();
  void AnswerIn();
  int PollTimeoutMs() const;

  Device& device_;
  const UsbDeviceModel model_;
  const UsbFaults faults_;
  const uint16_t packetSize_;
  // Over the device's life, across connections.
  long long outTransfers_ = 0;
  bool outHalted_ = false;

  // The current connection.
  usbredirparser* parser_ = nullptr;
  int connection_ = -1;
  int wakeFd_ = -1;
  bool peerGone_ = false;
  bool attached_ = false;
  // After an unplug fault: when the device comes back (none: it stays out).
  std::optional<Clock::time_point> replugAt_;
  uint8_t configuration_ = 0;
  // OUT transfers whose block the device has not taken yet, in order.
  std::deque<OutTransfer> outQueue_;
  // OUT transfers the device took, awaiting its completion in order; a slot
  // the host cancelled stays empty, so a late completion still belongs to
  // the write it was meant for.
  std::deque<std::optional<OutTransfer>> awaitingCompletion_;
  std::deque<InTransfer> awaitingData_;
  // The last IN transfers answered with data: a cancel for one of them
  // crossed the answer, and the host dropped it.
  std::deque<AnsweredIn> answeredIn_;
};

}  // namespace ferrolt::devsim
