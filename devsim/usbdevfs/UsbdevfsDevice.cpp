#include "devsim/usbdevfs/UsbdevfsDevice.h"

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <umockdev.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

#include "devsim/DeviceLimits.h"
#include "devsim/UsbDeviceModel.h"

namespace ferrolt::devsim {
namespace {

using std::chrono::milliseconds;

// With no host link there is nothing to stream; the clock still wakes now
// and then so a stop is never missed.
constexpr milliseconds kIdleWait{100};
constexpr const char* kPlugNumberKey = "ferrolt-plug-number";
constexpr size_t kBlockBytes = sizeof(Block);
constexpr uint32_t kCapabilities = USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                   USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_ZERO_PACKET;

// Resolves the ioctl argument as a structure of size bytes in the client's
// memory; a new reference, or null.
UMockdevIoctlData* Resolve(UMockdevIoctlData* data, size_t offset, size_t size) {
  GError* error = nullptr;
  UMockdevIoctlData* resolved = umockdev_ioctl_data_resolve(data, offset, size, &error);
  if (error != nullptr) g_error_free(error);
  return resolved;
}

// The unsigned int an ioctl argument points at (an interface or endpoint number).
bool ReadNumber(UMockdevIoctlData* arg, unsigned& number) {
  UMockdevIoctlData* value = Resolve(arg, 0, sizeof(unsigned));
  if (value == nullptr) return false;
  std::memcpy(&number, value->data, sizeof number);
  g_object_unref(value);
  return true;
}

void Answer(UMockdevIoctlClient* client, int error) {
  umockdev_ioctl_client_complete(client, error == 0 ? 0 : -1, error);
}

usbdevfs_urb& UrbOf(UMockdevIoctlData* data) { return *reinterpret_cast<usbdevfs_urb*>(data->data); }

}  // namespace

// One submitted URB: it takes over the references to the local copies of its
// structure and buffer, and holds one on the client that submitted it.
struct UsbdevfsDevice::Urb {
  Urb(UMockdevIoctlClient* owner, UMockdevIoctlData* structure, UMockdevIoctlData* data)
      : client(owner), urb(structure), buffer(data) {
    g_object_ref(client);
  }
  ~Urb() {
    if (buffer != nullptr) g_object_unref(buffer);
    if (urb != nullptr) g_object_unref(urb);
    if (client != nullptr) g_object_unref(client);
  }
  Urb(Urb&& other) noexcept
      : client(std::exchange(other.client, nullptr)),
        urb(std::exchange(other.urb, nullptr)),
        buffer(std::exchange(other.buffer, nullptr)) {}
  Urb& operator=(Urb&& other) noexcept {
    std::swap(client, other.client);
    std::swap(urb, other.urb);
    std::swap(buffer, other.buffer);
    return *this;
  }

  int Length() const { return UrbOf(urb).buffer_length; }

  UMockdevIoctlClient* client;
  UMockdevIoctlData* urb;
  UMockdevIoctlData* buffer;  // null for an empty buffer
};

UsbdevfsDevice::UsbdevfsDevice(Device& device, uint8_t vendorInterface, uint16_t packetSize,
                               const UsbFaults& faults)
    : device_(device),
      vendorInterface_(vendorInterface),
      packetSize_(packetSize),
      faults_(faults),
      handler_(umockdev_ioctl_base_new()) {
  g_signal_connect(handler_, "handle-ioctl", G_CALLBACK(&UsbdevfsDevice::OnIoctl), this);
  clock_ = std::thread([this] { LetTimePass(); });
  published_.store(true, std::memory_order_release);
}

UsbdevfsDevice::~UsbdevfsDevice() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    CloseLink();
    awaitingData_.clear();
    reapable_.clear();
  }
  changed_.notify_all();
  clock_.join();
  g_signal_handlers_disconnect_by_data(handler_, this);
  g_object_unref(handler_);
}

void UsbdevfsDevice::Unplug() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    plugged_ = false;
    CutOffEveryHandle();
  }
  changed_.notify_all();
}

void UsbdevfsDevice::Plug() {
  std::lock_guard<std::mutex> lock(mutex_);
  plugged_ = true;
}

int UsbdevfsDevice::ClearedHalts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return clearedHalts_;
}

int UsbdevfsDevice::ClearedHaltsWithUrbsQueued() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return clearedHaltsWithUrbsQueued_;
}

void UsbdevfsDevice::HoldOut(bool held) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    outHeld_ = held;
    Settle();
  }
  changed_.notify_all();
}

