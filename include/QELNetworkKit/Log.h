#pragma once

#include <QELNetworkKit/Export.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string_view>

namespace qelnk {

/// Levels of the log, least important first. A handle writes the lines at or above its level.
enum class LogLevel : uint8_t { debug = 0, standard = 1, error = 2, off = 3 };

/// The library's log. Lines go to standard error until the host takes them over.
///
/// Threads: any. A line below the level in force costs one comparison: callers ask enabled() before they build a text.
/// The handle outlives every other object of the process.
class QELNK_EXPORT LogHandle {
 public:
  /// Gets each line with its level, on the thread that wrote it, one at a time. It must not log, nor wait for other
  /// threads of the library.
  using Sink = std::function<void(LogLevel, std::string_view)>;

  /// Whether a line of `level` would be written.
  bool enabled(LogLevel level) const { return level >= level_.load(std::memory_order_relaxed); }

  /// The level in force; `standard` unless set (lifecycle lines and errors).
  LogLevel level() const { return level_.load(std::memory_order_relaxed); }
  void setLevel(LogLevel level) { level_.store(level, std::memory_order_relaxed); }

  /// Hands the lines to the host instead of standard error; an empty function gives them back. Once it has returned,
  /// the sink set before is no longer being called.
  void setSink(Sink sink);

  /// Writes `line` when `level` is enabled.
  void write(LogLevel level, std::string_view line);

 private:
  std::atomic<LogLevel> level_{LogLevel::standard};
};

}  // namespace qelnk

/// The handle of the unified log; one for the process.
QELNK_EXPORT qelnk::LogHandle &QLGetHandle();
