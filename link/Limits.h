// Every wait, bound and pause of the tool in one place: the link's fixed
// waits, and the bounds we put where the device protocol leaves a loop or a
// wait open.
#pragma once

#include <chrono>
#include <cstddef>

namespace ferrolt::limits {

using std::chrono::milliseconds;

// Fixed by the device protocol.
inline constexpr milliseconds kWriteWait{500};
inline constexpr milliseconds kReadWait{5};
inline constexpr milliseconds kReconnectPause{1000};
inline constexpr milliseconds kEndWait{3000};

// A blocking read gives up after this long without a block and reports a
// failed read; the caller decides whether to read again.
inline constexpr milliseconds kBlockingReadWait{1000};
// Pause after a failed read before the next one, so a removed device is not
// polled in a tight loop.
inline constexpr milliseconds kFailedReadPause{20};
// A device that sends nothing for this long ends the operation (except a CLI
// command's output, which keeps no bound).
inline constexpr milliseconds kDeviceSilenceLimit{15000};
// A CLI command's output wait, which keeps no bound while the device is
// there, ends once reads have failed (not timed out: the link or the device
// is gone) for this long.
inline constexpr milliseconds kLinkLostLimit{5000};
// Writes of one block before an operation gives up on it: the first, then
// one after each close, pause and reopen.
inline constexpr int kMaxReconnectRounds = 5;
// How often a pause between rounds looks for a cancel or the teardown.
inline constexpr milliseconds kStopPoll{20};
// Log download attempts started over after a sequence error before the
// download gives up.
inline constexpr int kMaxLogDownloadRestarts = 5;
// Failed write attempts of one upgrade data packet before the upgrade gives up.
inline constexpr int kMaxWriteRetries = 20;
// Before an upload whose reply wait ran out sends its end command, the
// time a late reply to its last packet is given to show.
inline constexpr milliseconds kLateReplyGrace{50};
// Refusals of one upload data packet before the upload gives up.
inline constexpr int kMaxUploadRefusals = 20;
// After the last upgrade packet's write has completed, how long a refusal
// of an earlier packet is waited for before the end packet goes out.
inline constexpr milliseconds kLateNackGrace{100};
// The upgrade's wait for the device's closing status text.
inline constexpr milliseconds kUpgradeEndReportWait{60000};
// How often that wait looks at the reader and at a cancel.
inline constexpr milliseconds kUpgradeEndReportPoll{5};
// How long a write whose wait ran out may take to end once withdrawn.
inline constexpr milliseconds kWithdrawWait{1000};
// After opening, blocks the device queued for an earlier link are read and
// dropped until a read of this long brings nothing; a device that keeps
// streaming is given up on after the limit, and the operation goes ahead.
inline constexpr milliseconds kStaleBlockWait{20};
inline constexpr milliseconds kStaleDrainLimit{2000};
// Transfers kept in flight at once: upgrade data packets, and IN reads
// queued on the link. Each completion costs the host an interrupt and a
// thread hand-off; with this many queued the bus, not that round trip, sets
// the pace, and a device never waits for the host to ask for its next block.
// Over the emulator link a raw pump moved 23,000 blocks/s with one in
// flight, 150,000 with 8, 240,000-280,000 with 16 and 410,000-450,000 with
// 32 (64 added a third more); the figures we have through a real kernel's
// USB stack are 11,000 blocks/s with one, 23,000 with 8 and 32,000 with 32.
// 32 keeps what a refusal costs small: at most 31 packets drained and sent
// again. A build made to compare against sets another number for both with
// the FERROLT_TRANSFERS_IN_FLIGHT CMake variable.
#ifndef FERROLT_TRANSFERS_IN_FLIGHT
#define FERROLT_TRANSFERS_IN_FLIGHT 32
#endif
inline constexpr size_t kUpgradeWriteWindow = FERROLT_TRANSFERS_IN_FLIGHT;
inline constexpr size_t kReadsQueued = FERROLT_TRANSFERS_IN_FLIGHT;
// Standard output to a file or a pipe is flushed at most this long after a
// line: nobody reads it line by line, and a download prints one a block.
inline constexpr milliseconds kOutputFlushPeriod{100};
// How long process teardown waits for running tasks after closing the link.
inline constexpr milliseconds kTeardownWait{1000};

}  // namespace ferrolt::limits
