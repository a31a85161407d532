// Faults of the USB bus itself, beside those the device logic injects: what
// the USB fronts do to transfers, from the test that builds a front or from
// the fault plan of ferrolt-devsim's command line.
#pragma once

#include <chrono>
#include <optional>

#include "devsim/Service.h"

namespace ferrolt::devsim {

struct UsbFaults {
  // False: the vendor interface cannot be claimed (another driver holds it).
  bool claimable = true;
  // The OUT transfer with this number (1-based, counted over the device's
  // life as the device is offered their blocks) is answered with a STALL
  // handshake: the endpoint halts until the host clears the halt. 0: never.
  long long stallOutAt = 0;
  // The device is unplugged when it is offered the block of the OUT transfer
  // with this number, before it takes it. 0: never.
  long long unplugAtOut = 0;
  // How long after an unplug the device is plugged back in; none: it stays
  // out (the usbredir front; a usbdevfs test replugs it itself).
  std::optional<std::chrono::milliseconds> replugAfter;
  // After each IN packet of exactly wMaxPacketSize bytes the device sends a
  // zero-length packet, as devices do to end a transfer of whole packets.
  bool zeroLengthAfterFullPacket = false;
  // Each IN block goes out as a packet of its own (a short packet at high
  // speed, which ends the host's transfer), as from a device that writes its
  // blocks one by one; otherwise a packet holds as many due blocks as fit in
  // wMaxPacketSize.
  bool blockPerPacket = false;
};

// faults, with what the plan's stall-out, unplug-at-out, replug-after and
// block-per-packet say.
UsbFaults WithPlannedFaults(UsbFaults faults, const FaultPlan& plan);

}  // namespace ferrolt::devsim
