// The emulator link over Winsock: the tool's side of the TCP contract against
// a device played by the test on the loopback interface.
#include <gtest/gtest.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>

#include "platform/emulator/EmulatorBackend.h"

namespace ferrolt::platform {
namespace {

using std::chrono::milliseconds;
using Block = std::array<uint8_t, 64>;

constexpr milliseconds kFast{250};
constexpr milliseconds kDeviceWait{5000};
constexpr DWORD kReceiveLimitMs = 5000;

// A device listening on 127.0.0.1 that accepts one host and speaks frames.
class TcpDevice {
 public:
  TcpDevice() {
    WSADATA data{};
    WSAStartup(MAKEWORD(2, 2), &data);
    listener_ = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener_, 1);
    int size = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    endpoint_ = "tcp:127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  ~TcpDevice() {
    if (host_ != INVALID_SOCKET) closesocket(host_);
    closesocket(listener_);
  }

  const std::string& Endpoint() const { return endpoint_; }

  bool AcceptWithHello() {
    host_ = accept(listener_, nullptr, nullptr);
    if (host_ == INVALID_SOCKET) return false;
    const DWORD limit = kReceiveLimitMs;
    setsockopt(host_, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
    // 'H', vendor 0x1209, product 0x0001, interface 4, high speed, ready.
    const char hello[] = {'H', 0x09, 0x12, 0x01, 0x00, 4, 3, 0};
    return send(host_, hello, sizeof hello, 0) == sizeof hello;
  }
  bool ReceiveWrite(Block& block) {
    char frame[65];
    int got = 0;
    while (got < static_cast<int>(sizeof frame)) {
      const int count = recv(host_, frame + got, sizeof frame - got, 0);
      if (count <= 0) return false;
      got += count;
    }
    std::copy(frame + 1, frame + 65, block.begin());
    return frame[0] == 'W';
  }
  bool Send(char kind, const Block* block = nullptr) {
    std::string frame(1, kind);
    if (block != nullptr) frame.append(reinterpret_cast<const char*>(block->data()), block->size());
    return send(host_, frame.data(), static_cast<int>(frame.size()), 0) == static_cast<int>(frame.size());
  }

 private:
  SOCKET listener_ = INVALID_SOCKET;
  SOCKET host_ = INVALID_SOCKET;
  std::string endpoint_;
};

template <typename Call>
milliseconds Timed(Call&& call) {
  const auto start = std::chrono::steady_clock::now();
  call();
  return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
}

// Given a device on TCP, the link lists it, opens it and moves blocks both ways.
TEST(EmulatorTcpWindowsTest, ListsOpensAndMovesBlocksBothWays) {
  TcpDevice device;
  const auto backend = CreateEmulatorBackend(device.Endpoint());
  std::thread acceptor([&] { EXPECT_TRUE(device.AcceptWithHello()); });
  const InterfaceListing listing = backend->ListInterfaces();
  acceptor.join();
  ASSERT_EQ(listing.paths.size(), 1u);
  EXPECT_EQ(listing.paths[0], "\\\\?\\USB#VID_1209&PID_0001&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}");
  std::unique_ptr<DeviceConnection> connection = backend->Open(listing.paths[0]);
  ASSERT_NE(connection, nullptr);

  Block out{};
  out.fill(0x5A);
  const auto write = connection->StartWrite(0x01, out.data(), 64);
  ASSERT_NE(write, nullptr);
  Block received{};
  ASSERT_TRUE(device.ReceiveWrite(received));
  EXPECT_EQ(received, out);
  EXPECT_FALSE(write->IsComplete());
  ASSERT_TRUE(device.Send('A'));
  ASSERT_TRUE(write->Completion().WaitFor(kDeviceWait));
  EXPECT_TRUE(write->Succeeded());

  Block in{};
  in.fill(0xA5);
  const auto read = connection->StartRead(0x81, 64);
  ASSERT_TRUE(device.Send('R', &in));
  ASSERT_TRUE(read->Completion().WaitFor(kDeviceWait));
  Block got{};
  EXPECT_EQ(read->CopyData(got.data(), 64), 64u);
  EXPECT_EQ(got, in);

  // Closing stops the frame reader blocked in its receive at once, and a
  // read still waiting fails.
  const auto pending = connection->StartRead(0x81, 64);
  EXPECT_LT(Timed([&] { connection.reset(); }), kFast);
  EXPECT_TRUE(pending->IsComplete());
  EXPECT_FALSE(pending->Succeeded());
}

// Given no device listening, or a Unix socket path (not for Windows), the
// listing is empty.
TEST(EmulatorTcpWindowsTest, NoListenerAndUnixPathsListNothing) {
  for (const std::string& absent : {std::string("tcp:127.0.0.1:1"), std::string("C:\\device.sock")})
    EXPECT_TRUE(CreateEmulatorBackend(absent)->ListInterfaces().paths.empty()) << absent;
}

}  // namespace
}  // namespace ferrolt::platform
