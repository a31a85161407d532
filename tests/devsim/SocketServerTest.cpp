// ferrolt-devsim on the emulator link, with the tool's own emulator backend
// as its host: the hello it announces and how the backend lists and opens
// the device from it, a link fault, one host at a time; and the program
// itself, its endpoints, signals and command line. (Frames both ways are
// every end-to-end run's.)
#include <gtest/gtest.h>
#include <signal.h>

#include <cctype>

#include "devsim/DevicePackets.h"
#include "platform/emulator/EmulatorBackend.h"
#include "platform/emulator/SocketEndpoint.h"
#include "tests/support/ClockSlack.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::devsim {
namespace {

using namespace std::chrono_literals;
using ferrolt::test::DevsimServer;
using ferrolt::test::ProcessOptions;
using ferrolt::test::Subprocess;
using ferrolt::test::TempDir;

constexpr auto kReplyWait = 2000ms;
constexpr uint8_t kOutPipe = 0x01;
constexpr const char* kDefaultPath =
    "\\\\?\\USB#VID_1209&PID_0001&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}";

constexpr auto kQuietWait = 300ms;

// A host's raw end of the emulator link, with every wait bounded: for what
// the tool's backend never does (read the hello's bytes, stop reading).
class HostLink {
 public:
  explicit HostLink(const std::string& endpoint) {
    std::string failure;
    socket_ = platform::ConnectEndpoint(endpoint, std::chrono::steady_clock::now() + kReplyWait, failure);
  }

  void Write(const Block& block) {
    std::string frame = "W" + std::string(reinterpret_cast<const char*>(block.data()), block.size());
    ASSERT_TRUE(platform::SendAll(socket_.Get(), reinterpret_cast<const uint8_t*>(frame.data()), frame.size(),
                                  kReplyWait));
  }
  // Exactly count bytes, or none when they did not all come within wait.
  std::string Read(size_t count, std::chrono::milliseconds wait) {
    std::string bytes(count, '\0');
    const bool got = platform::ReceiveBefore(socket_.Get(), reinterpret_cast<uint8_t*>(bytes.data()), count,
                                             std::chrono::steady_clock::now() + wait);
    return got ? bytes : std::string();
  }

 private:
  platform::UniqueSocket socket_;
};

std::unique_ptr<DevsimServer> Start(std::vector<std::string> args = {}) {
  auto server = std::make_unique<DevsimServer>(std::move(args));
  EXPECT_TRUE(server->Running());
  return server;
}

// A host that has listed the device and opened the path listed first.
struct Host {
  explicit Host(const std::string& endpoint) : backend(platform::CreateEmulatorBackend(endpoint)) {
    listed = backend->ListInterfaces().paths;
    if (!listed.empty()) connection = backend->Open(listed[0]);
  }
  // Writes the block; true when its A came back.
  bool Write(const Block& block) {
    const auto write = connection->StartWrite(kOutPipe, block.data(), static_cast<uint32_t>(block.size()));
    return write != nullptr && write->Completion().WaitFor(kReplyWait) && write->Succeeded();
  }

