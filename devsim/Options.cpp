#include "devsim/Options.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <string_view>

#include "devsim/DeviceLimits.h"
#include "devsim/UsbDeviceModel.h"

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
    {"jitter-replies=MIN-MAX", "hold each IN block back a random MIN to MAX milliseconds more"},
    // The USB fronts: numbers count OUT transfers over the device's life.
    {"stall-out=N", "USB: answer OUT transfer N with a STALL (until the host clears it)"},
    {"unplug-at-out=N", "USB: unplug the device as it is offered OUT transfer N"},
    {"replug-after=MS", "usbredir: plug the device back in MS milliseconds after an unplug"},
    {"block-per-packet", "USB: send each IN block as a packet of its own, not as many as fit in one"},
    // The device: numbers count OUT blocks over its whole life.
    {"pause-writes-after=N", "after N OUT blocks, take none for a while (NAK them), once"},
    {"pause-writes-for=MS", "how long that pause lasts (default 2000)"},
    {"stall-writes-random=PERCENT", "after each OUT block, by this chance, take none for a while (NAK them): busy with flash"},
    {"stall-writes-for=MIN-MAX", "how long such a stall lasts: a random MIN to MAX ms (default 200-1500)"},
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
    {"nack-random=PERCENT", "upgrade: NACK each packet that arrives in sequence by this chance"},
    {"corrupt=LIST", "upgrade: treat these packets as arriving corrupted, once"},
    {"nack-beyond=K", "upgrade: after packet K, NACK a number beyond the last packet"},
    {"double-nack=K", "upgrade: at packet K, send two NACKs (for K-3, then K-2)"},
    {"corrupt-status-crc", "upgrade: send the end status with a wrong CRC, then a good one"},
    {"no-end-text", "upgrade: never answer Ending Upgrade"},
    {"upload-nack=LIST", "upload: refuse these packets once each"},
    {"upload-nack-random=PERCENT", "upload: refuse each data packet by this chance"},
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
    "  --socket PATH         Unix-domain socket (a stale socket file is replaced,\n"
    "                        one another program listens on is not)\n"
    "  --tcp HOST:PORT       TCP endpoint on a loopback address; port 0 picks a\n"
    "                        free port\n"
    "  --usbredir ENDPOINT   usbredir USB device on a Unix socket PATH or on\n"
    "                        tcp:HOST:PORT (a loopback address, as --tcp)\n"
    "  --listen-any          let a TCP endpoint take any address: other machines\n"
    "                        can then drive the device (a warning says so)\n"
    "  --idle-limit SECS     drop a host link when nothing has moved on it, or it\n"
    "                        has not read what it was sent, for SECS seconds\n"
    "                        (default %lld)\n"
    "Device state:\n"
    "  --root DIR            the device's folder, created if missing: version,\n"
    "                        cli-mode, tmp/ (the device's /tmp/), var/log/\n"
    "  --version TEXT        version of a fresh root (default 1.0.0; an existing\n"
    "                        root/version file is kept)\n"
    "  --cli-timeout SECS    kill a CLI command after SECS seconds (default 10)\n"
    "  --host-shell          run CLI commands in the host's /bin/sh, which sees\n"
    "                        the whole machine (a warning says so); without it\n"
    "                        they come from a built-in set (echo, pwd, uname,\n"
    "                        ls, cat) that sees only the root folder\n"
    "What it tells:\n"
    "  --record FILE         every OUT block received, 64 raw bytes each\n"
    "  --events FILE         one line per thing the device did\n"
    "  --trace FILE          every block both ways, as a pcapng capture in the\n"
    "                        link type of Linux usbmon, descriptors first\n"
    "                        (Wireshark, with packaging/wireshark/ferrolt.lua)\n"
    "  --verbose             event lines also on standard error\n"
    "Hello announced to the host (with --usbredir, the USB device they describe):\n"
    "  --vendor-id ID        USB vendor id, hex (0x...) or decimal (default %#06x)\n"
    "  --product-id ID       USB product id (default %#06x)\n"
    "  --interface N         interface number (default 4)\n"
    "  --speed N             1 low, 2 full, 3 high (default 3)\n"
    "  --state N             0 ready, 3 no driver bound, 4 no bulk endpoints (default 0)\n"
    "Faults:\n"
    "  --fault NAME[=VALUE]  inject a fault (repeatable; LIST is comma-separated\n"
    "                        numbers, PERCENT 0 to 100 with up to two decimals,\n"
    "                        MIN-MAX two numbers, the first not above the second)\n"
    "  --seed N              seed of every random choice a fault makes (default 1):\n"
    "                        the same seed and faults replay the same choices\n"
    "  -h, --help            this text\n"
    "Every option with a value also takes the form --name=value.\n"
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

// A fault's value, as its help name shows it: none, one number ("=N",
// "=MS", ...), a comma-separated list of numbers ("=LIST"), a chance
// ("=PERCENT") or a range of milliseconds ("=MIN-MAX").
bool FaultValueReadable(const std::string& helpName, const std::string& value) {
  const size_t equals = helpName.find('=');
  if (equals == std::string::npos) return value.empty();
  const std::string kind = helpName.substr(equals + 1);
  long long number = 0;
  long long high = 0;
  if (kind == "PERCENT") return ParsePercent(value, number);
  if (kind == "MIN-MAX") return ParseRange(value, number, high) && high <= limits::kMaxFaultWait;
  if (kind != "LIST") return ParseNumber(value, number);
  size_t from = 0;
  for (size_t comma; (comma = value.find(',', from)) != std::string::npos; from = comma + 1) {
    if (!ParseNumber(value.substr(from, comma - from), number)) return false;
  }
  return ParseNumber(value.substr(from), number);
}

