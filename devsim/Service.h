// The device's side of one kind of exchange (version, CLI, upgrade, ...).
// The device offers each OUT block to its services in turn; a service that
// recognises the block takes it and answers through the DeviceContext. The
// device logic has no transport of its own: the socket server, an in-process
// link or a USB emulation move the blocks.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace ferrolt::devsim {

using Block = std::array<uint8_t, 64>;

// Decimal, or hexadecimal with a 0x prefix; false when text is not wholly a
// number. Every number the device reads from its user goes through here.
bool ParseNumber(const std::string& text, long long& value);
// "0" to "100", with at most two decimals ("0.25"), as hundredths of a
// percent: the chance a random fault takes.
bool ParsePercent(const std::string& text, long long& hundredths);
// "MIN-MAX": two numbers, neither negative, the first not above the second.
bool ParseRange(const std::string& text, long long& low, long long& high);

// A random fault's range, in the units the fault reads it in.
struct NumberRange {
  long long low = 0;
  long long high = 0;
};

// Fault injection: every "--fault NAME[=VALUE]" option of the command line.
// Each service reads the names it knows; numbers are comma-separated lists.
class FaultPlan {
 public:
  void Add(const std::string& name, const std::string& value);
  bool Has(const std::string& name) const;
  // The value of a fault, or fallback when it is absent.
  std::string Text(const std::string& name, const std::string& fallback = "") const;
  long long Number(const std::string& name, long long fallback) const;
  // "3,7,9" → {3, 7, 9}; empty when absent.
  std::vector<long long> Numbers(const std::string& name) const;
  // "200-1500" → {200, 1500}; fallback when absent or unreadable.
  NumberRange Range(const std::string& name, NumberRange fallback) const;
  // A percentage fault's chance in hundredths of a percent; 0 when absent.
  long long Chance(const std::string& name) const;
  // The fixed seed of every random choice a fault makes.
  unsigned Seed() const { return seed_; }
  void SetSeed(unsigned seed) { seed_ = seed; }

 private:
  std::vector<std::pair<std::string, std::string>> faults_;
  unsigned seed_ = 1;
};

// What a service may use of the device.
class DeviceContext {
 public:
  virtual ~DeviceContext() = default;
  // Queues one IN block for the host, after those already queued.
  virtual void Send(const Block& block) = 0;
  // IN blocks queued and not yet taken by the transport; services that
  // stream long output keep this short.
  virtual size_t QueuedInBlocks() const = 0;
  // The device's root folder: its version file, /tmp/, log folder, and what
  // the last upgrade received.
  virtual const std::filesystem::path& Root() const = 0;
  // An absolute path on the device ("/tmp/x") resolved inside the root
  // folder, links followed; empty when it is not absolute or leaves the root.
  virtual std::filesystem::path DevicePathToLocal(const std::string& devicePath) const = 0;
  virtual std::string Version() const = 0;
  virtual void SetVersion(const std::string& version) = 0;
  virtual const FaultPlan& Faults() const = 0;
  // True, by the chance the percentage fault name gives, each time asked;
  // never when the plan lacks it.
  virtual bool FaultStrikes(const std::string& name) = 0;
  // A line for the device's event log (what a test or a firmware engineer
  // reads to see what the device did).
  virtual void Note(const std::string& line) = 0;
};

class Service {
 public:
  virtual ~Service() = default;
  // True when the block was this service's (it has then acted on it).
  virtual bool Accept(const Block& block, DeviceContext& device) = 0;
  // Called as time passes, so a service can stream output it produces over
  // time (a running command, a long file).
  virtual void Poll(DeviceContext& device) { (void)device; }
  // True while the service has work that needs Poll soon.
  virtual bool Busy() const { return false; }
  // The host's link went away (connection closed): drop exchange state that
  // belongs to that link.
  virtual void LinkClosed(DeviceContext& device) { (void)device; }
};

}  // namespace ferrolt::devsim
