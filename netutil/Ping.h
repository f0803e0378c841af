#pragma once

#include <netinet/in.h>

#include <bitset>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "netutil/PingOptions.h"

namespace qelnk {

/// Where a run prints, and whether the process is its own, as a tool's is: then signals end it, and it obeys the limits
/// of a tool.
struct PingSurroundings {
  std::function<void(std::string_view)> print, printError;  // nothing: silent
  bool isTool = false;
  std::function<bool()> mustFinish = [] { return false; }, takeStatusRequest = [] { return false; };
  std::function<void()> replied = [] {}, willFinish = [] {};
};

/// One run of the ping.
///
/// Threads: one at a time; any number of runs side by side. What they count is their own.
class Ping {
 public:
  /// PingExit when the host is not known, or a socket cannot be had or set up.
  Ping(PingOptions options, PingSurroundings surroundings);
  ~Ping();
  Ping(const Ping &) = delete;
  Ping &operator=(const Ping &) = delete;

  /// Pings until a reply is missed, which returns QELNK_PING_ESCAPE. Every other end, the regular ones too, is a
  /// PingExit.
  int32_t run();
  int64_t received() const { return received_; }

 private:
  using Bytes = std::vector<uint8_t>;
  using Span = std::span<const uint8_t>;
  void setUp();
  void openSocket();
  void setSocketOptions();
  void bindSocket();
  void filterReplies();
  uint8_t replyType() const;
  template <class Value>
  void setOption(int level, int name, const Value &value, const char *text);

  void printBanner() const;
  void print(std::string_view text) const;
  void printError(std::string_view text) const;
  void warn(const std::string &text) const;
  void sendRequest();
  Bytes request() const;
  bool waitForReply();
  bool waitForAnswer(std::chrono::steady_clock::time_point deadline);
  bool receive();
  bool handle(Span message, const sockaddr_in &from, int ttl, timeval at, Span ipOptions);
  bool handleReply(Span message, const sockaddr_in &from, int ttl, timeval at, Span ipOptions);
  void printReply(Span message, const sockaddr_in &from, uint16_t sequence, int ttl, std::optional<double> time,
                  bool isDuplicate, Span ipOptions) const;
  void handleError(Span message, const sockaddr_in &from) const;
  std::string routeIn(Span ipOptions) const;
  bool missesReply();
  void printStatus() const;
  [[noreturn]] void finish();
  std::string nameOf(const in_addr &address) const;
  size_t queryLength() const;
  bool isDone() const;
  bool isFlood() const;
  bool buildsHeader() const;

  struct Sent {                              // of the last requests, by sequence number
    uint32_t seconds = 0, microseconds = 0;  // of the day's time, as the request bears them if it is long enough
    bool isTimed = false;
    std::chrono::steady_clock::time_point at;
  };
  static constexpr size_t remembered = 1024;

  const PingOptions options_;
  const PingSurroundings surroundings_;
  sockaddr_in destination_{};
  bool isMulticast_ = false;
  int socket_ = -1;
  bool isRaw_ = false, isConnected_ = false;
  std::shared_ptr<const uint16_t> identifier_;
  uint32_t dataSize_;
  int32_t interval_;
  int64_t transmitted_ = 0, received_ = 0, mostMissed_ = 0, duplicates_ = 0, late_ = 0;
  double shortest_ = 999999999.0, longest_ = 0, sum_ = 0, sumOfSquares_ = 0;
  std::bitset<remembered> seen_;
  std::vector<Sent> sent_{remembered};
  timeval lastSend_{};
  bool isAlmostDone_ = false, isSwept_ = false, isInterrupted_ = false, isTiming_ = false;
};

}  // namespace qelnk
