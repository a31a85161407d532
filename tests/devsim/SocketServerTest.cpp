#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
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

// The host's end of the emulator link, with every wait bounded.
class HostLink {
 public:
  explicit HostLink(const std::string& socketPath) {
    fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  explicit HostLink(int port) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~HostLink() { close(fd_); }

  bool Connected() const { return connected_; }
  void Write(const Block& block) {
    std::string frame = "W" + std::string(reinterpret_cast<const char*>(block.data()), block.size());
    ASSERT_EQ(send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
  }
  // Up to count bytes, waiting at most wait; fewer when the device is quiet or gone.
  std::string Read(size_t count, std::chrono::milliseconds wait) {
    std::string bytes;
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (bytes.size() < count) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd readable{fd_, POLLIN, 0};
      if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) <= 0) break;
      char buffer[256];
      const ssize_t got = recv(fd_, buffer, std::min(sizeof buffer, count - bytes.size()), 0);
      if (got <= 0) {
        closed_ = true;
        break;
      }
      bytes.append(buffer, static_cast<size_t>(got));
    }
    return bytes;
  }
  bool ClosedByDevice() const { return closed_; }

 private:
  int fd_ = -1;
  bool connected_ = false;
  bool closed_ = false;
};

std::string Hello(std::initializer_list<uint8_t> bytes) { return std::string(bytes.begin(), bytes.end()); }

// Given a running emulator on a Unix socket, a host link gets the hello and
// frames as the link faults decide.
class DevsimLink : public ::testing::Test {
 protected:
  static std::unique_ptr<DevsimServer> Start(std::vector<std::string> args = {}) {
    auto server = std::make_unique<DevsimServer>(std::move(args));
    EXPECT_TRUE(server->Running());
    return server;
  }
};

TEST_F(DevsimLink, HelloAnnouncesTheDefaultDevice) {
  auto server = Start();
  HostLink host(server->Endpoint());
  ASSERT_TRUE(host.Connected());
  EXPECT_EQ(host.Read(8, kReplyWait), Hello({'H', 0x09, 0x12, 0x01, 0x00, 4, 3, 0}));
}

TEST_F(DevsimLink, HelloAnnouncesChosenIdsSpeedAndState) {
  auto server = Start({"--vendor-id", "0x04d8", "--product-id", "258", "--interface", "2", "--speed", "1",
                       "--state", "4"});
  HostLink host(server->Endpoint());
  EXPECT_EQ(host.Read(8, kReplyWait), Hello({'H', 0xd8, 0x04, 0x02, 0x01, 2, 1, 4}));
}

TEST_F(DevsimLink, AWriteCompletesAndTheReplyFollowsAsAnInBlock) {
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

TEST_F(DevsimLink, StalledWritesGetNoCompletion) {
  auto server = Start({"--fault", "stall-writes"});
  HostLink host(server->Endpoint());
  host.Read(8, kReplyWait);
  host.Write(MakeTextPacket(kTypeOrt, "ort end"));
  EXPECT_EQ(host.Read(1, kQuietWait), "");
  EXPECT_FALSE(host.ClosedByDevice());
  EXPECT_NE(server->Events().find("ort: ort end"), std::string::npos);
}

TEST_F(DevsimLink, DropAfterClosesTheLinkBeforeCompletingTheNthWrite) {
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

TEST_F(DevsimLink, ASecondHostIsServedOnceTheFirstLeaves) {
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

TEST_F(DevsimProgram, TcpPortZeroListensOnAFreePortAndSaysWhich) {
  ProcessOptions options;
  options.args = {"--tcp", "127.0.0.1:0", "--root", (dir_ / "root").string()};
  Subprocess devsim(DEVSIM_BIN, options);
  ASSERT_TRUE(devsim.WaitForOutput("\n", 10000ms));
  const std::string line = devsim.OutSoFar();
  const std::string prefix = "ferrolt-devsim: listening on tcp:127.0.0.1:";
  ASSERT_EQ(line.rfind(prefix, 0), 0u) << line;
  const int port = std::stoi(line.substr(prefix.size()));
  EXPECT_GT(port, 0);
  HostLink host(port);
  EXPECT_EQ(host.Read(1, kReplyWait), "H");
  devsim.Signal(SIGTERM);
  EXPECT_EQ(devsim.Wait(5000ms).exitStatus, 0);
}

TEST_F(DevsimProgram, SigtermAndSigintEndItWithStatusZeroAndOneListeningLine) {
  for (int signal : {SIGTERM, SIGINT}) {
    ProcessOptions options;
    const std::string socketPath = (dir_ / "device.sock").string();
    options.args = {"--socket", socketPath, "--root", (dir_ / "root").string()};
    Subprocess devsim(DEVSIM_BIN, options);
    ASSERT_TRUE(devsim.WaitForOutput("listening", 10000ms));
    HostLink host(socketPath);  // a host attached must not hold the exit up
    host.Read(8, kReplyWait);
    devsim.Signal(signal);
    const auto result = devsim.Wait(5000ms);
    EXPECT_EQ(result.exitStatus, 0) << signal;
    EXPECT_EQ(result.out, "ferrolt-devsim: listening on " + socketPath + "\n");
    EXPECT_FALSE(std::filesystem::exists(socketPath));
  }
}

TEST_F(DevsimProgram, BadCommandLinesExitWithStatusTwoAndOneLine) {
  const std::vector<std::vector<std::string>> bad = {
      {"--socket", "x.sock"},                                       // no root
      {"--root", "r"},                                              // no endpoint
      {"--socket", "x.sock", "--tcp", "h:1", "--root", "r"},        // two endpoints
      {"--socket", "x.sock", "--root", "r", "--speed", "300"},      // out of range
      {"--socket", "x.sock", "--root", "r", "--frobnicate"},        // unknown
      {"--socket", "x.sock", "--root"},                             // missing value
  };
  for (const auto& args : bad) {
    ProcessOptions options;
    options.args = args;
    options.cwd = dir_.Path();
    options.timeout = 5000ms;
    const auto result = ferrolt::test::RunProcess(DEVSIM_BIN, options);
    EXPECT_EQ(result.exitStatus, 2) << args.back();
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
}

TEST_F(DevsimProgram, HelpListsEveryOptionAndTheLinkFaults) {
  ProcessOptions options;
  options.args = {"--help"};
  options.timeout = 5000ms;
  const auto result = ferrolt::test::RunProcess(DEVSIM_BIN, options);
  EXPECT_EQ(result.exitStatus, 0);
  for (const char* word : {"--socket", "--tcp", "--root", "--record", "--events", "--version", "--verbose",
                           "--cli-timeout", "--seed", "--fault", "--vendor-id", "--product-id", "--interface",
                           "--speed", "--state", "stall-writes-after=N", "drop-after=N", "delay-replies=MS",
                           "corrupt-cli-crc=K", "silent-version"}) {
    EXPECT_NE(result.out.find(word), std::string::npos) << word;
  }
}

}  // namespace
}  // namespace ferrolt::devsim
