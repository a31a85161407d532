// The built ferrolt, unmodified, in a small Linux guest under QEMU, talking
// through the guest's real kernel (xhci_hcd, usbcore, usbfs) to
// ferrolt-devsim's usbredir front: what the kernel reads of the device, and
// what a real USB stack does to transfers (a STALL, an unplug and replug,
// URBs cancelled as their data arrives), the console compared byte for byte
// and the files with the device's folder, and the kernel's own capture of
// the bus (usbmon) against the tool's. The operations themselves are the
// end-to-end suite's (tests/e2e, also over the emulated bus). One boot runs every check: between
// phases the test starts ferrolt-devsim again, with other faults, on the
// same socket, and the guest sees the device go and come back.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "platform/AsciiText.h"
#include "tests/support/ExpectedLines.h"
#include "tests/support/TestSupport.h"

namespace ferrolt::test {
namespace {

using namespace lines;

constexpr const char* kVersion = "1.2.3";
constexpr int kSkipStatus = 77;
// Bounds only against a hung guest: TCG's speed varies twofold between runs.
constexpr milliseconds kPrepareLimit{300000};
constexpr milliseconds kGuestLimit{240000};
// The unplug comes as the device is offered this OUT transfer: data packet 38
// of the upload, whose start text is the first.
constexpr int kUnplugAtOut = 40;
constexpr size_t kUnplugFileSize = 120 * 57 - 20;
// Downloaded from a device that holds every reply back 5 ms, the tool's read
// wait: replies land just as reads time out, and none may be lost.
constexpr size_t kSlowFileSize = 20000;
// Upgraded while the kernel's usbmon records: small, as the captures come
// back over the emulated serial console.
constexpr size_t kTracedBundleSize = 200 * 1024;

// One ferrolt-devsim life: its faults, and what the guest runs against it
// (with the helpers of tests/kernel/init).
struct Phase {
  std::vector<std::string> faults;
  std::string script;
};

std::vector<Phase> Phases() {
  return {
      {{},
       "file speed /sys/bus/usb/devices/1-1/speed\n"
       "file interface /sys/bus/usb/devices/1-1:1.4/bInterfaceNumber\n"
       "check strings cat /sys/bus/usb/devices/1-1/manufacturer /sys/bus/usb/devices/1-1/product "
       "/sys/bus/usb/devices/1-1/serial\n"},
      {{"stall-out=1"}, "check stall ferrolt progCap\n"},
      {{"unplug-at-out=" + std::to_string(kUnplugAtOut), "replug-after=200"},
       "cp /payload/file.bin . && check replug ferrolt upload file.bin\n"},
      {{"delay-replies=5"}, "check slow ferrolt download /tmp/slow.bin slow.bin && file slow slow.bin\n"},
      {{},
       "/payload/usbmon-record /dev/usbmon1 usbmon.pcapng &\n"
       "until [ -e usbmon.pcapng ] || ! kill -0 $!; do sleep 0.1; done\n"
       "check traced-upgrade env FERROLT_TRACE=upgrade.pcapng ferrolt upgrade /payload/bundle.bin\n"
       "check traced-download env FERROLT_TRACE=download.pcapng ferrolt download /tmp/slow.bin got.bin\n"
       "kill $! && wait $!\n"
       "for name in usbmon upgrade download; do gzip $name.pcapng && file $name $name.pcapng.gz; done\n"},
  };
}

std::string GuestScript(const std::vector<Phase>& phases) {
  std::string script = "wait_device ''\n";
  for (size_t i = 0; i < phases.size(); ++i) {
    if (i > 0) script += "phase " + std::to_string(i) + "\n";
    script += phases[i].script;
  }
  return script;
}

std::string FromHex(const std::string& hex) {
  std::string bytes;
  unsigned value = 0;
  for (size_t at = 0; at + 1 < hex.size() && platform::ReadHexDigits(hex.c_str() + at, 2, value) == 2; at += 2)
    bytes += static_cast<char>(value);
  return bytes;
}

// The blocks of a capture (tshark reads it gzipped) as the dissector shows
// them, by endpoint: a line of type, number and CRC verdict per block. How
// the blocks were grouped into transfers is left out.
std::map<std::string, std::string> BlocksOf(const fs::path& capture, const std::string& bytes) {
  WriteFile(capture, bytes);
  ProcessOptions options;
  options.args = {
      "-X", std::string("lua_script:") + FERROLT_DISSECTOR, "-r", capture.string(), "-Y", "ferrolt", "-T", "fields"};
  for (const char* field : {"usb.endpoint_address", "ferrolt.type", "ferrolt.number", "ferrolt.crc.status"})
    options.args.insert(options.args.end(), {"-e", field});
  std::map<std::string, std::string> blocks;
  std::istringstream lines(RunProcess("tshark", options).out);
  // A transfer's blocks come comma-separated in each field.
  for (std::string endpoint, types, numbers, crcs; std::getline(lines, endpoint, '\t') &&
                                                   std::getline(lines, types, '\t') &&
                                                   std::getline(lines, numbers, '\t') && std::getline(lines, crcs);) {
    std::istringstream type(types + ","), number(numbers + ","), crc(crcs + ",");
    for (std::string t, n, c; std::getline(type, t, ',') && std::getline(number, n, ',') && std::getline(crc, c, ',');)
      blocks[endpoint] += t + " " + n + " " + c + "\n";
  }
  return blocks;
}

// What the guest reported on its console.
struct GuestReport {
  struct Check {
    int status = -1;
    std::string out;
    std::string err;
  };
  std::map<std::string, Check> checks;
  std::map<std::string, std::string> files;
  std::string console;
};

// "@@check NAME STATUS out=HEX err=HEX" and "@@file NAME bytes=HEX" lines.
GuestReport Parse(const std::string& console) {
  GuestReport report{{}, {}, console};
  std::istringstream lines(console);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string kind, name, first, second;
    words >> kind >> name >> first >> second;
    if (kind == "@@file" && first.rfind("bytes=", 0) == 0) report.files[name] = FromHex(first.substr(6));
    if (kind != "@@check" || second.rfind("out=", 0) != 0) continue;
    std::string err;
    words >> err;
    report.checks[name] = {std::stoi(first), FromHex(second.substr(4)),
                           FromHex(err.substr(std::min<size_t>(4, err.size())))};
  }
  return report;
}

class KernelGuestTest : public testing::Test {
 protected:
  // The guest, its kernel kept in the build tree, its initramfs with this
  // run's files.
  void SetUp() override {
    fs::create_directories(payload_);
    WriteFile(payload_ / "file.bin", unplugFile_);
    WriteFile(payload_ / "bundle.bin", tracedBundle_);
    fs::copy_file(USBMON_RECORD_BIN, payload_ / "usbmon-record");
    WriteFile(payload_ / "run.sh", GuestScript(Phases()));
    ProcessOptions prepare;
    prepare.args = {"prepare", GUEST_DIR, FERROLT_BIN, payload_.string()};
    prepare.timeout = kPrepareLimit;
    const ProcessResult prepared = RunProcess(GUEST_SCRIPT, prepare);
    if (prepared.exitStatus == kSkipStatus) GTEST_SKIP() << prepared.err;
    ASSERT_EQ(prepared.exitStatus, 0) << prepared.err;
  }

