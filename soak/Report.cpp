#include "Report.h"

#include <algorithm>
#include <cstdio>

namespace soak {

using qelnk::Value;

Counters &counters() {
  static Counters all;
  return all;
}

Latencies &latencies() {
  static Latencies all;
  return all;
}

Value Counters::asValue() const {
  return Value::map({{"sent", sent.load()},
                     {"answered", answered.load()},
                     {"failed", failed.load()},
                     {"served", served.load()},
                     {"published", published.load()},
                     {"received", received.load()},
                     {"dropped", dropped.load()},
                     {"written", written.load()},
                     {"read", read.load()},
                     {"blocks", blocks.load()},
                     {"ready", ready.load()},
                     {"pushes", pushes.load()},
                     {"compared", compared.load()},
                     {"launched", launched.load()},
                     {"texts", texts.load()},
                     {"opened", opened.load()},
                     {"watched", watched.load()}});
}

void tell(std::string_view event, Value more) {
  static std::mutex mutex;
  more.set("event", event);
  more.set("t", qelnk::Clock::system()->wallTime());
  const auto json = qelnk::jsonData(more);
  std::lock_guard lock(mutex);
  std::fwrite(json->data(), 1, json->size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void finding(std::string_view part, const std::string &what) {
  tell("finding", Value::map({{"part", part}, {"what", what}}));
}

void failure(std::string_view part, const std::string &what) {
  tell("failure", Value::map({{"part", part}, {"what", what}}));
}

void Latencies::add(std::chrono::nanoseconds time) {
  std::lock_guard lock(mutex_);
  times_.push_back(std::chrono::duration<float, std::micro>(time).count());
}

void Latencies::take(Value &into) {
  std::vector<float> times;
  {
    std::lock_guard lock(mutex_);
    times.swap(times_);
  }
  if (times.empty()) return;
  std::sort(times.begin(), times.end());
  into.set("p50", double(times[times.size() / 2]));
  into.set("p99", double(times[times.size() * 99 / 100]));
}

}  // namespace soak
