// The emulator's own waits, bounds and sizes in one place.
#pragma once

#include <chrono>
#include <cstddef>

#include "devsim/Service.h"

namespace ferrolt::devsim::limits {

using std::chrono::milliseconds;
using std::chrono::seconds;

// How often the server lets the device work while a service is busy (a
// running command streaming output).
inline constexpr milliseconds kBusyPollInterval{5};
// IN blocks a streaming service lets pile up before it waits for the host.
inline constexpr size_t kMaxQueuedStreamBlocks = 8;
// A CLI command is killed after this long unless --cli-timeout says otherwise.
inline constexpr seconds kDefaultCliTimeout{10};
// How long the pause fault refuses OUT blocks unless pause-writes-for says.
inline constexpr milliseconds kDefaultWritePause{2000};
// How long a random stall (stall-writes-random) lasts unless stall-writes-for
// says: a device busy writing its flash, in milliseconds, from the shortest
// to the longest; most outlast the host's 500 ms write wait.
inline constexpr NumberRange kDefaultRandomStall{200, 1500};
// The longest wait a fault's range may name, in milliseconds.
inline constexpr long long kMaxFaultWait = 3600 * 1000;
// A host link is dropped when nothing has moved on it for this long (no
// block from the host, none to it, no command running), or when it has not
// taken what the device sent for this long, unless --idle-limit says
// otherwise. Twice the longest wait of the tool's own on an idle link (60 s
// for the upgrade's end report), so the tool never meets it.
inline constexpr seconds kDefaultIdleLimit{120};
// Connections waiting while the device serves one host link.
inline constexpr int kListenBacklog = 8;
// Bytes taken from the host's socket per read.
inline constexpr size_t kSocketReadChunk = 4096;

}  // namespace ferrolt::devsim::limits
