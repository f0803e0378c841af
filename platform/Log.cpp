#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/Mutex.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <cxxabi.h>

#include <memory>
#include <utility>

#include "platform/Guard.h"
#include "platform/LogFormat.h"

namespace qelnk {

namespace {

std::shared_ptr<spdlog::logger> makeStandardErrorLogger() {
  // Not registered: the host's own loggers stay as they are.
  auto logger = std::make_shared<spdlog::logger>("QELNetworkKit", std::make_shared<spdlog::sinks::stderr_sink_st>());
  logger->set_level(spdlog::level::trace);
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] %n: %v");
  return logger;
}

spdlog::level::level_enum standardErrorLevel(LogLevel level) {
  if (level == LogLevel::debug) return spdlog::level::debug;
  return level == LogLevel::standard ? spdlog::level::info : spdlog::level::err;
}

/// Where the lines go. The mutex is held while a sink runs, which is how setSink() knows that it is over, and is
/// recursive so that a sink may replace itself.
class Output {
 public:
  void setSink(LogHandle::Sink sink) {
    auto next = sink ? std::make_shared<const LogHandle::Sink>(std::move(sink)) : nullptr;
    const Lock lock(mutex_);
    sink_.swap(next);
  }

  void write(LogLevel level, std::string_view line) {
    const Lock lock(mutex_);
    if (writing_) return;  // a sink that logs would never come to an end
    writing_ = true;
    const auto sink = sink_;
    try {
      sink ? (*sink)(level, line) : standardError_->log(standardErrorLevel(level), line);
    } catch (const abi::__forced_unwind &) {  // the thread is being ended, which may not be stopped
      writing_ = false;
      throw;
    } catch (...) {  // nowhere left to tell it
    }
    writing_ = false;
  }

 private:
  RecursiveMutex mutex_;
  bool writing_ QELNK_GUARDED_BY(mutex_) = false;
  std::shared_ptr<const LogHandle::Sink> sink_ QELNK_GUARDED_BY(mutex_);
  const std::shared_ptr<spdlog::logger> standardError_ = makeStandardErrorLogger();
};

Output &output() {
  static Output &immortal = *new Output;
  return immortal;
}

}  // namespace

void LogHandle::setSink(Sink sink) { output().setSink(std::move(sink)); }

void LogHandle::write(LogLevel level, std::string_view line) {
  if (enabled(level) && level < LogLevel::off) output().write(level, line);
}

void reportEscaped(std::string_view who, std::string_view what) { logError("{} threw: {}", who, what); }

}  // namespace qelnk

qelnk::LogHandle &QLGetHandle() {
  static qelnk::LogHandle &immortal = *new qelnk::LogHandle;
  return immortal;
}
