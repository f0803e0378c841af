#include "netutil/PingOptions.h"

#include <QELNetworkKit/qelNKPing.h>
#include <arpa/inet.h>
#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <string_view>
#include <system_error>

namespace qelnk {

namespace {

constexpr std::string_view theOptions = "Aab:c:DdfG:g:h:I:i:Ll:M:m:nop:QqRrS:s:T:t:vW:z:";
constexpr const char *usageText =
    "usage: ping [-AaDdfnoQqRrv] [-b boundif] [-c count] [-G sweepmaxsize] [-g sweepminsize]\n"
    "            [-h sweepincrsize] [-i wait] [-l preload] [-M mask | time] [-m ttl]\n"
    "            [-p pattern] [-S src_addr] [-s packetsize] [-t timeout]\n"
    "            [-W waittime] [-z tos] host\n"
    "       ping [-AaDdfLnoQqRrv] [-c count] [-I iface] [-i wait] [-l preload]\n"
    "            [-M mask | time] [-m ttl] [-p pattern] [-S src_addr]\n"
    "            [-s packetsize] [-T ttl] [-t timeout] [-W waittime]\n"
    "            [-z tos] mcast-group\n";

constexpr int64_t longestTimeout = 3600;
constexpr size_t longestPattern = 16;
constexpr int64_t largestData = 65535 - 20 - 8;  // behind the headers
constexpr int32_t floodInterval = 10;            // milliseconds

[[noreturn]] void refuse(const char *what, const std::string &text) {
  throw PingExit(PingExit::usage, fmt::format("{}: `{}'", what, text));
}

/// The whole number that `text` is, within the bounds, or the exit with `what`.
int64_t number(const char *what, const std::string &text, int64_t lowest, int64_t highest) {
  char *end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text.c_str(), &end, 0);
  if (text.empty() || *end || errno || value < lowest || value > highest) refuse(what, text);
  return value;
}

std::vector<uint8_t> patternOf(const std::string &text) {
  if (text.empty() || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
    throw PingExit(PingExit::usage, "patterns must be specified as hex digits");
  std::vector<uint8_t> pattern;
  for (size_t at = 0; at < text.size() && pattern.size() < longestPattern; at += 2)
    pattern.push_back(uint8_t(std::stoul(text.substr(at, 2), nullptr, 16)));
  return pattern;
}

}  // namespace

PingExit PingExit::ofUsage() {
  PingExit exit(usage, usageText);
  exit.isUsage_ = true;
  return exit;
}

PingExit PingExit::ofCall(const std::string &call) {
  return {system, call + ": " + std::generic_category().message(errno)};
}

PingOptions PingOptions::parse(const std::vector<std::string> &arguments, bool isRoot) {
  PingOptions result;
  bool sized = false, swept = false;
  const auto set = [&](uint32_t option) { result.flags |= option; };
  const auto take = [&](char option, const std::string &value) {
    switch (option) {
      case 'A':
        return set(QELNKPingBellOnMissed);
      case 'a':
        return set(QELNKPingBell);
      case 'b':
        result.boundInterface = value;
        return set(QELNKPingBoundInterface);
      case 'c':
        result.count = number("invalid count of packets to transmit", value, 1, LLONG_MAX);
        return set(QELNKPingCount);
      case 'D':
        return set(QELNKPingDontFragment);
      case 'd':
        return set(QELNKPingDebug);
      case 'f':
        if (!isRoot) throw PingExit(PingExit::permission, "-f flag: Operation not permitted");
        return set(QELNKPingFlood);
      case 'G':
        result.sweepMaximum = uint32_t(number("invalid packet size", value, 1, largestData));
        return set(QELNKPingSweep);
      case 'g':
        result.sweepMinimum = uint32_t(number("invalid packet size", value, 0, largestData));
        swept = true;
        return;
      case 'h':
        result.sweepIncrement = uint32_t(number("invalid increment size", value, 1, INT_MAX));
        swept = true;
        return;
      case 'I':
        if (inet_pton(AF_INET, value.c_str(), &result.multicastInterface) != 1)
          refuse("invalid multicast interface", value);
        return set(QELNKPingMulticastInterface);
      case 'i': {
        double seconds = 0;
        const auto [end, failure] = std::from_chars(value.data(), value.data() + value.size(), seconds);
        if (failure != std::errc() || end != value.data() + value.size() || !(seconds > 0) || seconds * 1000 > INT_MAX)
          refuse("invalid timing interval", value);
        result.interval = int32_t(seconds * 1000);
        if (result.interval < 1000 && !isRoot)
          throw PingExit(PingExit::permission, "-i interval too short: Operation not permitted");
        return set(QELNKPingInterval);
      }
      case 'L':
        return set(QELNKPingNoLoopback);
      case 'l':
        result.preload = number("invalid preload value", value, 0, INT_MAX);
        if (!isRoot) throw PingExit(PingExit::permission, "-l flag: Operation not permitted");
        return set(QELNKPingPreload);
      case 'M':
        if (!value.starts_with('m') && !value.starts_with('t'))
          throw PingExit(PingExit::usage, fmt::format("invalid message: `{}'", value.substr(0, 1)));
        return set(value.front() == 'm' ? QELNKPingMask : QELNKPingTime);
      case 'm':
        result.ttl = uint8_t(number("invalid TTL", value, 0, 255));
        return set(QELNKPingTTL);
      case 'n':
        return set(QELNKPingNumeric);
      case 'o':
        return set(QELNKPingOnce);
      case 'p':
        result.pattern = patternOf(value);
        return set(QELNKPingPattern);
      case 'Q':
        return set(QELNKPingSomewhatQuiet);
      case 'q':
        return set(QELNKPingQuiet);
      case 'R':
        return set(QELNKPingRecordRoute);
      case 'r':
        return set(QELNKPingBypassRouting);
      case 'S':
        result.source = value;
        return set(QELNKPingSource);
      case 's':
        result.dataSize = uint32_t(number("invalid packet size", value, 0, largestData));
        sized = true;
        return;
      case 'T':
        result.multicastTTL = uint8_t(number("invalid multicast TTL", value, 0, 255));
        return set(QELNKPingMulticastTTL);
      case 't':
        result.timeout = number("invalid timeout", value, 1, LLONG_MAX);
        if (result.timeout > longestTimeout)
          throw PingExit(PingExit::usage, fmt::format("invalid timeout: `{}' > {}", value, longestTimeout));
        return;
      case 'v':
        return set(QELNKPingVerbose);
      case 'W':
        result.waittime = int32_t(number("invalid timing interval", value, 0, INT_MAX));
        return set(QELNKPingWaitTime);
      default:  // 'z'
        result.typeOfService = uint8_t(number("invalid TOS", value, 0, 255));
        return set(QELNKPingTypeOfService);
    }
  };

  size_t at = 1;
  for (; at < arguments.size() && arguments[at].size() > 1 && arguments[at].front() == '-'; ++at) {
    if (arguments[at] == "--") {
      ++at;
      break;
    }
    for (size_t letter = 1; letter < arguments[at].size(); ++letter) {
      const char option = arguments[at][letter];
      const size_t known = option == ':' ? std::string_view::npos : theOptions.find(option);
      if (known == std::string_view::npos) throw PingExit::ofUsage();
      if (known + 1 == theOptions.size() || theOptions[known + 1] != ':') {
        take(option, "");
        continue;
      }
      std::string value = arguments[at].substr(letter + 1);
      if (value.empty() && ++at == arguments.size()) throw PingExit::ofUsage();
      take(option, value.empty() ? arguments[at] : value);
      break;
    }
  }
  if (arguments.size() != at + 1) throw PingExit::ofUsage();
  result.host = arguments[at];

  const auto refuseWhen = [](bool condition, const char *text) {
    if (condition) throw PingExit(PingExit::usage, text);
  };
  refuseWhen(result.has(QELNKPingFlood) && result.has(QELNKPingInterval), "-f and -i: incompatible options");
  refuseWhen(swept && !result.has(QELNKPingSweep), "Maximum sweep size must be specified");
  refuseWhen(result.has(QELNKPingSweep) && sized, "Packet size and ping sweep are mutually exclusive");
  refuseWhen(result.has(QELNKPingSweep) && result.sweepMaximum <= result.sweepMinimum,
             "Maximum packet size must be greater than the minimum packet size");
  refuseWhen(result.has(QELNKPingMask) && result.has(QELNKPingTime), "ICMP_TSTAMP and ICMP_MASKREQ are exclusive.");
  if (result.has(QELNKPingFlood)) result.interval = floodInterval;
  return result;
}

}  // namespace qelnk
