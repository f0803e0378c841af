// What a soak's process tells its supervisor: lines of JSON on standard output, and what it counts.

#pragma once

#include <QELNetworkKit/QELNetworkKit.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace soak {

/// Counted since the start, by any thread.
struct Counters {
  std::atomic<uint64_t> sent{0}, answered{0}, failed{0};  // requests
  std::atomic<uint64_t> served{0};                        // requests that were answered here
  std::atomic<uint64_t> published{0}, received{0},
      dropped{0};  // publications; dropped are those counted by a subscriber
  std::atomic<uint64_t> written{0}, read{0}, blocks{0},
      ready{0};  // legacy strings and blocks, connections that became ready
  std::atomic<uint64_t> pushes{0}, compared{0},
      launched{0};  // daemons: values, mirrors found equal, launched ones that ended
  std::atomic<uint64_t> texts{0}, opened{0}, watched{0};  // WebSocket texts and openings, keep-alive watches
  qelnk::Value asValue() const;
};
Counters &counters();

/// One line. Any thread; `more` is a map whose entries the line has besides.
void tell(std::string_view event, qelnk::Value more = qelnk::Value::map());
/// Something that no fault explains, such as a message that came twice.
void finding(std::string_view part, const std::string &what);
/// Something that a fault may explain, such as a request without an answer. The supervisor knows which faults there
/// were.
void failure(std::string_view part, const std::string &what);

/// How long requests took since the last look.
class Latencies {
 public:
  void add(std::chrono::nanoseconds time);
  /// Adds "p50" and "p99" in microseconds to a map, and begins anew.
  void take(qelnk::Value &into);

 private:
  std::mutex mutex_;
  std::vector<float> times_;
};
Latencies &latencies();

}  // namespace soak
