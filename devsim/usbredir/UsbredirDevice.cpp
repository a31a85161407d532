#include "devsim/usbredir/UsbredirDevice.h"

#include <poll.h>
#include <sys/socket.h>
#include <usbredirparser.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "devsim/Listener.h"

namespace ferrolt::devsim {
namespace {

constexpr const char* kVersion = "ferrolt-devsim";
constexpr size_t kBlockBytes = sizeof(Block);
// Answered IN transfers remembered for a cancel that crosses its answer. The
// host cancels only transfers still in flight, a handful at most.
constexpr size_t kAnsweredInKept = 16;
// The control endpoint's packet size, and the endpoint table's layout in the
// protocol: OUT endpoints at 0-15, IN endpoints at 16-31.
constexpr uint16_t kControlPacketSize = 64;
constexpr int kEndpointSlots = 32;
constexpr uint8_t kControlIn = 0x80;
// Standard requests (USB 2.0, 9.4) and what they are made of.
constexpr uint8_t kRequestTypeMask = 0x60, kStandardType = 0x00, kVendorType = 0x40;
constexpr uint8_t kRecipientMask = 0x1F, kRecipientEndpoint = 0x02;
constexpr uint8_t kGetStatus = 0x00, kClearFeature = 0x01, kSetFeature = 0x03, kGetDescriptor = 0x06;
constexpr uint16_t kEndpointHalt = 0;
constexpr uint8_t kDeviceType = 1, kConfigType = 2, kStringType = 3, kQualifierType = 6, kBosType = 0x0F;
// wIndex of the vendor request that reads the Microsoft OS 2.0 descriptor set.
constexpr uint16_t kMsOs20DescriptorIndex = 7;
constexpr uint8_t kVendorSpecificClass = 0xFF;

int SlotOf(uint8_t endpoint) { return ((endpoint & 0x80) >> 3) | (endpoint & 0x0F); }

uint8_t ProtocolSpeed(UsbSpeed speed) {
  switch (speed) {
    case UsbSpeed::Low:
      return usb_redir_speed_low;
    case UsbSpeed::Full:
      return usb_redir_speed_full;
    case UsbSpeed::High:
      break;
  }
  return usb_redir_speed_high;
}

UsbredirDevice& Self(void* self) { return *static_cast<UsbredirDevice*>(self); }

}  // namespace

UsbredirDevice::UsbredirDevice(Device& device, const UsbDeviceModel& model, const UsbFaults& faults)
    : device_(device), model_(model), faults_(faults), packetSize_(BulkPacketSizeOf(model.speed)) {}

void UsbredirDevice::Serve(int connection, int wakeFd) {
  connection_ = connection;
  wakeFd_ = wakeFd;
  peerGone_ = false;
  replugAt_.reset();
  parser_ = usbredirparser_create();
  if (parser_ == nullptr) return;
  parser_->priv = this;
  parser_->log_func = &UsbredirDevice::Log;
  parser_->read_func = &UsbredirDevice::Read;
  parser_->write_func = &UsbredirDevice::Write;
  parser_->hello_func = &UsbredirDevice::OnHello;
  parser_->reset_func = &UsbredirDevice::OnReset;
  parser_->set_configuration_func = &UsbredirDevice::OnSetConfiguration;
  parser_->get_configuration_func = &UsbredirDevice::OnGetConfiguration;
  parser_->set_alt_setting_func = &UsbredirDevice::OnSetAltSetting;
  parser_->get_alt_setting_func = &UsbredirDevice::OnGetAltSetting;
  parser_->cancel_data_packet_func = &UsbredirDevice::OnCancel;
  parser_->control_packet_func = &UsbredirDevice::OnControl;
  parser_->bulk_packet_func = &UsbredirDevice::OnBulk;
  uint32_t caps[USB_REDIR_CAPS_SIZE] = {};
  for (const int cap : {usb_redir_cap_connect_device_version, usb_redir_cap_ep_info_max_packet_size,
                        usb_redir_cap_64bits_ids, usb_redir_cap_32bits_bulk_length})
    usbredirparser_caps_set_cap(caps, cap);
  usbredirparser_init(parser_, kVersion, caps, USB_REDIR_CAPS_SIZE, usbredirparser_fl_usb_host);
  device_.Note("usbredir: peer connected");

  while (!peerGone_) {
    pollfd fds[2] = {{connection_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    if (usbredirparser_has_data_to_write(parser_)) fds[0].events |= POLLOUT;
    const int ready = poll(fds, 2, PollTimeoutMs());
    if (ready < 0 && errno != EINTR) break;
    if (ready > 0 && (fds[1].revents & POLLIN) != 0) break;
    if (ready > 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0 &&
        usbredirparser_do_read(parser_) == usbredirparser_read_io_error)
      break;
    if (replugAt_ && *replugAt_ <= Clock::now()) Attach();
    Settle();
    if (usbredirparser_do_write(parser_) == usbredirparser_write_io_error) break;
  }
  Detach();
  usbredirparser_destroy(parser_);
  parser_ = nullptr;
  device_.Note("usbredir: peer gone");
}

int UsbredirDevice::Read(void* self, uint8_t* data, int count) {
  UsbredirDevice& device = Self(self);
  const ssize_t got = recv(device.connection_, data, static_cast<size_t>(count), MSG_DONTWAIT);
  if (got > 0) return static_cast<int>(got);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return 0;
  device.peerGone_ = true;
  return -1;
}

int UsbredirDevice::Write(void* self, uint8_t* data, int count) {
  UsbredirDevice& device = Self(self);
  if (SendAll(device.connection_, reinterpret_cast<const char*>(data), static_cast<size_t>(count), device.wakeFd_))
    return count;
  device.peerGone_ = true;
  return -1;
}

void UsbredirDevice::Log(void* self, int level, const char* message) {
  if (level <= usbredirparser_warning) Self(self).device_.Note(std::string("usbredir: ") + message);
}

// The device is announced only once the peer's capabilities are known.
void UsbredirDevice::OnHello(void* self, usb_redir_hello_header* /*hello*/) { Self(self).Attach(); }

// A bus reset returns the device to its default state: unconfigured, no halt.
void UsbredirDevice::OnReset(void* self) {
  UsbredirDevice& device = Self(self);
  device.configuration_ = 0;
  device.outHalted_ = false;
}

void UsbredirDevice::OnSetConfiguration(void* self, uint64_t id, usb_redir_set_configuration_header* header) {
  UsbredirDevice& device = Self(self);
  const bool known = header->configuration == 0 || header->configuration == kConfigurationValue;
  if (known) device.configuration_ = header->configuration;
  usb_redir_configuration_status_header status{static_cast<uint8_t>(known ? usb_redir_success : usb_redir_stall),
                                               device.configuration_};
  usbredirparser_send_configuration_status(device.parser_, id, &status);
}

void UsbredirDevice::OnGetConfiguration(void* self, uint64_t id) {
  UsbredirDevice& device = Self(self);
  usb_redir_configuration_status_header status{usb_redir_success, device.configuration_};
  usbredirparser_send_configuration_status(device.parser_, id, &status);
}

// Every interface has the one setting 0.
void UsbredirDevice::OnSetAltSetting(void* self, uint64_t id, usb_redir_set_alt_setting_header* header) {
  UsbredirDevice& device = Self(self);
  const bool known = header->interface < device.model_.interfaceCount && header->alt == 0;
  usb_redir_alt_setting_status_header status{static_cast<uint8_t>(known ? usb_redir_success : usb_redir_stall),
                                             header->interface, 0};
  usbredirparser_send_alt_setting_status(device.parser_, id, &status);
}

void UsbredirDevice::OnGetAltSetting(void* self, uint64_t id, usb_redir_get_alt_setting_header* header) {
  UsbredirDevice& device = Self(self);
  const bool known = header->interface < device.model_.interfaceCount;
  usb_redir_alt_setting_status_header status{static_cast<uint8_t>(known ? usb_redir_success : usb_redir_inval),
                                             header->interface, 0};
  usbredirparser_send_alt_setting_status(device.parser_, id, &status);
}

void UsbredirDevice::OnCancel(void* self, uint64_t id) { Self(self).Cancel(id); }

void UsbredirDevice::OnControl(void* self, uint64_t id, usb_redir_control_packet_header* header, uint8_t* data,
                               int length) {
  UsbredirDevice& device = Self(self);
  usbredirparser_free_packet_data(device.parser_, data);
  (void)length;
  // Sent before the peer learnt of an unplug: there is no device to answer.
  if (!device.attached_) return;
  std::vector<uint8_t> reply;
  bool answered = false;
  switch (header->requesttype & kRequestTypeMask) {
    case kStandardType:
      answered = device.StandardRequest(*header, reply);
      break;
    case kVendorType:
      answered = header->request == kMsOsVendorCode && header->index == kMsOs20DescriptorIndex &&
                 (header->requesttype & kControlIn) != 0;
      if (answered) reply = MsOs20DescriptorSetOf(device.model_);
      break;
    default:
      break;
  }
  usb_redir_control_packet_header answer = *header;
  answer.status = answered ? usb_redir_success : usb_redir_stall;
  const bool in = (header->requesttype & kControlIn) != 0;
  if (!answered || !in) {
    // An OUT request's data was all taken; a refused request moved nothing.
    answer.length = answered ? header->length : 0;
    usbredirparser_send_control_packet(device.parser_, id, &answer, nullptr, 0);
    return;
  }
  reply.resize(std::min<size_t>(reply.size(), header->length));
  answer.length = static_cast<uint16_t>(reply.size());
  usbredirparser_send_control_packet(device.parser_, id, &answer, reply.data(), static_cast<int>(reply.size()));
}

bool UsbredirDevice::StandardRequest(const usb_redir_control_packet_header& request, std::vector<uint8_t>& reply) {
  const bool onEndpoint = (request.requesttype & kRecipientMask) == kRecipientEndpoint;
  const bool onOutEndpoint = onEndpoint && request.index == kBulkOutEndpoint;
  switch (request.request) {
    case kGetDescriptor:
      if (const auto descriptor = Descriptor(request.value)) {
        reply = *descriptor;
        return true;
      }
      return false;
    case kGetStatus:
      // Bus powered, no remote wake-up; an endpoint reports its halt.
      reply = {static_cast<uint8_t>(onOutEndpoint && outHalted_ ? 1 : 0), 0};
      return true;
    case kClearFeature:
      if (onOutEndpoint && request.value == kEndpointHalt && outHalted_) {
        outHalted_ = false;
        device_.Note("usbredir: halt cleared");
      }
      return true;
    case kSetFeature:
      if (onOutEndpoint && request.value == kEndpointHalt) outHalted_ = true;
      return true;
    default:
      return false;
  }
}

std::optional<std::vector<uint8_t>> UsbredirDevice::Descriptor(uint16_t value) const {
  const uint8_t index = value & 0xFF;
  switch (value >> 8) {
    case kDeviceType:
      return DeviceDescriptorOf(model_);
    case kConfigType:
      if (index == 0) return ConfigDescriptorOf(model_);
      return std::nullopt;
    case kStringType:
      return StringDescriptorOf(model_, index);
    case kQualifierType:
      return DeviceQualifierOf(model_);
    case kBosType:
      return BosDescriptorOf(model_);
    default:
      return std::nullopt;
  }
}

void UsbredirDevice::OnBulk(void* self, uint64_t id, usb_redir_bulk_packet_header* header, uint8_t* data, int length) {
  UsbredirDevice& device = Self(self);
  const uint32_t requested = header->length | (static_cast<uint32_t>(header->length_high) << 16);
  if (!device.attached_) {
    // Sent before the peer learnt of an unplug: it fails the transfer itself.
  } else if (header->endpoint == kBulkOutEndpoint) {
    OutTransfer transfer{id, {}, static_cast<uint32_t>(length)};
    if (length > 0)
      std::memcpy(transfer.block.data(), data, std::min<size_t>(static_cast<size_t>(length), kBlockBytes));
    device.outQueue_.push_back(transfer);
  } else if (header->endpoint == kBulkInEndpoint) {
    device.awaitingData_.push_back({id, requested});
  } else {
    device.AnswerBulk(id, header->endpoint, usb_redir_inval, nullptr, 0);
  }
  usbredirparser_free_packet_data(device.parser_, data);
}

void UsbredirDevice::AnswerBulk(uint64_t id, uint8_t endpoint, uint8_t status, const uint8_t* data, uint32_t length) {
  usb_redir_bulk_packet_header header{};
  header.endpoint = endpoint;
  header.status = status;
  header.length = static_cast<uint16_t>(length & 0xFFFF);
  header.length_high = static_cast<uint16_t>(length >> 16);
  // An OUT answer carries no data, only the length moved.
  const bool in = (endpoint & kControlIn) != 0;
  usbredirparser_send_bulk_packet(parser_, id, &header, in ? const_cast<uint8_t*>(data) : nullptr,
                                  in ? static_cast<int>(length) : 0);
}

// The host gives up on a transfer (a time-out, a withdrawn write): it is
// answered as cancelled. An IN transfer already answered crossed the cancel
// and the host drops that answer: its blocks go back to the device's queue,
// so no block is lost.
void UsbredirDevice::Cancel(uint64_t id) {
  const auto out = std::find_if(outQueue_.begin(), outQueue_.end(), [&](const auto& t) { return t.id == id; });
  if (out != outQueue_.end()) {
    outQueue_.erase(out);
    return AnswerBulk(id, kBulkOutEndpoint, usb_redir_cancelled, nullptr, 0);
  }
  for (auto& slot : awaitingCompletion_) {
    if (!slot || slot->id != id) continue;
    slot.reset();
    return AnswerBulk(id, kBulkOutEndpoint, usb_redir_cancelled, nullptr, 0);
  }
  const auto in = std::find_if(awaitingData_.begin(), awaitingData_.end(), [&](const auto& t) { return t.id == id; });
  if (in != awaitingData_.end()) {
    awaitingData_.erase(in);
    return AnswerBulk(id, kBulkInEndpoint, usb_redir_cancelled, nullptr, 0);
  }
  const auto answered = std::find_if(answeredIn_.begin(), answeredIn_.end(), [&](const auto& t) { return t.id == id; });
  if (answered == answeredIn_.end()) return;
  device_.ReturnInBlocks(answered->blocks);
  answeredIn_.erase(answered);
}

// The interface and endpoint descriptions go first: the peer refuses a
// device it knows nothing of.
void UsbredirDevice::Attach() {
  if (attached_ || parser_ == nullptr) return;
  replugAt_.reset();
  usb_redir_interface_info_header interfaces{};
  interfaces.interface_count = model_.interfaceCount;
  for (uint8_t number = 0; number < model_.interfaceCount; ++number) {
    interfaces.interface[number] = number;
    interfaces.interface_class[number] = kVendorSpecificClass;
  }
  usbredirparser_send_interface_info(parser_, &interfaces);
  usb_redir_ep_info_header endpoints{};
  std::fill(std::begin(endpoints.type), std::end(endpoints.type), usb_redir_type_invalid);
  for (const uint8_t control : {uint8_t{0}, kControlIn}) {
    endpoints.type[SlotOf(control)] = usb_redir_type_control;
    endpoints.max_packet_size[SlotOf(control)] = kControlPacketSize;
  }
  if (model_.bulkEndpoints) {
    for (const uint8_t bulk : {kBulkOutEndpoint, kBulkInEndpoint}) {
      endpoints.type[SlotOf(bulk)] = usb_redir_type_bulk;
      endpoints.interface[SlotOf(bulk)] = model_.bulkInterface;
      endpoints.max_packet_size[SlotOf(bulk)] = packetSize_;
    }
  }
  static_assert(sizeof endpoints.type == kEndpointSlots);
  usbredirparser_send_ep_info(parser_, &endpoints);
  const std::vector<uint8_t> descriptor = DeviceDescriptorOf(model_);
  usb_redir_device_connect_header connect{};
  connect.speed = ProtocolSpeed(model_.speed);
  connect.vendor_id = model_.vendorId;
  connect.product_id = model_.productId;
  connect.device_version_bcd = static_cast<uint16_t>(descriptor[12] | descriptor[13] << 8);
  usbredirparser_send_device_connect(parser_, &connect);
  attached_ = true;
  configuration_ = 0;
  outHalted_ = false;
  device_.OnLinkOpened();
}

// The cable is pulled: the peer fails whatever is in flight itself.
void UsbredirDevice::Unplug() {
  if (!attached_) return;
  usbredirparser_send_device_disconnect(parser_);
  Detach();
  if (faults_.replugAfter) replugAt_ = Clock::now() + *faults_.replugAfter;
  device_.Note("usbredir: unplugged");
}

void UsbredirDevice::Detach() {
  outQueue_.clear();
  awaitingCompletion_.clear();
  awaitingData_.clear();
  answeredIn_.clear();
  if (!attached_) return;
  attached_ = false;
  device_.OnLinkClosed();
}

void UsbredirDevice::Settle() {
  if (!attached_) return;
  AdvanceOut();
  if (!attached_) return;
  device_.Poll();
  if (device_.DropRequested()) return Unplug();
  for (size_t due = device_.TakeDueCompletions(); due > 0 && !awaitingCompletion_.empty(); --due) {
    const std::optional<OutTransfer> slot = awaitingCompletion_.front();
    awaitingCompletion_.pop_front();
    if (slot) AnswerBulk(slot->id, kBulkOutEndpoint, usb_redir_success, nullptr, slot->length);
  }
  AnswerIn();
}

// The OUT queue moves only while the device takes blocks; a block it refuses
// (NAKs) stays with its transfer, which the host may still cancel.
void UsbredirDevice::AdvanceOut() {
  while (attached_ && !outQueue_.empty()) {
    if (outHalted_) {
      // The device answers with STALL until the host clears the halt.
      AnswerBulk(outQueue_.front().id, kBulkOutEndpoint, usb_redir_stall, nullptr, 0);
      outQueue_.pop_front();
      continue;
    }
    if (!device_.TakesOutBlocks()) return;
    const OutTransfer transfer = outQueue_.front();
    outQueue_.pop_front();
    if (transfer.length == 0) {
      AnswerBulk(transfer.id, kBulkOutEndpoint, usb_redir_success, nullptr, 0);
      continue;
    }
    ++outTransfers_;
    if (outTransfers_ == faults_.unplugAtOut) return Unplug();
    if (outTransfers_ == faults_.stallOutAt) {
      outHalted_ = true;
      device_.Note("usbredir: OUT transfer stalled");
      AnswerBulk(transfer.id, kBulkOutEndpoint, usb_redir_stall, nullptr, 0);
      continue;
    }
    device_.OnOutBlock(transfer.block);
    awaitingCompletion_.push_back(transfer);
  }
}

// Each IN transfer takes one packet: as many of the device's due blocks as
// fit in wMaxPacketSize and in the transfer (one, for a device that sends
// block by block). A transfer too short for one block is babble (the device
// sends more than was asked).
void UsbredirDevice::AnswerIn() {
  const size_t packetBytes = faults_.blockPerPacket ? kBlockBytes : packetSize_;
  while (!awaitingData_.empty()) {
    const InTransfer transfer = awaitingData_.front();
    const size_t room = std::min<size_t>(packetBytes, transfer.length) / kBlockBytes;
    std::vector<Block> blocks;
    while (blocks.size() < std::max<size_t>(room, 1)) {
      const std::optional<Block> block = device_.PopInBlock();
      if (!block) break;
      blocks.push_back(*block);
    }
    if (blocks.empty()) return;
    awaitingData_.pop_front();
    if (room == 0) {
      AnswerBulk(transfer.id, kBulkInEndpoint, usb_redir_babble, nullptr, 0);
      continue;
    }
    std::vector<uint8_t> packet;
    for (const Block& block : blocks) packet.insert(packet.end(), block.begin(), block.end());
    AnswerBulk(transfer.id, kBulkInEndpoint, usb_redir_success, packet.data(), static_cast<uint32_t>(packet.size()));
    answeredIn_.push_back({transfer.id, std::move(blocks)});
    if (answeredIn_.size() > kAnsweredInKept) answeredIn_.pop_front();
  }
}

int UsbredirDevice::PollTimeoutMs() const {
  std::optional<std::chrono::milliseconds> wait;
  if (attached_) wait = device_.TimeUntilNeeded(!awaitingData_.empty());
  if (replugAt_) {
    const auto untilReplug =
        std::max(std::chrono::milliseconds(0), std::chrono::ceil<std::chrono::milliseconds>(*replugAt_ - Clock::now()));
    if (!wait || untilReplug < *wait) wait = untilReplug;
  }
  return wait ? static_cast<int>(wait->count()) : -1;
}

}  // namespace ferrolt::devsim