  // Boots the guest and plays each phase's device in turn.
  GuestReport RunGuest() {
    const std::vector<Phase> phases = Phases();
    const fs::path socket = work_ / "usbredir.sock";
    std::unique_ptr<Subprocess> guest;
    for (size_t i = 0; i < phases.size(); ++i) {
      if (i > 0) {
        if (!guest->WaitForOutput("@@phase " + std::to_string(i), kGuestLimit)) break;
        devices_.back()->Stop();
      }
      const fs::path root = work_ / ("root" + std::to_string(i));
      fs::create_directories(root / "tmp");
      WriteFile(root / "tmp" / "slow.bin", slowFile_);
      std::vector<std::string> args = {"--version", kVersion};
      for (const std::string& fault : phases[i].faults) args.insert(args.end(), {"--fault", fault});
      devices_.push_back(std::make_unique<DevsimServer>(args, root, DevsimEndpoint::Usbredir, socket));
      if (!devices_.back()->Running()) break;
      if (guest == nullptr) {
        ProcessOptions boot;
        boot.args = {"boot", GUEST_DIR, socket.string()};
        guest = std::make_unique<Subprocess>(GUEST_SCRIPT, boot);
      }
    }
    if (guest == nullptr) return {};
    guest->WaitForOutput("@@end", kGuestLimit);
    return Parse(guest->Wait(kGuestLimit).out);
  }

