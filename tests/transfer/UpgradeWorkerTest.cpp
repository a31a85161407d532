// The upgrade worker against the in-process fake device: what goes on the
// wire, in which order, and how the worker answers NACKs, failed writes and a
// device that never reports the end. A NACK is delivered while a chosen
// packet is written and handled by the response reader before that write
// completes, so the step that sees it is known: the first step after the
// batch of writes that packet went out in. The first batch is the first
// window's worth of packets, or the whole file when it is smaller.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "devsim/DevicePackets.h"
#include "link/Limits.h"
#include "tests/support/DeviceAdminFixture.h"

namespace ferrolt::test {
namespace {

using std::chrono::milliseconds;

constexpr uint8_t kUpgrade = 1;
constexpr uint32_t kWindow = static_cast<uint32_t>(limits::kUpgradeWriteWindow);
Block Nack(uint32_t number) { return MakeDevicePacket(10, 1, "\x01", number); }
const Block kEndPacket = MakeDevicePacket(kUpgrade, 57, "Ending Upgrade");

// A raw text block: the text from byte 0, zeros after it.
Block RawText(const std::string& text) {
  Block block{};
  std::copy(text.begin(), text.end(), block.begin());
  return block;
}

bool IsUpgradePacket(const Block& block) { return block[kTypeOffset] == static_cast<uint8_t>(PacketType::Upgrade); }
bool IsEndPacket(const Block& block) { return IsUpgradePacket(block) && PayloadText(block.data()) == "Ending Upgrade"; }

// The numbers of the data packets written, in order.
std::vector<uint32_t> DataNumbers(const std::vector<Block>& written) {
  std::vector<uint32_t> numbers;
  for (const Block& block : written)
    if (IsUpgradePacket(block) && !IsEndPacket(block)) numbers.push_back(PacketNumber(block.data()));
  return numbers;
}

// The ranges first-last one after another.
std::vector<uint32_t> Ranges(std::initializer_list<std::pair<uint32_t, uint32_t>> ranges) {
  std::vector<uint32_t> numbers;
  for (const auto& [first, last] : ranges)
    for (uint32_t n = first; n <= last; ++n) numbers.push_back(n);
  return numbers;
}

// The packet numbers the console says were gone back to.
std::vector<uint32_t> Resent(const std::string& console) {
  const std::string line = "Resending NACK packet, packet No : ";
  std::vector<uint32_t> numbers;
  for (size_t at = console.find(line); at != std::string::npos; at = console.find(line, at + 1))
    numbers.push_back(static_cast<uint32_t>(std::stoul(console.substr(at + line.size()))));
  return numbers;
}

// Given a fake device that answers the end packet with its end report, the
// upgrade worker ...
class UpgradeWorker : public RawDeviceFixture {
 protected:
  UpgradeWorker() {
    device.OnWrite([this](const Block& block) { return EndReportOn(block); });
  }

  bool EndReportOn(const Block& block) {
    if (IsEndPacket(block)) device.Send(MakeDevicePacket(kUpgrade, 57, "Upgrade complete, ending update"));
    return true;
  }

  // Runs one upgrade of the file and returns the console output.
  std::string Upgrade(const std::string& path) {
    EXPECT_EQ(admin.UpgradeBundleAsync(path, &progress, &log, false), 0);
    EXPECT_TRUE(OperationEnds(admin)) << "the upgrade did not end in time";
    return out.Text();
  }

  std::string MakeBundle(size_t size, unsigned seed = 7) {
    bytes = RandomBytes(size, seed);
    const auto path = dir / ("bundle-" + std::to_string(size));
    WriteFile(path, bytes);
    return path.string();
  }

  // Packet n of the last bundle made, as it goes on the wire.
  Block DataPacket(uint32_t n) const {
    const std::string piece = bytes.substr(n * size_t{57}, 57);
    return MakeDevicePacket(kUpgrade, static_cast<uint8_t>(piece.size()), piece, n);
  }