void UsbdevfsDevice::HaltOut() {
  std::lock_guard<std::mutex> lock(mutex_);
  outHalted_ = true;
  Settle();
}

void UsbdevfsDevice::SendIn(const Block& block) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    device_.Send(block);
    Settle();
  }
  changed_.notify_all();
}

// Every ioctl is answered here: the device handles the node entirely.
int UsbdevfsDevice::OnIoctl(UMockdevIoctlBase* /*handler*/, UMockdevIoctlClient* client, void* self) {
  auto* device = static_cast<UsbdevfsDevice*>(self);
  device->published_.load(std::memory_order_acquire);
  device->HandleIoctl(client);
  return TRUE;
}

void UsbdevfsDevice::HandleIoctl(UMockdevIoctlClient* client) {
  UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
  std::lock_guard<std::mutex> lock(mutex_);
  switch (umockdev_ioctl_client_get_request(client)) {
    case USBDEVFS_GET_CAPABILITIES:
      return Capabilities(client, arg);
    case USBDEVFS_CLAIMINTERFACE:
      return Claim(client, arg, sizeof(unsigned));
    case USBDEVFS_DISCONNECT_CLAIM:
      return Claim(client, arg, sizeof(usbdevfs_disconnect_claim));
    case USBDEVFS_RELEASEINTERFACE:
      return Release(client, arg);
    case USBDEVFS_SUBMITURB:
      return Submit(client, arg);
    // libusb only ever reaps without waiting; a blocking reap is answered the same.
    case USBDEVFS_REAPURB:
    case USBDEVFS_REAPURBNDELAY:
      return Reap(client, arg);
    case USBDEVFS_DISCARDURB:
      return Discard(client, arg);
    case USBDEVFS_CLEAR_HALT:
      return ClearHalt(client, arg);
    default:
      return Answer(client, ENOTTY);
  }
}

void UsbdevfsDevice::Capabilities(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
  UMockdevIoctlData* value = Resolve(arg, 0, sizeof kCapabilities);
  if (value == nullptr) return Answer(client, EFAULT);
  std::memcpy(value->data, &kCapabilities, sizeof kCapabilities);
  g_object_unref(value);
  Answer(client, CutOff(client) ? ENODEV : 0);
}

bool UsbdevfsDevice::CutOff(UMockdevIoctlClient* client) {
  auto number = static_cast<unsigned>(reinterpret_cast<uintptr_t>(g_object_get_data(G_OBJECT(client), kPlugNumberKey)));
  if (number == 0) {
    // First seen: the handle was opened now. While unplugged it never works.
    number = plugged_ ? plugNumber_ : plugNumber_ - 1;
    g_object_set_data(G_OBJECT(client), kPlugNumberKey, reinterpret_cast<void*>(static_cast<uintptr_t>(number)));
  }
  return number != plugNumber_;
}

void UsbdevfsDevice::Claim(UMockdevIoctlClient* client, UMockdevIoctlData* arg, size_t size) {
  // Both argument forms start with the interface number.
  UMockdevIoctlData* value = Resolve(arg, 0, size);
  if (value == nullptr) return Answer(client, EFAULT);
  unsigned interface = 0;
  std::memcpy(&interface, value->data, sizeof interface);
  g_object_unref(value);
  if (CutOff(client)) return Answer(client, ENODEV);
  if (interface != vendorInterface_) return Answer(client, 0);
  if (!faults_.claimable) return Answer(client, EBUSY);
  if (linkOwner_ == client) return Answer(client, 0);
  if (linkOwner_ != nullptr && umockdev_ioctl_client_get_connected(linkOwner_)) return Answer(client, EBUSY);
  CloseLink();
  linkOwner_ = client;
  g_object_ref(linkOwner_);
  device_.OnLinkOpened();
  Answer(client, 0);
}

void UsbdevfsDevice::Release(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
  unsigned interface = 0;
  if (!ReadNumber(arg, interface)) return Answer(client, EFAULT);
  if (interface == vendorInterface_ && linkOwner_ == client) CloseLink();
  Answer(client, CutOff(client) ? ENODEV : 0);
}

