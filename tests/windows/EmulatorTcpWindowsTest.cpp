// The emulator link over Winsock: the tool's side of the TCP contract against
// a device played by the test on the loopback interface.
#include <gtest/gtest.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "platform/emulator/EmulatorBackend.h"

namespace ferrolt::platform {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFast{250};

// A device listening on 127.0.0.1 that accepts one host and greets it.
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
    // 'H', vendor 0x1209, product 0x0001, interface 4, high speed, ready.
    const char hello[] = {'H', 0x09, 0x12, 0x01, 0x00, 4, 3, 0};
    return send(host_, hello, sizeof hello, 0) == sizeof hello;
  }

 private:
  SOCKET listener_ = INVALID_SOCKET;
  SOCKET host_ = INVALID_SOCKET;
  std::string endpoint_;
};

// Given a device on TCP, the link lists it from its hello, opens it, and
// closes at once with a read still waiting. (Blocks moving both ways over
// Winsock are checked by the end-to-end suite that runs ferrolt.exe under
// Wine against ferrolt-devsim on TCP.)
TEST(EmulatorTcpWindowsTest, ListsOpensAndClosesAtOnceWithAReadWaiting) {
  TcpDevice device;
  const auto backend = CreateEmulatorBackend(device.Endpoint());
  std::thread acceptor([&] { EXPECT_TRUE(device.AcceptWithHello()); });
  const InterfaceListing listing = backend->ListInterfaces();
  acceptor.join();
  ASSERT_EQ(listing.paths.size(), 1u);
  EXPECT_EQ(listing.paths[0], "\\\\?\\USB#VID_1209&PID_0001&MI_04#EMULATOR#{A5DCBF10-6530-11D2-901F-00C04FB951ED}");
  std::unique_ptr<DeviceConnection> connection = backend->Open(listing.paths[0]);
  ASSERT_NE(connection, nullptr);

  // Closing stops the frame reader blocked in its receive at once, and a
  // read still waiting fails.
  const auto pending = connection->StartRead(0x81, 64);
  const auto closing = std::chrono::steady_clock::now();
  connection.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - closing, kFast);
  EXPECT_TRUE(pending->IsComplete());
  EXPECT_FALSE(pending->Succeeded());
}

// Given no device listening, or a Unix socket path (not for Windows), the
// listing is empty, and standard error says once why, in the system's words.
TEST(EmulatorTcpWindowsTest, NoListenerAndUnixPathsListNothing) {
  ::testing::internal::CaptureStderr();
  for (const std::string& absent : {std::string("tcp:127.0.0.1:1"), std::string("C:\\device.sock")})
    EXPECT_TRUE(CreateEmulatorBackend(absent)->ListInterfaces().paths.empty()) << absent;
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("ferrolt: cannot reach the device emulator at FERROLT_EMULATOR=tcp:127.0.0.1:1: ", 0), 0u) << err;
  EXPECT_EQ(err.find("Windows error"), std::string::npos) << err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
}

}  // namespace
}  // namespace ferrolt::platform