  const fs::path& Root(size_t phase) const { return devices_.at(phase)->Root(); }

  TempDir work_;
  fs::path payload_ = work_ / "payload";
  std::vector<std::unique_ptr<DevsimServer>> devices_;
  const std::string unplugFile_ = RandomBytes(kUnplugFileSize, 40);
  const std::string slowFile_ = RandomBytes(kSlowFileSize, 5);
  const std::string tracedBundle_ = RandomBytes(kTracedBundleSize, 25);
};

// Given the guest's kernel between the tool and the device, it reads the
// device as it is, every check prints what it prints over the other
// transports, and files arrive whole.
TEST_F(KernelGuestTest, TheToolWorksThroughARealKernel) {
  const GuestReport report = RunGuest();
  ASSERT_EQ(report.checks.size(), 6u) << report.console;
  for (const auto& [name, check] : report.checks) EXPECT_EQ(check.status, 0) << name << "\n" << check.err;
  auto out = [&](const std::string& name) { return report.checks.at(name).out; };

  // Discovery: the high-speed device, its strings and its interface 4.
  EXPECT_EQ(report.files.at("speed"), "480\n");
  EXPECT_EQ(report.files.at("interface"), "04\n");
  EXPECT_EQ(out("strings"), "ferrolt\nferrolt-devsim emulated device\nDEVSIM0001\n");

  // Faults: a STALL and the retry past it, an unplug and a replug, replies
  // that cross the reads' time-outs.
  EXPECT_EQ(out("stall"), ProgCapThroughAStall());
  const std::string replug = out("replug");
  const size_t failed = replug.find(kWriteFailed);
  ASSERT_NE(failed, std::string::npos) << replug;
  EXPECT_NE(replug.find(kOpened, failed), std::string::npos) << replug;
  EXPECT_EQ(replug.substr(replug.size() - std::string(kUploadFinished).size()), kUploadFinished) << replug;
  EXPECT_TRUE(ReadFile(Root(2) / "tmp" / "file.bin") == unplugFile_) << "the upload across the replug differs";
  EXPECT_TRUE(report.files.at("slow") == slowFile_) << "the download differs";

  // Capture: what the kernel's usbmon saw of an upgrade and a download, the
  // blocks of the tool's own captures of them, in order each way.
  if (const std::string why = WhyNoTreeDissector(); !why.empty()) GTEST_SKIP() << "the captures: " << why;
  auto kernel = BlocksOf(work_ / "usbmon.pcapng.gz", report.files.at("usbmon"));
  auto tool = BlocksOf(work_ / "upgrade.pcapng.gz", report.files.at("upgrade"));
  for (const auto& [endpoint, lines] : BlocksOf(work_ / "download.pcapng.gz", report.files.at("download")))
    tool[endpoint] += lines;
  for (const char* endpoint : {"0x01", "0x81"}) {
    EXPECT_NE(tool[endpoint], "") << endpoint;
    EXPECT_EQ(kernel[endpoint], tool[endpoint]) << endpoint;
  }
}

}  // namespace
}  // namespace ferrolt::test
