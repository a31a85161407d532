// The captures of FERROLT_TRACE and ferrolt-devsim --trace, decoded by the
// Wireshark dissector in tshark: each scenario's blocks by type, number, CRC
// verdict and text, the OUT blocks exactly those the device received, and
// every transfer ended once. And the dissector on captures of a real device
// made with Linux's usbmon and Windows' USBPcap, which hold no descriptors.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "capture/LittleEndian.h"
#include "capture/Pcapng.h"
#include "capture/UsbmonEvent.h"
#include "devsim/DevicePackets.h"
#include "tests/e2e/FrontEndRuns.h"

namespace ferrolt::test {
namespace {

// What tshark shows of each packet, and where in its line.
const std::vector<std::string> kFields = {"usb.urb_id",      "usb.urb_type",   "usb.endpoint_address", "usb.urb_status",
                                          "ferrolt.type",    "ferrolt.number", "ferrolt.crc.status",   "ferrolt.text",
                                          "ferrolt.rawtext", "usb.data_len"};
enum Column { kId, kUrbType, kEndpoint, kStatus, kType, kNumber, kCrc, kText, kRawText, kDataLength };
using Row = std::vector<std::string>;
// Between the occurrences of a field in a transfer of several blocks: a
// character no text of ours holds (tshark's default, a comma, some do).
constexpr char kOccurrences = '\x1f';

constexpr const char* kTypeNames[] = {"",         "Upgrade", "Version", "Logs", "Cli", "Upload",
                                      "Download", "Cancel",  "Ort",     "",     "Nack"};

// Each packet of the capture as tshark shows the fields.
std::vector<Row> Decode(const fs::path& capture) {
  ProcessOptions options;
  options.args = {"-X", std::string("lua_script:") + FERROLT_DISSECTOR, "-r", capture.string(), "-T", "fields",
                  "-E", std::string("aggregator=") + kOccurrences};
  for (const std::string& field : kFields) options.args.insert(options.args.end(), {"-e", field});
  std::vector<Row> rows;
  std::istringstream lines(RunProcess("tshark", options).out);
  for (std::string line; std::getline(lines, line);) {
    Row row;
    std::istringstream cells(line);
    for (std::string cell; std::getline(cells, cell, '\t');) row.push_back(cell);
    row.resize(kFields.size());
    rows.push_back(row);
  }
  return rows;
}

// A block as "Type NUMBER [bad]" or as its quoted raw text.
std::string KeyOf(const Row& row) {
  if (!row[kRawText].empty()) return '"' + row[kRawText] + '"';
  return row[kType] + " " + row[kNumber] + (row[kCrc] == "bad" ? " bad" : "");
}
std::string KeyOf(const Block& block) {
  const uint8_t type = devsim::TypeOf(block);
  if (type >= std::size(kTypeNames) || *kTypeNames[type] == '\0') return '"' + devsim::RawText(block) + '"';
  return std::string(kTypeNames[type]) + " " + std::to_string(devsim::NumberOf(block)) +
         (devsim::CrcMatches(block) ? "" : " bad");
}
// The key, and the text of a command or reply (number 0).
std::string LineOf(const Row& row) {
  return KeyOf(row) + (row[kNumber] == "0" && !row[kText].empty() ? " \"" + row[kText] + '"' : "");
}

// The occurrences of a field in a transfer's row, one a block.
std::vector<std::string> Occurrences(const std::string& cell) {
  std::vector<std::string> cells;
  std::istringstream in(cell);
  for (std::string one; std::getline(in, one, kOccurrences);) cells.push_back(one);
  return cells;
}

// A transfer's row as one row a block. A text belongs to a block only
// where the transfer holds one: which blocks of several have one, the
// fields do not say (Texts has them all).
std::vector<Row> BlockRows(const Row& row) {
  const std::vector<std::string> types = Occurrences(row[kType]);
  if (types.size() < 2) return {row};
  const std::vector<std::string> numbers = Occurrences(row[kNumber]), crcs = Occurrences(row[kCrc]);
  std::vector<Row> blocks;
  for (size_t i = 0; i < types.size() && i < numbers.size() && i < crcs.size(); ++i) {
    Row block = row;
    block[kType] = types[i], block[kNumber] = numbers[i], block[kCrc] = crcs[i], block[kText].clear();
    blocks.push_back(block);
  }
  return blocks;
}

bool IsOneWay(const Row& row, bool in) {
  return (!row[kType].empty() || !row[kRawText].empty()) && (row[kEndpoint] == "0x81") == in;
}

// The blocks that went one way: OUT in submissions, IN in callbacks.
std::vector<std::string> Blocks(const std::vector<Row>& rows, bool in, std::string (*show)(const Row&)) {
  std::vector<std::string> blocks;
  for (const Row& row : rows) {
    if (!IsOneWay(row, in)) continue;
    for (const Row& block : BlockRows(row)) blocks.push_back(show(block));
  }
  return blocks;
}

// The texts of the blocks that went one way, in order.
std::vector<std::string> Texts(const std::vector<Row>& rows, bool in) {
  std::vector<std::string> texts;
  for (const Row& row : rows) {
    if (!IsOneWay(row, in)) continue;
    for (const std::string& text : Occurrences(row[kText])) texts.push_back(text);
  }
  return texts;
}

// The keys and the texts of LineOf's lines, apart.
std::vector<std::string> KeysOf(const std::vector<std::string>& lines) {
  std::vector<std::string> keys;
  for (const std::string& line : lines) keys.push_back(line.substr(0, line.find(" \"")));
  return keys;
}
std::vector<std::string> TextsOf(const std::vector<std::string>& lines) {
  std::vector<std::string> texts;
  for (const std::string& line : lines) {
    const size_t quote = line.find(" \"");
    if (quote != std::string::npos) texts.push_back(line.substr(quote + 2, line.size() - quote - 3));
  }
  return texts;
}

// The last count lines (all of them when there are fewer).
std::vector<std::string> Last(const std::vector<std::string>& lines, size_t count) {
  return {lines.end() - static_cast<std::ptrdiff_t>(std::min(count, lines.size())), lines.end()};
}

// Each submission's id has exactly one end ('C', or 'E' for a refused one):
// done (0), or, for a read still queued when the link closed, -ENOENT.
void ExpectEveryTransferEndedOnce(const std::vector<Row>& rows) {
  std::map<std::string, std::pair<int, int>> counts;  // submissions, ends
  for (const Row& row : rows) {
    const bool submission = row[kUrbType] == "'S'";
    (submission ? counts[row[kId]].first : counts[row[kId]].second)++;
    if (!submission) {
      EXPECT_EQ(row[kStatus], row[kEndpoint] == "0x81" && row[kType].empty() ? "-2" : "0");
    }
  }
  ASSERT_FALSE(counts.empty());
  for (const auto& [id, count] : counts) EXPECT_EQ(count, std::make_pair(1, 1)) << "URB " << id;
}

struct CaptureRun {
  std::string name;
  std::vector<std::string> faults;
  std::vector<std::string> before;  // a run before the traced one (startcli)
  std::vector<std::string> args;
  bool cancel;                                 // Ctrl+Break once the upgrade shows progress
  std::vector<std::string> outIncludes;        // lines among the OUT blocks
  std::optional<std::vector<std::string>> in;  // the IN blocks, all of them
  bool severalBlocksInARead;                   // over USB, one read brings several (they are ready at once)
};

std::ostream& operator<<(std::ostream& out, const CaptureRun& run) { return out << run.name; }

// 1000 packets, the last of 23 bytes: the refusals of packets 3 and 9 come
// long before the last packet is written, whatever the machine's load.
constexpr size_t kBundleSize = 57 * 999 + 23;
constexpr size_t kSlowBundleSize = 57 * 2000;
constexpr size_t kFileSize = 300;  // 6 packets

const CaptureRun kRuns[] = {
    {"UpgradeWithRefusals",
     {"nack=3,9"},
     {},
     {"upgrade", "bundle.img"},
     false,
     {"\"Starting Upgrade 56966 1000\"", "Upgrade 999", "Upgrade 0 \"Ending Upgrade\""},
     std::vector<std::string>{"Nack 3", "Nack 9", "Upgrade 0 \"Upgrade complete, ending update\""},
     false},
    {"DownloadWithABadReply",
     {"corrupt-reply-crc=2"},
     {},
     {"download", "/tmp/file.bin", "file.bin"},
     false,
     {"Download 0 \"Starting download /tmp/file.bin\""},
     std::vector<std::string>{"Download 0 \"starting download 300 6\"", "Download 0", "Download 1", "Download 2 bad",
                              "Download 3", "Download 4", "Download 5", "Download 0 \"ending download\""},
     true},
    {"CliCommand",
     {},
     {"startcli"},
     {"cmd", "echo hi"},
     false,
     {"Cli 0 \"echo hi\""},
     std::vector<std::string>{"Cli 0 \"hi\\n\"", "Cli 0 \"ending testdata\""},
     false},
    {"CancelledUpgrade", {"delay-writes=5"}, {}, {"upgrade", "slow.img"}, true, {"Cancel 0 \"Cancel\""}, {}, false},
};

// Given a run of the built tool against the device with FERROLT_TRACE set,
// the tool's capture and the device's show the exchange the scenario made.
class CaptureTest : public testing::TestWithParam<CaptureRun> {
 protected:
  TempDir dir_;
};

TEST_P(CaptureTest, ShowsTheBlocksBothWays) {
  if (const std::string why = WhyNoTreeDissector(); !why.empty()) GTEST_SKIP() << why;
  const CaptureRun& run = GetParam();
  WriteFile(dir_ / "bundle.img", RandomBytes(kBundleSize, 5));
  WriteFile(dir_ / "slow.img", RandomBytes(kSlowBundleSize, 6));
  fs::create_directories(dir_ / "device" / "tmp");
  WriteFile(dir_ / "device" / "tmp" / "file.bin", RandomBytes(kFileSize, 7));
  std::vector<std::string> devsimArgs = {"--trace", (dir_ / "device.pcapng").string()};
  for (const std::string& fault : run.faults) devsimArgs.insert(devsimArgs.end(), {"--fault", fault});
  auto device = StartDevice(devsimArgs, dir_ / "device");
  ASSERT_TRUE(device->Running());
  if (!run.before.empty()) RunFerrolt(run.before, *device, dir_.Path());
  const size_t earlier = device->Received().size();

  setenv("FERROLT_TRACE", (dir_ / "tool.pcapng").c_str(), 1);
  auto tool = StartFerrolt(run.args, *device, dir_.Path());
  unsetenv("FERROLT_TRACE");
  if (run.cancel) {
    ASSERT_TRUE(tool->WaitForOutput("Progress: ", kRunLimit));
    tool->Signal(SIGQUIT);
  }
  EXPECT_EQ(tool->Wait(kRunLimit).exitStatus, 0);
  std::vector<std::string> received;
  const std::vector<Block> blocks = device->Received();
  for (auto block = blocks.begin() + static_cast<std::ptrdiff_t>(earlier); block != blocks.end(); ++block)
    received.push_back(KeyOf(*block));
  device.reset();  // the device's capture is written out as it ends

  const auto tool_rows = Decode(dir_ / "tool.pcapng");
  const auto device_rows = Decode(dir_ / "device.pcapng");
  ExpectEveryTransferEndedOnce(tool_rows);
  ExpectEveryTransferEndedOnce(device_rows);
  EXPECT_EQ(Blocks(tool_rows, false, KeyOf), received);
  // The device's capture holds the run before too.
  EXPECT_EQ(Last(Blocks(device_rows, false, KeyOf), received.size()), received);
  const std::vector<std::string> out = Blocks(tool_rows, false, LineOf);
  for (const std::string& line : run.outIncludes) EXPECT_NE(std::find(out.begin(), out.end(), line), out.end()) << line;
  if (SelectedTransport() == Transport::Usb && run.severalBlocksInARead) {
    // The tool's capture shows the USB transfers libusb made, a read of
    // whole packets bringing as many blocks as the device had ready.
    const bool several = std::any_of(tool_rows.begin(), tool_rows.end(), [](const Row& row) {
      const size_t blocks = BlockRows(row).size();
      return IsOneWay(row, true) && blocks > 1 && row[kDataLength] == std::to_string(blocks * sizeof(Block));
    });
    EXPECT_TRUE(several);
  }
  if (!run.in) return;
  const std::vector<std::string> texts = TextsOf(*run.in);
  EXPECT_EQ(Blocks(tool_rows, true, KeyOf), KeysOf(*run.in));
  EXPECT_EQ(Texts(tool_rows, true), texts);
  EXPECT_EQ(Last(Blocks(device_rows, true, KeyOf), run.in->size()), KeysOf(*run.in));
  EXPECT_EQ(Last(Texts(device_rows, true), texts.size()), texts);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, CaptureTest, testing::ValuesIn(kRuns),
                         [](const auto& info) { return info.param.name; });

// Given a trace file that cannot be written (a folder), standard error says
// so once and standard output is that of a run without it.
TEST(CaptureFailureTest, AnUnwritableTraceIsSaidOnceAndChangesNothing) {
  TempDir dir;
  auto device = StartDevice();
  ASSERT_TRUE(device->Running());
  const ProcessResult plain = RunFerrolt({"version"}, *device, dir.Path());
  ProcessOptions options;
  options.args = {"version"};
  options.cwd = dir.Path();
  options.env = {{"FERROLT_TRACE", dir.Path().string()}};
  const ProcessResult traced = RunFerrolt(options, *device);
  EXPECT_EQ(traced.out, plain.out);
  EXPECT_EQ(traced.exitStatus, plain.exitStatus);
  // The reason is the system's own text, and Windows' differs.
  const std::string said = "ferrolt: cannot write the capture " + dir.Path().string() + " (";
  EXPECT_EQ(traced.err.rfind(said, 0), 0u) << traced.err;
  EXPECT_EQ(CountOf(traced.err, "going on without it"), 1u) << traced.err;
  EXPECT_EQ(CountOf(traced.err, "\n"), CountOf(plain.err, "\n") + 1) << traced.err;
}

// A Linux usbmon packet (no descriptors before it) or a USBPcap one, of a
// bulk transfer on the device's endpoint.
std::vector<uint8_t> UsbmonPacket(uint8_t endpoint, const std::vector<uint8_t>& data) {
  capture::UsbmonEvent event;
  event.type = (endpoint & capture::kDirectionIn) != 0 ? capture::kCallback : capture::kSubmission;
  event.endpoint = endpoint;
  event.urbLength = event.dataLength = static_cast<uint32_t>(data.size());
  const capture::UsbmonHeader header = capture::HeaderOf(event);
  std::vector<uint8_t> packet(header.begin(), header.end());
  packet.insert(packet.end(), data.begin(), data.end());
  return packet;
}

// USBPcap's packet header (desowin.org/usbpcap/captureformat.html): its
// length, the IRP, USBD status, URB function, direction of the IRP (1: a
// completion), bus, device, endpoint, transfer type, data length.
std::vector<uint8_t> UsbPcapPacket(uint8_t endpoint, const std::vector<uint8_t>& data) {
  constexpr uint16_t kHeaderLength = 27, kBulkFunction = 0x0009;
  constexpr uint8_t kBulk = 3;
  std::vector<uint8_t> packet;
  capture::AppendU16(packet, kHeaderLength);
  capture::AppendU64(packet, 1);
  capture::AppendU32(packet, 0);
  capture::AppendU16(packet, kBulkFunction);
  packet.push_back((endpoint & capture::kDirectionIn) != 0 ? 1 : 0);
  capture::AppendU16(packet, 1);
  capture::AppendU16(packet, 2);
  packet.insert(packet.end(), {endpoint, kBulk});
  capture::AppendU32(packet, static_cast<uint32_t>(data.size()));
  packet.insert(packet.end(), data.begin(), data.end());
  return packet;
}

// A classic pcap file (the tcpdump.org file format) of packets.
void WritePcap(const fs::path& path, uint32_t linkType, const std::vector<std::vector<uint8_t>>& packets) {
  constexpr uint32_t kMagic = 0xA1B2C3D4, kSnapLength = 65535;
  constexpr uint16_t kMajor = 2, kMinor = 4;
  std::vector<uint8_t> file;
  for (const uint32_t word : {kMagic, uint32_t{kMajor} | uint32_t{kMinor} << 16, 0u, 0u, kSnapLength, linkType})
    capture::AppendU32(file, word);
  for (const auto& packet : packets) {
    for (const uint32_t word : {0u, 0u, static_cast<uint32_t>(packet.size()), static_cast<uint32_t>(packet.size())})
      capture::AppendU32(file, word);
    file.insert(file.end(), packet.begin(), packet.end());
  }
  WriteFile(path, std::string(file.begin(), file.end()));
}

std::vector<uint8_t> Bytes(std::initializer_list<Block> blocks) {
  std::vector<uint8_t> bytes;
  for (const Block& block : blocks) bytes.insert(bytes.end(), block.begin(), block.end());
  return bytes;
}

struct ForeignCapture {
  const char* name;
  uint32_t linkType;
  std::vector<uint8_t> (*packet)(uint8_t endpoint, const std::vector<uint8_t>& data);
};

// Given a capture of a real device started after it was plugged in, the
// dissector still finds its blocks, and splits a read that brought two.
TEST(ForeignCaptureTest, TheDissectorFindsTheBlocksWithoutDescriptors) {
  if (const std::string why = WhyNoTreeDissector(); !why.empty()) GTEST_SKIP() << why;
  constexpr uint32_t kLinkTypeUsbPcap = 249;
  constexpr ForeignCapture kCaptures[] = {{"usbmon", capture::kLinkTypeUsbLinuxMmapped, UsbmonPacket},
                                          {"USBPcap", kLinkTypeUsbPcap, UsbPcapPacket}};
  Block start{};
  const std::string text = "Starting Upgrade 57 1";
  std::copy(text.begin(), text.end(), start.begin());
  const uint8_t refusal = 1;
  const Block nack = devsim::MakePacket(devsim::kTypeNack, 0, &refusal, 1);
  const Block status = devsim::MakeTextPacket(devsim::kTypeUpgrade, "Upgrade complete, ending update");
  for (const ForeignCapture& foreign : kCaptures) {
    TempDir dir;
    WritePcap(dir / "real.pcap", foreign.linkType,
              {foreign.packet(0x01, Bytes({start})), foreign.packet(0x81, Bytes({nack, status}))});
    const auto rows = Decode(dir / "real.pcap");
    ASSERT_EQ(rows.size(), 2u) << foreign.name;
    EXPECT_EQ(rows[0][kRawText], text) << foreign.name;
    EXPECT_EQ(Blocks(rows, true, KeyOf), (std::vector<std::string>{"Nack 0", "Upgrade 0"})) << foreign.name;
    EXPECT_EQ(rows[1][kText], "Upgrade complete, ending update") << foreign.name;
  }
}

}  // namespace
}  // namespace ferrolt::test