  // Delivers the NACKs (each handled by the reader before the write
  // completes) when data packet `at` is first written.
  void NackWhileWriting(uint32_t at, std::vector<uint32_t> numbers) {
    device.OnWrite([this, at, numbers, done = false](const Block& block) mutable {
      if (!done && IsUpgradePacket(block) && !IsEndPacket(block) && PacketNumber(block.data()) == at) {
        done = true;
        for (uint32_t n : numbers) EXPECT_TRUE(device.SendAndWaitTaken(Nack(n)));
      }
      return EndReportOn(block);
    });
  }

  TempDir dir;
  std::string bytes;
};

// (A file of two packets, console and bundle: the scenario table's UpgradeOfFiftyEightBytes.)
TEST_F(UpgradeWorker, SendsTheStartTextAndEndPacketOfAnEmptyFile) {
  EXPECT_NE(Upgrade(MakeBundle(0)).find("File Size = 0\nPacket Count = 0\n"), std::string::npos);
  EXPECT_EQ(device.Written(), (std::vector<Block>{RawText("Starting Upgrade 0 0"), kEndPacket}));
}

TEST_F(UpgradeWorker, LogsOnlyChangedPercentagesForAManyPacketFile) {
  Upgrade(MakeBundle(57 * 1000 + 5));
  EXPECT_EQ(log.CountStartingWith("Progress: "), 101u);
  EXPECT_EQ(DataNumbers(device.Written()), Ranges({{0, 1000}}));
}

// Given a file it will not send, the worker writes nothing. (One upgrade a
// fixture: the reader of an upgrade that ends this early polls on until
// Shutdown, which waits only for the last upgrade's reader.)
TEST_F(UpgradeWorker, WritesNothingWhenTheFileIsMissing) {
  // The console reporter's second pass turns the doubled sign back into one.
  Upgrade((dir / "no such 100% bundle").string());
  EXPECT_TRUE(device.Written().empty());
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"Error: Can not find specified file - " +
                                                  (dir / "no such 100%% bundle").string()});
}

TEST_F(UpgradeWorker, WritesNothingForA2GiBFile) {
  const std::string huge = MakeBundle(0);
  fs::resize_file(huge, uint64_t{2} << 30);  // sparse: no disk space used
  Upgrade(huge);
  EXPECT_TRUE(log.Has("Error: The bundle file is 2 GiB or larger, more than the device can take - " + huge));
  EXPECT_TRUE(device.Written().empty());
}

// Given a start text the device does not take, the worker stops there.
TEST_F(UpgradeWorker, StopsAtAStartTextNotTaken) {
  device.Stall(true);
  Upgrade(MakeBundle(500));
  EXPECT_TRUE(log.Has("Failed in writing 'Starting Upgrade' to device."));
  EXPECT_EQ(device.Written().size(), 1u);
}

// Packet 1 fails once and is written again; packet 2 always fails: the
// worker gives up on it after its own full retry count, before the end packet.
TEST_F(UpgradeWorker, RetriesAFailedWriteAndGivesUpOnAPacketAfterTheBound) {
  bool failedOnce = false;
  device.OnWrite([&](const Block& block) {
    const uint32_t n = IsUpgradePacket(block) ? PacketNumber(block.data()) : 0;
    if (n == 1 && !failedOnce) return !(failedOnce = true);
    return n != 2;
  });
  const std::string console = Upgrade(MakeBundle(57 * 5));
  // Writes in flight past a failed one drain and go again after it.
  const std::vector<uint32_t> written = DataNumbers(device.Written());
  EXPECT_GE(std::count(written.begin(), written.end(), 1u), 2);
  EXPECT_GE(std::count(written.begin(), written.end(), 2u), limits::kMaxWriteRetries);
  size_t retries = 0;
  for (size_t at = console.find("A write retry was detected!\n"); at != std::string::npos;
       at = console.find("A write retry was detected!\n", at + 1))
    ++retries;
  EXPECT_EQ(retries, static_cast<size_t>(limits::kMaxWriteRetries) + 1);
  EXPECT_TRUE(log.Has("Error: Packet 2 could not be written after 20 attempts. Upgrading is stopped."));
  for (const Block& block : device.Written()) EXPECT_FALSE(IsEndPacket(block));
}

