#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "devsim/DevicePackets.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::devsim {
namespace {

using namespace std::chrono_literals;
using ferrolt::test::DevsimServer;
using ferrolt::test::ProcessOptions;
using ferrolt::test::Subprocess;
using ferrolt::test::TempDir;

constexpr auto kReplyWait = 2000ms;
constexpr auto kQuietWait = 300ms;
constexpr const char* kLoopbackTcp = "tcp:127.0.0.1:";

// The host's end of the emulator link, with every wait bounded. endpoint is
// a socket path or "tcp:127.0.0.1:PORT", as the emulator names it.
class HostLink {
 public:
  explicit HostLink(const std::string& endpoint) {
    if (endpoint.rfind(kLoopbackTcp, 0) == 0) {
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(static_cast<uint16_t>(std::stoi(endpoint.substr(std::strlen(kLoopbackTcp)))));
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      Connect(AF_INET, address);
    } else {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::strncpy(address.sun_path, endpoint.c_str(), sizeof address.sun_path - 1);
      Connect(AF_UNIX, address);
    }
  }
  ~HostLink() { close(fd_); }

  bool Connected() const { return connected_; }
  void Write(const Block& block) {
    std::string frame = "W" + std::string(reinterpret_cast<const char*>(block.data()), block.size());
    ASSERT_EQ(send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
  }
  // Up to count bytes, waiting at most wait for each; fewer when the device
  // is quiet or gone.
  std::string Read(size_t count, std::chrono::milliseconds wait) {
    const timeval limit{wait.count() / 1000, static_cast<suseconds_t>(wait.count() % 1000 * 1000)};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string bytes(count, '\0');
    const ssize_t got = recv(fd_, bytes.data(), count, MSG_WAITALL);
    closed_ = got == 0;
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
  }
  bool ClosedByDevice() const { return closed_; }

 private:
  template <typename Address>
  void Connect(int family, const Address& address) {
    fd_ = socket(family, SOCK_STREAM, 0);
    connected_ = connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }

  int fd_ = -1;
  bool connected_ = false;
  bool closed_ = false;
};

std::string Hello(std::initializer_list<uint8_t> bytes) { return std::string(bytes.begin(), bytes.end()); }

std::unique_ptr<DevsimServer> Start(std::vector<std::string> args = {}) {
  auto server = std::make_unique<DevsimServer>(std::move(args));
  EXPECT_TRUE(server->Running());
  return server;
}

// Given a running emulator on a Unix socket, a host link gets the hello and
// frames as the link faults decide.
TEST(DevsimLink, HelloAnnouncesTheDefaultOrTheChosenDevice) {
  auto plain = Start();
  EXPECT_EQ(HostLink(plain->Endpoint()).Read(8, kReplyWait), Hello({'H', 0x09, 0x12, 0x01, 0x00, 4, 3, 0}));
  auto chosen =
      Start({"--vendor-id", "0x04d8", "--product-id", "258", "--interface", "2", "--speed", "1", "--state", "4"});
  EXPECT_EQ(HostLink(chosen->Endpoint()).Read(8, kReplyWait), Hello({'H', 0xd8, 0x04, 0x02, 0x01, 2, 1, 4}));
}

TEST(DevsimLink, AWriteCompletesAndTheReplyFollowsAsAnInBlock) {
  auto server = Start({"--version", "7.7.7"});
  HostLink host(server->Endpoint());
  host.Read(8, kReplyWait);
  const Block request = MakeTextPacket(kTypeVersion, "Version Retrieval");
  host.Write(request);
  const std::string frames = host.Read(1 + 65, kReplyWait);
  ASSERT_EQ(frames.size(), 66u);
  EXPECT_EQ(frames[0], 'A');
  EXPECT_EQ(frames[1], 'R');
  Block reply;
  std::memcpy(reply.data(), frames.data() + 2, 64);
  EXPECT_EQ(PayloadText(reply), "7.7.7");
  EXPECT_TRUE(CrcMatches(reply));
  const auto received = server->Received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0], request);
}

TEST(DevsimLink, DropAfterClosesTheLinkBeforeCompletingTheNthWrite) {
  auto server = Start({"--fault", "drop-after=2"});
  HostLink host(server->Endpoint());
  host.Read(8, kReplyWait);
  host.Write(MakeTextPacket(kTypeOrt, "one"));
  EXPECT_EQ(host.Read(1, kReplyWait), "A");
  host.Write(MakeTextPacket(kTypeOrt, "two"));
  EXPECT_EQ(host.Read(1, kReplyWait), "");
  EXPECT_TRUE(host.ClosedByDevice());
  EXPECT_EQ(server->Received().size(), 2u);
}

TEST(DevsimLink, ASecondHostIsServedOnceTheFirstLeaves) {
  auto server = Start();
  auto first = std::make_unique<HostLink>(server->Endpoint());
  ASSERT_EQ(first->Read(8, kReplyWait).size(), 8u);
  HostLink second(server->Endpoint());
  ASSERT_TRUE(second.Connected());
  EXPECT_EQ(second.Read(8, kQuietWait), "");
  first.reset();
  EXPECT_EQ(second.Read(8, kReplyWait).size(), 8u);
  const std::string events = server->Events();
  EXPECT_NE(events.find("link opened\nlink closed\nlink opened\n"), std::string::npos) << events;
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
    EXPECT_EQ(endpoint.rfind(endpointArgs == onSocket ? socketPath : kLoopbackTcp, 0), 0u) << endpoint;
    HostLink host(endpoint);  // a host attached must not hold the exit up
    EXPECT_EQ(host.Read(1, kReplyWait), "H");
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
      {"--usbredir", "x.sock", "--usbredir", "y.sock", "--root", "r"},  // two endpoints
      {"--usbredir", "tcp:127.0.0.1", "--root", "r"},                   // no port
      {"--usbredir", "x.sock", "--root", "r", "--speed", "7"},          // no USB speed
      {"--usbredir", "x.sock", "--root", "r", "--state", "4"},          // not a USB state
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