void UsbdevfsDevice::Submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
  UMockdevIoctlData* structure = Resolve(arg, 0, sizeof(usbdevfs_urb));
  if (structure == nullptr) return Answer(client, EFAULT);
  const usbdevfs_urb& fields = UrbOf(structure);
  UMockdevIoctlData* buffer =
      fields.buffer_length > 0 ? Resolve(structure, offsetof(usbdevfs_urb, buffer), fields.buffer_length) : nullptr;
  Urb urb(client, structure, buffer);
  if (CutOff(client)) return Answer(client, ENODEV);
  const bool bulk = fields.type == USBDEVFS_URB_TYPE_BULK;
  if (!bulk || linkOwner_ != client || (fields.buffer_length > 0 && buffer == nullptr)) return Answer(client, EINVAL);
  if (fields.endpoint == kBulkInEndpoint) {
    awaitingData_.push_back(std::move(urb));
  } else if (fields.endpoint == kBulkOutEndpoint) {
    outQueue_.push_back(std::move(urb));
  } else {
    return Answer(client, ENOENT);
  }
  // Answered before the URB's fate unfolds: like the kernel, a submit only queues.
  Answer(client, 0);
  Settle();
  changed_.notify_all();
}

void UsbdevfsDevice::Reap(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
  const auto found = reapable_.find(client);
  if (found == reapable_.end() || found->second.empty()) {
    if (found != reapable_.end()) reapable_.erase(found);
    // Nothing to reap never waits here: libusb reaps without delay and polls again.
    return Answer(client, CutOff(client) ? ENODEV : EAGAIN);
  }
  Urb urb = std::move(found->second.front());
  found->second.pop_front();
  UMockdevIoctlData* pointer = Resolve(arg, 0, sizeof(void*));
  if (pointer == nullptr) return Answer(client, EFAULT);
  // The client learns the address of its own URB; umockdev writes the URB
  // and its buffer back into the client's memory as it answers.
  umockdev_ioctl_data_set_ptr(pointer, 0, urb.urb);
  g_object_unref(pointer);
  Answer(client, 0);
}

void UsbdevfsDevice::Discard(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
  // The argument is the URB's address itself.
  unsigned long address = 0;
  std::memcpy(&address, arg->data, std::min<size_t>(sizeof address, static_cast<size_t>(arg->data_len)));
  if (CutOff(client)) return Answer(client, ENODEV);
  // A URB that has completed is no longer pending: the kernel answers EINVAL
  // and the URB stays reapable with its data (devio.c, proc_unlinkurb).
  auto matches = [&](const Urb& urb) { return urb.client == client && urb.urb->client_addr == address; };
  // A pending URB is unlinked with usb_unlink_urb, which is asynchronous: the
  // URB ends with -ECONNRESET (-ENOENT is usb_kill_urb's, the synchronous
  // one; Documentation/driver-api/usb/error-codes.rst, and the kernel-doc of
  // usb_unlink_urb in drivers/usb/core/urb.c).
  for (UrbQueue* queue : {&outQueue_, &awaitingData_}) {
    const auto found = std::find_if(queue->begin(), queue->end(), matches);
    if (found == queue->end()) continue;
    // Withdrawn before the device took it: it never reaches the device.
    Urb urb = std::move(*found);
    queue->erase(found);
    Finish(std::move(urb), -ECONNRESET, 0);
    return Answer(client, 0);
  }
  for (auto& slot : awaitingCompletion_) {
    if (!slot || !matches(*slot)) continue;
    Urb urb = std::move(*slot);
    slot.reset();
    Finish(std::move(urb), -ECONNRESET, 0);
    return Answer(client, 0);
  }
  Answer(client, EINVAL);
}

void UsbdevfsDevice::ClearHalt(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
  unsigned endpoint = 0;
  if (!ReadNumber(arg, endpoint)) return Answer(client, EFAULT);
  if (CutOff(client)) return Answer(client, ENODEV);
  if (endpoint == kBulkOutEndpoint && outHalted_) {
    outHalted_ = false;
    outQueueStopped_ = false;
    ++clearedHalts_;
    if (!outQueue_.empty()) ++clearedHaltsWithUrbsQueued_;
  }
  Answer(client, 0);
  Settle();
}

void UsbdevfsDevice::CloseLink() {
  if (linkOwner_ == nullptr) return;
  device_.OnLinkClosed();
  g_object_unref(linkOwner_);
  linkOwner_ = nullptr;
  // URBs still queued belong to the released interface: the kernel drops them
  // and resets its side of the endpoints. The device keeps its own state: its
  // queued IN blocks and a halt stay for the next opener.
  outQueue_.clear();
  awaitingCompletion_.clear();
  awaitingData_.clear();
  outQueueStopped_ = false;
  zeroLengthOwed_ = false;
}

void UsbdevfsDevice::CutOffEveryHandle() {
  ++plugNumber_;
  for (auto& slot : awaitingCompletion_) {
    if (slot) Finish(std::move(*slot), -ESHUTDOWN, 0);
  }
  awaitingCompletion_.clear();
  for (UrbQueue* queue : {&outQueue_, &awaitingData_}) {
    while (!queue->empty()) {
      Finish(std::move(queue->front()), -ESHUTDOWN, 0);
      queue->pop_front();
    }
  }
  CloseLink();
}