// Given a NACK while a chosen packet is written, the worker goes back to the
// refused number n only at a step i with 0 <= n < i.
// The NACKs the device sends while data packet `at` is written, and the
// packets the worker then writes: it goes back to a refused number n only at
// a step i with 0 <= n < i, acts on the later of two NACKs within one step,
// and ignores a number at or beyond the packet count.
struct NackCase {
  const char* name;
  uint32_t packets;
  uint32_t at;
  std::vector<uint32_t> nacks;
  std::vector<uint32_t> written;
  std::vector<uint32_t> resent;
};

class UpgradeNacks : public UpgradeWorker, public ::testing::WithParamInterface<NackCase> {};

TEST_P(UpgradeNacks, GoesBackOnlyWhereTheRulesSay) {
  const NackCase& row = GetParam();
  NackWhileWriting(row.at, row.nacks);
  const std::string console = Upgrade(MakeBundle(kPayloadSize * row.packets, 5));
  EXPECT_EQ(DataNumbers(device.Written()), row.written);
  EXPECT_EQ(Resent(console), row.resent);
  for (uint32_t n : row.resent) EXPECT_TRUE(log.Has("Write data :" + devsim::HexOf(DataPacket(n).data(), 64)));
}

INSTANTIATE_TEST_SUITE_P(Rows, UpgradeNacks,
                         ::testing::Values(NackCase{"EarlierPacket", 20, 10, {3}, Ranges({{0, 19}, {3, 19}}), {3}},
                                           // Seen at the step of packet W (not yet sent, so left
                                           // stored) and acted on at the step after it.
                                           NackCase{"NextPacketOnceItIsPassed",
                                                    kWindow + 8,
                                                    0,
                                                    {kWindow},
                                                    Ranges({{0, kWindow}, {kWindow, kWindow + 7}}),
                                                    {kWindow}},
                                           NackCase{"BeyondTheCount", 10, 2, {10}, Ranges({{0, 9}}), {}},
                                           NackCase{
                                               "LaterOfTwoInOneStep", 10, 8, {2, 4}, Ranges({{0, 9}, {4, 9}}), {4}}),
                         [](const auto& info) { return std::string(info.param.name); });

// The percentage drops back with a rewind and is reported again.
TEST_F(UpgradeWorker, ProgressDropsBackWithARewind) {
  NackWhileWriting(10, {3});
  Upgrade(MakeBundle(kPayloadSize * 20, 5));
  const auto lines = log.Lines();
  const auto p50 = std::find(lines.begin(), lines.end(), "Progress: 50%%");
  ASSERT_NE(p50, lines.end());
  EXPECT_NE(std::find(p50, lines.end(), "Progress: 15%%"), lines.end());
}

// Given a device that never sends its end report, a cancel ends the wait at
// once, after which the one Cancel packet goes out.
TEST_F(UpgradeWorker, EndsItsWaitForTheEndReportAtOnceOnACancel) {
  device.OnWrite([](const Block&) { return true; });
  ASSERT_EQ(admin.UpgradeBundleAsync(MakeBundle(57 * 4), &progress, &log, false), 0);
  const auto deadline = std::chrono::steady_clock::now() + kOperationBound;
  while (!log.Has("Download of upgrade bundle to device has completed.") && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(milliseconds(2));
  const auto start = std::chrono::steady_clock::now();
  admin.CancelOperation(&log);
  const auto took = std::chrono::steady_clock::now() - start;
  const std::string console = out.Text();
  EXPECT_LT(took, milliseconds(2000));
  EXPECT_NE(console.find("Packet Count = 4\nUpgrading is aborted.\nCancel Operation has succeeded.\n"),
            std::string::npos);
  const auto written = device.Written();
  ASSERT_FALSE(written.empty());
  EXPECT_EQ(written.back(), MakeDevicePacket(7, 57, "Cancel"));
  EXPECT_EQ(std::count_if(written.begin(), written.end(), [](const Block& b) { return b[0] == 7; }), 1);
}

}  // namespace
}  // namespace ferrolt::test