  std::unique_ptr<platform::DeviceBackend> backend;
  std::vector<std::string> listed;
  std::unique_ptr<platform::DeviceConnection> connection;
};

struct HelloRow {
  const char* name;
  std::vector<std::string> args;
  std::string hello;  // the bytes a host reads first
  std::string path;   // the one path listed
  bool initializes;
  bool hasEndpoints;
  uint8_t speed;
};

std::string Lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

class DevsimHello : public ::testing::TestWithParam<HelloRow> {};

// Given a hello, a host gets its bytes, and the backend, connecting afresh
// for each listing, lists the one path made from it, opens it in any letter
// case and no other interface's, hands its connection over once, and opening
// goes as the hello's state says: 3 fails driver initialisation, 4 the pipe query.
TEST_P(DevsimHello, DecidesTheListedPathAndHowOpeningGoes) {
  const HelloRow& row = GetParam();
  auto server = Start(row.args);
  EXPECT_EQ(HostLink(server->Endpoint()).Read(8, kReplyWait), row.hello);
  auto backend = platform::CreateEmulatorBackend(server->Endpoint());
  backend->ListInterfaces();
  const platform::InterfaceListing listing = backend->ListInterfaces();
  EXPECT_EQ(ferrolt::test::CountOf(server->Events(), "link opened"), 3u);  // the raw host, then each listing
  EXPECT_TRUE(listing.listed);
  EXPECT_EQ(listing.lastError, platform::kErrorNoMoreItems);
  ASSERT_EQ(listing.paths, std::vector<std::string>{row.path});
  std::string otherInterface = row.path;
  otherInterface.replace(otherInterface.find("&MI_") + 4, 2, "09");
  EXPECT_EQ(backend->Open(otherInterface), nullptr);
  auto connection = backend->Open(Lowered(row.path));
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(backend->Open(row.path), nullptr);
  ASSERT_EQ(connection->Initialize(), row.initializes);
  if (!row.initializes) return;
  uint8_t count = 0;
  EXPECT_EQ(connection->QueryInterfaceSettings(count), row.hasEndpoints);
  uint8_t speed = 0;
  uint32_t error = 0;
  ASSERT_TRUE(connection->QueryDeviceSpeed(speed, error));
  EXPECT_EQ(speed, row.speed);
}

INSTANTIATE_TEST_SUITE_P(
    Hellos, DevsimHello,
    ::testing::Values(
        HelloRow{"Default", {}, std::string("H\x09\x12\x01\x00\x04\x03\x00", 8), kDefaultPath, true, true,
                 platform::kSpeedHigh},
        HelloRow{"ChosenIds",
                 {"--vendor-id", "0xBEEF", "--product-id", "2571", "--interface", "2", "--speed", "2"},
                 std::string("H\xEF\xBE\x0B\x0A\x02\x02\x00", 8),
                 "\\\\?\\USB#VID_BEEF&PID_0A0B&MI_02#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}", true, true,
                 platform::kSpeedFull},
        HelloRow{"NoDriver", {"--state", "3"}, std::string("H\x09\x12\x01\x00\x04\x03\x03", 8), kDefaultPath,
                 false, true, platform::kSpeedHigh},
        HelloRow{"NoEndpoints", {"--state", "4"}, std::string("H\x09\x12\x01\x00\x04\x03\x04", 8), kDefaultPath,
                 true, false, platform::kSpeedHigh}),
    [](const ::testing::TestParamInfo<HelloRow>& info) { return std::string(info.param.name); });

TEST(DevsimLink, DropAfterClosesTheLinkBeforeCompletingTheNthWrite) {
  auto server = Start({"--fault", "drop-after=2"});
  Host host(server->Endpoint());
  ASSERT_NE(host.connection, nullptr);
  EXPECT_TRUE(host.Write(MakeTextPacket(kTypeOrt, "one")));
  EXPECT_FALSE(host.Write(MakeTextPacket(kTypeOrt, "two")));
  EXPECT_EQ(server->Received().size(), 2u);
}

// Given the program itself, it listens where asked, ends cleanly on a
// signal and refuses bad command lines.
class DevsimProgram : public ::testing::Test {
 protected:
  TempDir dir_;
};

TEST_F(DevsimProgram, SaysWhereItListensWarnsOfWhatIsOpenAndEndsWithStatusZeroOnSigtermOrSigint) {
  const std::string socketPath = (dir_ / "device.sock").string();
  struct Row {
    std::vector<std::string> args;
    int signal;
    std::string endpoint;  // how the line names it
    std::string warning;   // the one line on stderr, if any
  };
  const Row rows[] = {
      {{"--socket", socketPath}, SIGTERM, socketPath, ""},
      {{"--socket=" + socketPath, "--host-shell"}, SIGINT, socketPath,
       "ferrolt-devsim: warning: --host-shell: CLI commands run in the host's /bin/sh as this user\n"},
      {{"--tcp", "127.0.0.1:0", "--idle-limit=5"}, SIGTERM, "tcp:127.0.0.1:", ""},
      {{"--tcp=0.0.0.0:0", "--listen-any"}, SIGTERM, "tcp:0.0.0.0:",
       "ferrolt-devsim: warning: listening on 0.0.0.0: other machines can drive the device and read its root "
       "folder\n"},
  };
  ferrolt::test::LeaveStaleSocket(socketPath);  // the first row replaces it
  for (const Row& row : rows) {
    ProcessOptions options;
    options.args = row.args;
    options.args.insert(options.args.end(), {"--root", (dir_ / "root").string()});
    Subprocess devsim(DEVSIM_BIN, options);
    ASSERT_TRUE(devsim.WaitForOutput("\n", 10000ms)) << row.args[0];
    const std::string line = devsim.OutSoFar();
    const std::string prefix = "ferrolt-devsim: listening on ";
    ASSERT_EQ(line.rfind(prefix + row.endpoint, 0), 0u) << line;
    Host host(line.substr(prefix.size(), line.size() - prefix.size() - 1));  // must not hold the exit up
    EXPECT_NE(host.connection, nullptr) << row.args[0];
    devsim.Signal(row.signal);
    const auto result = devsim.Wait(5000ms);
    EXPECT_EQ(result.exitStatus, 0) << row.args[0];
    EXPECT_EQ(result.out, line);
    EXPECT_EQ(result.err, row.warning);
    EXPECT_FALSE(std::filesystem::exists(socketPath));
  }
}

TEST_F(DevsimProgram, BadCommandLinesExitWithOneLineAndHelpWithZero) {
  const auto run = [&](const std::vector<std::string>& args) {
    ProcessOptions options;
    options.args = args;
    options.cwd = dir_.Path();
    options.timeout = 5000ms;
    return ferrolt::test::RunProcess(DEVSIM_BIN, options);
  };
  const auto live = Start();
  const std::string faults = "(faults: stall-writes, stall-writes-after=N, delay-writes=MS,";
  struct Row {
    std::vector<std::string> args;
    int status;
    std::string says;  // part of the one stderr line
  };
  const Row rows[] = {
      {{"--socket", "x.sock"}, 2, "--root DIR is required"},
      {{"--root", "r"}, 2, "give exactly one of"},
      {{"--socket", "x.sock", "--tcp", "h:1", "--root", "r"}, 2, "give exactly one of"},
      {{"--socket", "x.sock", "--root", "r", "--speed", "300"}, 2, "bad value for --speed: 300"},
      {{"--socket", "x.sock", "--root", "r", "--frobnicate"}, 2, "unknown option --frobnicate"},
      {{"--socket", "x.sock", "--root"}, 2, "--root needs a value"},
      {{"--socket", "x.sock", "--root", "r", "--verbose=1"}, 2, "--verbose takes no value"},
      {{"--socket", "x.sock", "--root", "r", "--fault", "stall-write"}, 2, "unknown fault stall-write " + faults},
      {{"--socket", "x.sock", "--root", "r", "--fault=drop-after=two"}, 2, "bad value for fault drop-after: drop-after=N"},
      {{"--socket", "x.sock", "--root", "r", "--fault", "nack=1,x"}, 2, "bad value for fault nack: nack=LIST " + faults},
      {{"--socket", "x.sock", "--root", "r", "--fault", "cli-no-end=1"}, 2, "bad value for fault cli-no-end"},
      {{"--socket", "x.sock", "--root", "r", "--fault", "upload-nack-random=100.5"}, 2,
       "bad value for fault upload-nack-random: upload-nack-random=PERCENT"},
      {{"--socket", "x.sock", "--root", "r", "--fault", "jitter-replies=20-1"}, 2,
       "bad value for fault jitter-replies: jitter-replies=MIN-MAX"},
      {{"--tcp", "0.0.0.0:0", "--root", "r"}, 2, "0.0.0.0 is not a loopback address: add --listen-any"},
      {{"--socket", "x.sock", "--root", "r", "--listen-any"}, 2, "--listen-any goes with a TCP endpoint"},
      {{"--socket", live->Endpoint(), "--root", "r"}, 1, live->Endpoint() + " is served by another program"},
      {{"--usbredir", "x.sock", "--usbredir", "y.sock", "--root", "r"}, 2, "give exactly one of"},
      {{"--usbredir", "tcp:127.0.0.1", "--root", "r"}, 2, "bad value for --usbredir: tcp:127.0.0.1"},
      {{"--usbredir", "tcp:0.0.0.0:0", "--root", "r"}, 2, "0.0.0.0 is not a loopback address"},
      {{"--usbredir", "x.sock", "--root", "r", "--speed", "7"}, 2, "speed"},
      {{"--usbredir", "x.sock", "--root", "r", "--state", "4"}, 2, "state"},
  };
  for (const Row& row : rows) {
    const auto result = run(row.args);
    EXPECT_EQ(result.exitStatus, row.status) << row.says;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(row.says), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
  EXPECT_EQ(Host(live->Endpoint()).listed.size(), 1u);  // the live one still serves
  const auto help = run({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.out.find("--fault NAME"), std::string::npos) << help.out;
}

// Given a host that holds the link without using it, or stops reading what
// the device sends, the next host gets no hello until the first is dropped
// after the idle limit.
TEST_F(DevsimProgram, AnIdleOrNonReadingHostIsDroppedAfterTheIdleLimit) {
  TempDir root;
  std::filesystem::create_directories(root / "tmp");
  ferrolt::test::WriteFile(root / "tmp/big", std::string(size_t{4} << 20, 'b'));
  const auto server = std::make_unique<DevsimServer>(std::vector<std::string>{"--idle-limit", "1"}, root.Path());
  const std::pair<bool, std::string> rows[] = {
      {false, "link: idle for 1 s, dropping it"},
      {true, "link: the host has read nothing for 1 s, dropping it"},
  };
  for (const auto& [asksForAFile, note] : rows) {
    HostLink first(server->Endpoint());
    if (asksForAFile) {
      first.Write(MakeTextPacket(kTypeDownload, "Starting download /tmp/big"));
    } else {
      ASSERT_EQ(first.Read(8, kReplyWait).size(), 8u);
    }
    const auto start = std::chrono::steady_clock::now();
    HostLink next(server->Endpoint());
    EXPECT_EQ(next.Read(8, 10000ms).size(), 8u) << note;
    EXPECT_GE(std::chrono::steady_clock::now() - start, ferrolt::test::AtLeast(500ms)) << note;
    EXPECT_NE(server->Events().find(note), std::string::npos) << server->Events();
  }
}

}  // namespace
}  // namespace ferrolt::devsim
