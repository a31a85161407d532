// ferrolt-devsim on the emulator link, with the tool's own emulator backend
// as its host: the hello it announces and how the backend lists and opens
// the device from it, frames both ways, link faults, one host at a time; and
// the program itself, its endpoints, signals and command line.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <cstring>

#include "devsim/DevicePackets.h"
#include "platform/emulator/EmulatorBackend.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::devsim {
namespace {

using namespace std::chrono_literals;
using ferrolt::test::DevsimEndpoint;
using ferrolt::test::DevsimServer;
using ferrolt::test::ProcessOptions;
using ferrolt::test::Subprocess;
using ferrolt::test::TempDir;

constexpr auto kReplyWait = 2000ms;
constexpr uint8_t kOutPipe = 0x01;
constexpr uint8_t kInPipe = 0x81;
constexpr const char* kDefaultPath =
    "\\\\?\\USB#VID_1209&PID_0001&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}";

std::unique_ptr<DevsimServer> Start(std::vector<std::string> args = {},
                                    DevsimEndpoint endpoint = DevsimEndpoint::UnixSocket) {
  auto server = std::make_unique<DevsimServer>(std::move(args), std::filesystem::path{}, endpoint);
  EXPECT_TRUE(server->Running());
  return server;
}

// A host that has listed the device and opened the path listed first.
struct Host {
  explicit Host(const DevsimServer& server) : backend(platform::CreateEmulatorBackend(server.Endpoint())) {
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

// The first bytes a host connecting to the Unix socket gets.
std::string Greeting(const std::string& socketPath) {
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  std::string bytes(8, '\0');
  const timeval limit{2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  const ssize_t got = connected ? recv(fd, bytes.data(), bytes.size(), MSG_WAITALL) : 0;
  close(fd);
  bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return bytes;
}

// Given the default hello, a host gets its bytes; given chosen ids, the
// backend, connecting afresh for each listing, lists one path made from
// them, opens it in any letter case, hands its connection over once, and
// opening shows the speed; state 3 fails driver initialisation and state 4
// the pipe query.
TEST(DevsimLink, TheHelloDecidesTheListedPathAndHowOpeningGoes) {
  auto plain = Start();
  EXPECT_EQ(Greeting(plain->Endpoint()), std::string("H\x09\x12\x01\x00\x04\x03\x00", 8));

  auto chosen = Start({"--vendor-id", "0xBEEF", "--product-id", "2571", "--interface", "2", "--speed", "2"});
  auto backend = platform::CreateEmulatorBackend(chosen->Endpoint());
  EXPECT_EQ(backend->Open(kDefaultPath), nullptr);
  backend->ListInterfaces();
  const platform::InterfaceListing listing = backend->ListInterfaces();
  EXPECT_EQ(ferrolt::test::CountOf(chosen->Events(), "link opened"), 2u);  // each listing connects afresh
  EXPECT_TRUE(listing.listed);
  EXPECT_EQ(listing.lastError, platform::kErrorNoMoreItems);
  const std::string path = "\\\\?\\USB#VID_BEEF&PID_0A0B&MI_02#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}";
  ASSERT_EQ(listing.paths, std::vector<std::string>{path});
  EXPECT_EQ(backend->Open("\\\\?\\USB#VID_BEEF&PID_0A0B&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}"),
            nullptr);
  std::string lowered = path;
  for (char& c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  auto connection = backend->Open(lowered);
  ASSERT_NE(connection, nullptr);
  EXPECT_TRUE(connection->Initialize());
  uint8_t speed = 0;
  uint32_t error = 0;
  ASSERT_TRUE(connection->QueryDeviceSpeed(speed, error));
  EXPECT_EQ(speed, platform::kSpeedFull);
  EXPECT_EQ(backend->Open(path), nullptr);

  auto noDriver = Start({"--state", "3"});
  Host first(*noDriver);
  ASSERT_NE(first.connection, nullptr);
  EXPECT_FALSE(first.connection->Initialize());
  auto noEndpoints = Start({"--state", "4"});
  Host second(*noEndpoints);
  ASSERT_NE(second.connection, nullptr);
  EXPECT_TRUE(second.connection->Initialize());
  uint8_t count = 0;
  EXPECT_FALSE(second.connection->QueryInterfaceSettings(count));
}

// Over TCP as over the socket: a write completes and the reply follows as an
// IN block; the device records what it got.
TEST(DevsimLink, AWriteCompletesAndTheReplyFollowsAsAnInBlock) {
  auto server = Start({"--version", "7.7.7"}, DevsimEndpoint::Tcp);
  Host host(*server);
  ASSERT_NE(host.connection, nullptr);
  const Block request = MakeTextPacket(kTypeVersion, "Version Retrieval");
  EXPECT_TRUE(host.Write(request));
  const auto read = host.connection->StartRead(kInPipe, 64);
  ASSERT_TRUE(read->Completion().WaitFor(kReplyWait));
  Block reply{};
  ASSERT_EQ(read->CopyData(reply.data(), 64), 64u);
  EXPECT_EQ(PayloadText(reply), "7.7.7");
  EXPECT_TRUE(CrcMatches(reply));
  EXPECT_EQ(server->Received(), std::vector<Block>{request});
}

TEST(DevsimLink, DropAfterClosesTheLinkBeforeCompletingTheNthWrite) {
  auto server = Start({"--fault", "drop-after=2"});
  Host host(*server);
  ASSERT_NE(host.connection, nullptr);
  EXPECT_TRUE(host.Write(MakeTextPacket(kTypeOrt, "one")));
  EXPECT_FALSE(host.Write(MakeTextPacket(kTypeOrt, "two")));
  EXPECT_EQ(server->Received().size(), 2u);
}

// While one host holds the link, another gets no hello; once the first
// leaves, it is served.
TEST(DevsimLink, ASecondHostIsServedOnceTheFirstLeaves) {
  auto server = Start();
  auto first = std::make_unique<Host>(*server);
  ASSERT_NE(first->connection, nullptr);
  auto second = platform::CreateEmulatorBackend(server->Endpoint());
  EXPECT_TRUE(second->ListInterfaces().paths.empty());
  first.reset();
  EXPECT_EQ(second->ListInterfaces().paths.size(), 1u);
}

// Given the program itself, it listens where asked, ends cleanly on a
// signal and refuses bad command lines.
class DevsimProgram : public ::testing::Test {
 protected:
  TempDir dir_;
};

TEST_F(DevsimProgram, SaysWhereItListensAndEndsWithStatusZeroOnSigtermOrSigint) {
  const std::string socketPath = (dir_ / "device.sock").string();
  const std::vector<std::string> onSocket = {"--socket", socketPath};
  const std::vector<std::string> onFreeTcpPort = {"--tcp", "127.0.0.1:0"};
  for (const auto& [endpointArgs, signal] :
       {std::pair{onSocket, SIGTERM}, std::pair{onSocket, SIGINT}, std::pair{onFreeTcpPort, SIGTERM}}) {
    ProcessOptions options;
    options.args = endpointArgs;
    options.args.insert(options.args.end(), {"--root", (dir_ / "root").string()});
    Subprocess devsim(DEVSIM_BIN, options);
    ASSERT_TRUE(devsim.WaitForOutput("\n", 10000ms));
    const std::string line = devsim.OutSoFar();
    const std::string prefix = "ferrolt-devsim: listening on ";
    ASSERT_EQ(line.rfind(prefix, 0), 0u) << line;
    const std::string endpoint = line.substr(prefix.size(), line.size() - prefix.size() - 1);
    EXPECT_EQ(endpoint.rfind(endpointArgs == onSocket ? socketPath : "tcp:127.0.0.1:", 0), 0u) << endpoint;
    // A host attached must not hold the exit up.
    auto host = platform::CreateEmulatorBackend(endpoint);
    ASSERT_EQ(host->ListInterfaces().paths.size(), 1u);
    const auto connection = host->Open(kDefaultPath);
    ASSERT_NE(connection, nullptr);
    devsim.Signal(signal);
    const auto result = devsim.Wait(5000ms);
    EXPECT_EQ(result.exitStatus, 0) << signal;
    EXPECT_EQ(result.out, line);
    EXPECT_FALSE(std::filesystem::exists(socketPath));
  }
}

TEST_F(DevsimProgram, BadCommandLinesExitWithStatusTwoAndOneLineAndHelpWithZero) {
  const auto run = [&](const std::vector<std::string>& args) {
    ProcessOptions options;
    options.args = args;
    options.cwd = dir_.Path();
    options.timeout = 5000ms;
    return ferrolt::test::RunProcess(DEVSIM_BIN, options);
  };
  const std::vector<std::vector<std::string>> bad = {
      {"--socket", "x.sock"},                                   // no root
      {"--root", "r"},                                          // no endpoint
      {"--socket", "x.sock", "--tcp", "h:1", "--root", "r"},    // two endpoints
      {"--socket", "x.sock", "--root", "r", "--speed", "300"},  // out of range
      {"--socket", "x.sock", "--root", "r", "--frobnicate"},    // unknown
      {"--socket", "x.sock", "--root"},                         // missing value
  };
  for (const auto& args : bad) {
    const auto result = run(args);
    EXPECT_EQ(result.exitStatus, 2) << args.back();
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
  const auto help = run({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.out.find("--fault NAME"), std::string::npos) << help.out;
}

}  // namespace
}  // namespace ferrolt::devsim
