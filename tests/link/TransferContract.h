// The transfer contract every backend keeps under the link: a table of rows,
// each a fault on the device's side, one link call, the status it must give
// and how long it may take. Each backend's test file instantiates it with a
// peer: the device at that backend's far end, driven by the contract.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "link/DevicePacket.h"
#include "link/UsbLink.h"
#include "platform/DeviceBackend.h"

namespace ferrolt::test {

class ContractPeer {
 public:
  virtual ~ContractPeer() = default;
  virtual platform::DeviceBackend& Backend() = 0;
  // The device takes OUT blocks (and the host's writes complete) until stalled.
  virtual void Stall() = 0;
  // The writes from now on fail. False where the transport cannot fail one.
  virtual bool FailWrites() = 0;
  virtual void Send(const Block& block) = 0;
  // A packet that is no block: zero-length, or 13 bytes. False where the
  // transport carries whole blocks only.
  virtual bool SendShortPackets() = 0;
  // The device goes away.
  virtual void Unplug() = 0;
  // The OUT blocks the device has taken, once count have come (or the wait ran out).
  virtual std::vector<Block> Taken(size_t count) = 0;
};

// A block whose bytes count up from first, to tell blocks apart.
inline Block NumberedBlock(uint8_t first) {
  Block block{};
  for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(first + i);
  return block;
}

struct PeerMaker {
  const char* name;
  std::function<std::unique_ptr<ContractPeer>()> make;
};

enum class Fault {
  None,
  Stall,
  FailWrites,
  StallThenCancel,
  StallThenUnplug,
  Unplug,
  Cancel,
  ClosedLink,
  BlockWaiting,
  ShortPacketsThenBlock,
  BlockLater,
};
enum class Call { Write, Read, ReadAfterPendingRead, BlockingRead };

struct ContractRow {
  const char* name;
  Fault fault;
  Call call;
  TransferStatus status;
  std::chrono::milliseconds atLeast;
  std::chrono::milliseconds below;
};

inline void PrintTo(const PeerMaker& maker, std::ostream* os) { *os << maker.name; }
inline void PrintTo(const ContractRow& row, std::ostream* os) { *os << row.name; }

class TransferContract : public ::testing::TestWithParam<std::tuple<PeerMaker, ContractRow>> {};

std::string ContractCaseName(const ::testing::TestParamInfo<TransferContract::ParamType>& info);
extern const std::vector<ContractRow> kContractRows;

// Several transfers in flight at once: writes through a WriteWindow, reads
// through the link's queue.
class InFlightContract : public ::testing::TestWithParam<PeerMaker> {};

// Instantiates the contract for one backend's peer.
#define FERROLT_TRANSFER_CONTRACT(Backend, maker)                                                            \
  INSTANTIATE_TEST_SUITE_P(Backend, TransferContract,                                                        \
                           ::testing::Combine(::testing::Values(maker), ::testing::ValuesIn(kContractRows)), \
                           ContractCaseName);                                                                \
  INSTANTIATE_TEST_SUITE_P(Backend, InFlightContract, ::testing::Values(maker),                              \
                           [](const auto&) { return std::string("InFlight"); })

}  // namespace ferrolt::test
