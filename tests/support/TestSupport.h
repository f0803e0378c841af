#pragma once

#include <QELNetworkKit/Log.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace qelnk::test {

/// Waits until `condition` holds, at most `limit`; serves the calling thread's run loop meanwhile, so that main-queue
/// callbacks arrive in tests. Returns whether it came to hold.
bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds limit = std::chrono::seconds(10));

/// Takes the library's log over for its lifetime, at `level`.
class CapturedLog {
 public:
  explicit CapturedLog(LogLevel level = LogLevel::debug);
  ~CapturedLog();
  std::vector<std::string> lines() const;
  /// How many lines hold `text`.
  size_t count(std::string_view text) const;
  bool contains(std::string_view text) const { return count(text) != 0; }

 private:
  LogLevel previous_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

/// Threads and open descriptors of this process, to see that something leaves none behind.
size_t threadCount();
size_t descriptorCount();

}  // namespace qelnk::test
