#include "support/TestSupport.h"

#include <QELNetworkKit/RunLoop.h>

#include <algorithm>
#include <filesystem>
#include <thread>

namespace qelnk::test {

bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  const auto loop = RunLoop::current();
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return condition();
    loop->runOnce(std::chrono::milliseconds(1));
  }
  return true;
}

CapturedLog::CapturedLog(LogLevel level) : previous_(QLGetHandle().level()) {
  QLGetHandle().setLevel(level);
  QLGetHandle().setSink([this](LogLevel, std::string_view line) {
    const std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  });
}

CapturedLog::~CapturedLog() {
  QLGetHandle().setSink(nullptr);
  QLGetHandle().setLevel(previous_);
}

std::vector<std::string> CapturedLog::lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

size_t CapturedLog::count(std::string_view text) const {
  const std::lock_guard lock(mutex_);
  return size_t(std::count_if(lines_.begin(), lines_.end(),
                              [&](const std::string &line) { return line.find(text) != std::string::npos; }));
}

static size_t entries(const char *folder) {
  return size_t(std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

size_t threadCount() {
  // A sanitizer starts a thread of its own with a process's first one: it belongs to every count. A thread that has
  // been joined may still be listed for a moment: it belongs to none.
  static const bool first = [] {
    const size_t before = entries("/proc/self/task");
    std::thread([] {}).join();
    return eventually([&] { return entries("/proc/self/task") == before; }, std::chrono::milliseconds(100));
  }();
  static_cast<void>(first);
  return entries("/proc/self/task");
}
size_t descriptorCount() { return entries("/proc/self/fd") - 1; }  // less the one that reads the folder

}  // namespace qelnk::test