// Why the fault text cannot be taken, or empty when it can.
std::string FaultProblem(const std::string& text) {
  const size_t equals = text.find('=');
  const std::string name = text.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : text.substr(equals + 1);
  for (const FaultHelp& fault : kFaultHelp) {
    const std::string helpName = fault.name;
    if (helpName.substr(0, helpName.find('=')) != name) continue;
    return FaultValueReadable(helpName, value) ? "" : "bad value for fault " + name + ": " + helpName;
  }
  return "unknown fault " + name;
}

std::string FaultList() {
  std::string list;
  for (const FaultHelp& fault : kFaultHelp) list += (list.empty() ? "" : ", ") + std::string(fault.name);
  return list;
}

bool ParseFault(const std::string& text, FaultPlan& faults) {
  if (!FaultProblem(text).empty()) return false;
  const size_t equals = text.find('=');
  faults.Add(text.substr(0, equals), equals == std::string::npos ? "" : text.substr(equals + 1));
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
      {"--trace", [](const std::string& v, Options& o) { o.device.traceFile = v; return !v.empty(); }},
      {"--version", [](const std::string& v, Options& o) { o.device.initialVersion = v; return true; }},
      {"--fault", [](const std::string& v, Options& o) { return ParseFault(v, o.device.faults); }},
      {"--cli-timeout", Integer(1, kMaxSeconds, [](Options& o, long long v) { o.device.cliTimeout = std::chrono::seconds(v); })},
      {"--idle-limit", Integer(1, kMaxSeconds, [](Options& o, long long v) { o.server.idleLimit = std::chrono::seconds(v); })},
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

// Options without a value.
const std::map<std::string, void (*)(Options&)>& FlagOptions() {
  static const std::map<std::string, void (*)(Options&)> flags = {
      {"--verbose", [](Options& o) { o.device.verbose = true; }},
      {"--host-shell", [](Options& o) { o.device.hostShell = true; }},
      {"--listen-any", [](Options& o) { o.server.listenAny = true; }},
  };
  return flags;
}

// The endpoint and root are given, and nothing is reachable from outside
// unless the user said so (then warnings say what is open).
bool CheckComplete(Options& options, int endpoints, std::string& error) {
  const ListenAddress& address = options.server.address;
  const bool tcp = address.tcpPort >= 0;
  const bool loopback = tcp && IsLoopbackHost(address.tcpHost);
  if (endpoints != 1) {
    error = "give exactly one of --socket PATH, --tcp HOST:PORT and --usbredir ENDPOINT";
  } else if (options.device.root.empty()) {
    error = "--root DIR is required";
  } else if (options.server.listenAny && !tcp) {
    error = "--listen-any goes with a TCP endpoint";
  } else if (tcp && !loopback && !options.server.listenAny) {
    error = address.tcpHost + " is not a loopback address: add --listen-any to let other machines in";
  }
  if (tcp && !loopback && options.server.listenAny) {
    options.warnings.push_back("warning: listening on " + address.tcpHost +
                               ": other machines can drive the device and read its root folder");
  }
  if (options.device.hostShell) {
    options.warnings.push_back("warning: --host-shell: CLI commands run in the host's /bin/sh as this user");
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
    // "--name=value" is "--name value".
    const size_t equals = arg.rfind("--", 0) == 0 ? arg.find('=') : std::string::npos;
    const std::string name = arg.substr(0, equals);
    if (const auto flag = FlagOptions().find(name); flag != FlagOptions().end()) {
      if (equals != std::string::npos) {
        error = name + " takes no value";
        return ParseOutcome::Error;
      }
      flag->second(options);
      continue;
    }
    const auto handler = ValueOptions().find(name);
    if (handler == ValueOptions().end()) {
      error = "unknown option " + name;
      return ParseOutcome::Error;
    }
    if (name == "--socket" || name == "--tcp" || name == "--usbredir") ++endpoints;
    if (equals == std::string::npos && i + 1 >= args.size()) {
      error = name + " needs a value";
      return ParseOutcome::Error;
    }
    const std::string value = equals == std::string::npos ? args[++i] : arg.substr(equals + 1);
    if (!handler->second(value, options)) {
      error = name == "--fault" ? FaultProblem(value) + " (faults: " + FaultList() + ")"
                                : "bad value for " + name + ": " + value;
      return ParseOutcome::Error;
    }
  }
  if (!CheckComplete(options, endpoints, error)) return ParseOutcome::Error;
  // The capture shows the device the hello announces; a speed USB has no
  // form of (which the socket front may announce) is shown as high speed.
  std::string noUsbForm;
  ModelFromHello(options.server.hello, options.device.traceModel, noUsbForm);
  return ParseOutcome::Run;
}

std::string UsageText() {
  const LinkHello defaults;
  const long long idleLimit = limits::kDefaultIdleLimit.count();
  const int length = std::snprintf(nullptr, 0, kUsageHead, idleLimit, defaults.vendorId, defaults.productId);
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::snprintf(text.data(), text.size(), kUsageHead, idleLimit, defaults.vendorId, defaults.productId);
  text.pop_back();
  constexpr size_t kNameColumn = 30;
  for (const FaultHelp& fault : kFaultHelp) {
    std::string name = std::string("  ") + fault.name;
    name.resize(std::max(kNameColumn, name.size() + 1), ' ');
    text += name + fault.help + "\n";
  }
  return text;
}

}  // namespace ferrolt::devsim
