#include "devsim/Options.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <string_view>

#include "devsim/DeviceLimits.h"

namespace ferrolt::devsim {
namespace {

struct FaultHelp {
  const char* name;
  const char* help;
};

// Every fault a --fault option can name, grouped by who reads it.
constexpr FaultHelp kFaultHelp[] = {
    // The link: numbers count OUT blocks on the current host link.
    {"stall-writes", "never report a write as completed"},
    {"stall-writes-after=N", "complete the first N writes, withhold the rest"},
    {"delay-writes=MS", "report each write completed MS milliseconds late"},
    {"drop-after=N", "close the host link after its N-th OUT block, before completing it"},
    {"delay-replies=MS", "hold each IN block back MS milliseconds"},
    // The USB fronts: numbers count OUT transfers over the device's life.
    {"stall-out=N", "USB: answer OUT transfer N with a STALL (until the host clears it)"},
    {"unplug-at-out=N", "USB: unplug the device as it is offered OUT transfer N"},
    {"replug-after=MS", "usbredir: plug the device back in MS milliseconds after an unplug"},
    // The device: numbers count OUT blocks over its whole life.
    {"pause-writes-after=N", "after N OUT blocks, take none for a while (NAK them), once"},
    {"pause-writes-for=MS", "how long that pause lasts (default 2000)"},
    // Version.
    {"corrupt-version-crc", "reply to the version request with a wrong CRC"},
    {"version-reply-type=T", "reply to the version request with packet type T"},
    {"silent-version", "do not reply to the version request"},
    // CLI session.
    {"corrupt-cli-crc=K", "give a command's K-th output packet (1-based) a wrong CRC"},
    {"cli-no-end", "never send a command's end text"},
    // The file services (upgrade, upload, download, log download).
    {"nack=LIST", "upgrade: NACK these packet numbers once each"},
    {"nack-always=N", "upgrade: NACK packet N every time it arrives"},
    {"corrupt=LIST", "upgrade: treat these packets as arriving corrupted, once"},
    {"nack-beyond=K", "upgrade: after packet K, NACK a number beyond the last packet"},
    {"double-nack=K", "upgrade: at packet K, send two NACKs (for K-3, then K-2)"},
    {"corrupt-status-crc", "upgrade: send the end status with a wrong CRC, then a good one"},
    {"no-end-text", "upgrade: never answer Ending Upgrade"},
    {"upload-nack=LIST", "upload: refuse these packets once each"},
    {"corrupt-reply-crc=LIST", "download, logs: give these reply packets a wrong CRC"},
    {"bad-sequence=K", "logs: send data packet K once with a number above the total"},
    {"bad-start-numbers", "download, logs: a start reply with unreadable numbers"},
    {"long-length=K", "download, logs: give packet K a length byte of 200"},
    {"interleave", "download, logs: mix packets of other types among the data"},
};

constexpr const char* kUsageHead =
    "Usage: ferrolt-devsim (--socket PATH | --tcp HOST:PORT | --usbredir ENDPOINT)\n"
    "                      --root DIR [options]\n"
    "\n"
    "Plays the device on the emulator link, one host link at a time. Point the\n"
    "tool at it with FERROLT_EMULATOR=PATH or FERROLT_EMULATOR=tcp:HOST:PORT.\n"
    "With --usbredir it is a USB device instead, for one virtual machine at a time\n"
    "(QEMU: -chardev socket,id=r,path=PATH -device usb-redir,chardev=r).\n"
    "Prints \"ferrolt-devsim: listening on ENDPOINT\" once it listens; SIGTERM or\n"
    "SIGINT ends it (exit status 0). Bad options: exit status 2.\n"
    "\n"
    "Endpoint:\n"
    "  --socket PATH         Unix-domain socket (a stale socket file is replaced)\n"
    "  --tcp HOST:PORT       TCP endpoint; port 0 picks a free port\n"
    "  --usbredir ENDPOINT   usbredir USB device on a Unix socket PATH or on\n"
    "                        tcp:HOST:PORT (give 127.0.0.1 to stay on this machine)\n"
    "Device state:\n"
    "  --root DIR            the device's folder, created if missing: version,\n"
    "                        cli-mode, tmp/ (the device's /tmp/), var/log/\n"
    "  --version TEXT        version of a fresh root (default 1.0.0; an existing\n"
    "                        root/version file is kept)\n"
    "  --cli-timeout SECS    kill a CLI command after SECS seconds (default 10)\n"
    "What it tells:\n"
    "  --record FILE         every OUT block received, 64 raw bytes each\n"
    "  --events FILE         one line per thing the device did\n"
    "  --verbose             event lines also on standard error\n"
    "Hello announced to the host (with --usbredir, the USB device they describe):\n"
    "  --vendor-id ID        USB vendor id, hex (0x...) or decimal (default %#06x)\n"
    "  --product-id ID       USB product id (default %#06x)\n"
    "  --interface N         interface number (default 4)\n"
    "  --speed N             1 low, 2 full, 3 high (default 3)\n"
    "  --state N             0 ready, 3 no driver bound, 4 no bulk endpoints (default 0)\n"
    "Faults:\n"
    "  --fault NAME[=VALUE]  inject a fault (repeatable; LIST is comma-separated)\n"
    "  --seed N              seed of every random choice a fault makes (default 1)\n"
    "  -h, --help            this text\n"
    "\n"
    "Fault names:\n";

bool ParseInteger(const std::string& text, long long low, long long high, long long& value) {
  return ParseNumber(text, value) && value >= low && value <= high;
}

bool ParseTcp(const std::string& text, ListenAddress& address) {
  const size_t colon = text.rfind(':');
  long long port = 0;
  if (colon == std::string::npos || colon == 0 || !ParseInteger(text.substr(colon + 1), 0, 65535, port)) return false;
  address.tcpHost = text.substr(0, colon);
  address.tcpPort = static_cast<int>(port);
  return true;
}

// The usbredir front's "PATH" or "tcp:HOST:PORT".
bool ParseUsbredir(const std::string& text, Options& options) {
  constexpr std::string_view kTcpPrefix = "tcp:";
  options.usbredir = true;
  if (text.rfind(kTcpPrefix, 0) == 0) return ParseTcp(text.substr(kTcpPrefix.size()), options.server.address);
  options.server.address.socketPath = text;
  return !text.empty();
}

bool ParseFault(const std::string& text, FaultPlan& faults) {
  const size_t equals = text.find('=');
  const std::string name = text.substr(0, equals);
  if (name.empty()) return false;
  faults.Add(name, equals == std::string::npos ? "" : text.substr(equals + 1));
  return true;
}

// An option's value handler: false when the value is not acceptable.
using ValueHandler = std::function<bool(const std::string&, Options&)>;

// Integer options share one shape: a bounded number stored somewhere.
template <typename Field>
ValueHandler Integer(long long low, long long high, Field field) {
  return [=](const std::string& text, Options& options) {
    long long value = 0;
    if (!ParseInteger(text, low, high, value)) return false;
    field(options, value);
    return true;
  };
}

const std::map<std::string, ValueHandler>& ValueOptions() {
  constexpr long long kMaxU8 = 255, kMaxU16 = 65535, kMaxSeconds = 24 * 3600;
  static const std::map<std::string, ValueHandler> handlers = {
      {"--socket", [](const std::string& v, Options& o) { o.server.address.socketPath = v; return !v.empty(); }},
      {"--tcp", [](const std::string& v, Options& o) { return ParseTcp(v, o.server.address); }},
      {"--usbredir", ParseUsbredir},
      {"--root", [](const std::string& v, Options& o) { o.device.root = v; return !v.empty(); }},
      {"--record", [](const std::string& v, Options& o) { o.device.recordFile = v; return !v.empty(); }},
      {"--events", [](const std::string& v, Options& o) { o.device.eventsFile = v; return !v.empty(); }},
      {"--version", [](const std::string& v, Options& o) { o.device.initialVersion = v; return true; }},
      {"--fault", [](const std::string& v, Options& o) { return ParseFault(v, o.device.faults); }},
      {"--cli-timeout", Integer(1, kMaxSeconds, [](Options& o, long long v) { o.device.cliTimeout = std::chrono::seconds(v); })},
      {"--seed", Integer(0, std::numeric_limits<unsigned>::max(),
                         [](Options& o, long long v) { o.device.faults.SetSeed(static_cast<unsigned>(v)); })},
      {"--vendor-id", Integer(0, kMaxU16, [](Options& o, long long v) { o.server.hello.vendorId = static_cast<uint16_t>(v); })},
      {"--product-id", Integer(0, kMaxU16, [](Options& o, long long v) { o.server.hello.productId = static_cast<uint16_t>(v); })},
      {"--interface", Integer(0, kMaxU8, [](Options& o, long long v) { o.server.hello.interfaceNumber = static_cast<uint8_t>(v); })},
      {"--speed", Integer(0, kMaxU8, [](Options& o, long long v) { o.server.hello.speed = static_cast<uint8_t>(v); })},
      {"--state", Integer(0, kMaxU8, [](Options& o, long long v) { o.server.hello.state = static_cast<uint8_t>(v); })},
  };
  return handlers;
}

bool CheckComplete(const Options& options, int endpoints, std::string& error) {
  if (endpoints != 1) {
    error = "give exactly one of --socket PATH, --tcp HOST:PORT and --usbredir ENDPOINT";
  } else if (options.device.root.empty()) {
    error = "--root DIR is required";
  }
  return error.empty();
}

}  // namespace

ParseOutcome ParseOptions(const std::vector<std::string>& args, Options& options, std::string& error) {
  options.device.cliTimeout = limits::kDefaultCliTimeout;
  int endpoints = 0;  // --socket, --tcp and --usbredir given
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "-h" || arg == "--help") return ParseOutcome::Help;
    if (arg == "--verbose") {
      options.device.verbose = true;
      continue;
    }
    const auto handler = ValueOptions().find(arg);
    if (handler == ValueOptions().end()) {
      error = "unknown option " + arg;
      return ParseOutcome::Error;
    }
    if (arg == "--socket" || arg == "--tcp" || arg == "--usbredir") ++endpoints;
    if (i + 1 >= args.size()) {
      error = arg + " needs a value";
      return ParseOutcome::Error;
    }
    if (!handler->second(args[++i], options)) {
      error = "bad value for " + arg + ": " + args[i];
      return ParseOutcome::Error;
    }
  }
  return CheckComplete(options, endpoints, error) ? ParseOutcome::Run : ParseOutcome::Error;
}

std::string UsageText() {
  const LinkHello defaults;
  const int length = std::snprintf(nullptr, 0, kUsageHead, defaults.vendorId, defaults.productId);
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::snprintf(text.data(), text.size(), kUsageHead, defaults.vendorId, defaults.productId);
  text.pop_back();
  constexpr size_t kNameColumn = 26;
  for (const FaultHelp& fault : kFaultHelp) {
    std::string name = std::string("  ") + fault.name;
    name.resize(std::max(kNameColumn, name.size() + 1), ' ');
    text += name + fault.help + "\n";
  }
  return text;
}

}  // namespace ferrolt::devsim
