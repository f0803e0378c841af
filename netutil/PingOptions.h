#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace qelnk {

/// Ends a run as the tool's process would end: with this code, and a text for standard error. `text` is printed as it
/// stands for the usage, else behind the program's name.
class PingExit : public std::runtime_error {
 public:
  static constexpr int other = 1, usage = 64, unknownHost = 68, system = 71, permission = 77;

  PingExit(int code, const std::string &text) : std::runtime_error(text), code_(code) {}
  static PingExit ofUsage();
  /// A system call that failed, by errno.
  static PingExit ofCall(const std::string &call);

  int code() const { return code_; }
  bool isUsage() const { return isUsage_; }

 private:
  int code_;
  bool isUsage_ = false;
};

/// A command line of the ping.
struct PingOptions {
  /// Reads one; PingExit for what it may not hold. `isRoot` may do more.
  static PingOptions parse(const std::vector<std::string> &arguments, bool isRoot);

  bool has(uint32_t option) const { return flags & option; }

  uint32_t flags = 0;
  std::string host;
  std::string boundInterface;
  int64_t count = 0;        // 0: without end
  int32_t interval = 1000;  // milliseconds
  int32_t waittime = 10000;
  int64_t preload = 0;
  int64_t timeout = 0;  // seconds; 0: none
  uint32_t dataSize = 56;
  uint32_t sweepMinimum = 0, sweepMaximum = 0, sweepIncrement = 1;
  uint8_t ttl = 0, multicastTTL = 0, typeOfService = 0;
  in_addr multicastInterface{};
  std::string source;
  std::vector<uint8_t> pattern;
};

}  // namespace qelnk