void UsbdevfsDevice::Finish(Urb urb, int status, int length) {
  usbdevfs_urb& fields = UrbOf(urb.urb);
  fields.status = status;
  fields.actual_length = length;
  UMockdevIoctlClient* client = urb.client;
  reapable_[client].push_back(std::move(urb));
}

void UsbdevfsDevice::Settle() {
  AdvanceOut();
  if (linkOwner_ == nullptr) return;
  device_.Poll();
  if (device_.DropRequested()) return CutOffEveryHandle();
  for (size_t due = device_.TakeDueCompletions(); due > 0 && !awaitingCompletion_.empty(); --due) {
    std::optional<Urb> slot = std::move(awaitingCompletion_.front());
    awaitingCompletion_.pop_front();
    if (!slot) continue;
    const int length = slot->Length();
    Finish(std::move(*slot), 0, length);
  }
  AnswerIn();
}

// The OUT queue moves only while the device takes blocks; a block it refuses
// stays with its URB, which the host may still withdraw.
void UsbdevfsDevice::AdvanceOut() {
  while (linkOwner_ != nullptr && !outQueue_.empty() && !outQueueStopped_) {
    if (outHalted_) {
      // The device answers with STALL until the host clears the halt.
      Finish(std::move(outQueue_.front()), -EPIPE, 0);
      outQueue_.pop_front();
      outQueueStopped_ = true;
      return;
    }
    if (outHeld_ || !device_.TakesOutBlocks()) return;
    Urb urb = std::move(outQueue_.front());
    outQueue_.pop_front();
    ++outUrbs_;
    if (outUrbs_ == faults_.unplugAtOut) {
      awaitingCompletion_.push_back(std::move(urb));
      plugged_ = false;
      return CutOffEveryHandle();
    }
    if (outUrbs_ == faults_.stallOutAt) {
      outHalted_ = true;
      outQueueStopped_ = true;
      return Finish(std::move(urb), -EPIPE, 0);
    }
    Block block{};
    if (urb.buffer != nullptr)
      std::memcpy(block.data(), urb.buffer->data, std::min<size_t>(urb.Length(), block.size()));
    device_.OnOutBlock(block);
    awaitingCompletion_.push_back(std::move(urb));
  }
}

// Each IN URB takes one packet: as many of the device's due blocks as fit in
// wMaxPacketSize (one, for a device that sends block by block). The device does not know the URB's size; a packet larger
// than the buffer is babble, and the URB ends with -EOVERFLOW
// (Documentation/driver-api/usb/error-codes.rst).
void UsbdevfsDevice::AnswerIn() {
  const size_t blocksPerPacket = faults_.blockPerPacket ? 1 : std::max<size_t>(1, packetSize_ / kBlockBytes);
  while (!awaitingData_.empty()) {
    if (zeroLengthOwed_) {
      zeroLengthOwed_ = false;
      Finish(std::move(awaitingData_.front()), 0, 0);
      awaitingData_.pop_front();
      continue;
    }
    std::vector<uint8_t> packet;
    while (packet.size() < blocksPerPacket * kBlockBytes) {
      const std::optional<Block> block = device_.PopInBlock();
      if (!block) break;
      packet.insert(packet.end(), block->begin(), block->end());
    }
    if (packet.empty()) return;
    Urb urb = std::move(awaitingData_.front());
    awaitingData_.pop_front();
    const int size = static_cast<int>(packet.size());
    const int length = std::min(urb.Length(), size);
    if (length > 0) std::memcpy(urb.buffer->data, packet.data(), static_cast<size_t>(length));
    Finish(std::move(urb), size > length ? -EOVERFLOW : 0, length);
    zeroLengthOwed_ = faults_.zeroLengthAfterFullPacket && size == packetSize_;
  }
}

std::chrono::steady_clock::duration UsbdevfsDevice::NextWait() const {
  std::chrono::steady_clock::duration wait = kIdleWait;
  if (linkOwner_ == nullptr) return wait;
  if (device_.Busy()) wait = limits::kBusyPollInterval;
  if (const auto due = device_.NextDue()) {
    wait = std::min(wait, std::max<std::chrono::steady_clock::duration>(*due - Device::Clock::now(), {}));
  }
  return wait;
}

void UsbdevfsDevice::LetTimePass() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    Settle();
    changed_.wait_for(lock, NextWait());
  }
}

}  // namespace ferrolt::devsim
