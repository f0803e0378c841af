// Names of the applications' log files.

#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/QELNKLegacyStream.h>
#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "platform/LogFormat.h"

namespace {

std::atomic<int64_t> logFileCounter{0};

std::string homeFolder() {
  if (const char *home = std::getenv("HOME"); home && *home) return home;
  passwd entry{}, *found = nullptr;
  std::array<char, 4096> buffer;
  getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
  return found && found->pw_dir ? found->pw_dir : "/";
}

/// The local date and time, year-month-day hours.minutes.seconds.milliseconds.
std::string dateText(double wallTime) {
  const auto seconds = time_t(std::floor(wallTime));
  tm local{};
  localtime_r(&seconds, &local);
  return fmt::format("{:04}-{:02}-{:02} {:02}.{:02}.{:02}.{:03}", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                     local.tm_hour, local.tm_min, local.tm_sec, int((wallTime - std::floor(wallTime)) * 1000));
}

}  // namespace

std::optional<std::string> QELNKLegacyStream::logFilenameForApp(const std::string &appID, const std::string &prefix,
                                                                const std::string &extension) {
  if (!(loggingMask() & logFiles)) return std::nullopt;
  std::string component = appID;
  std::replace_if(
      component.begin(), component.end(), [](char c) { return c == ':' || c == '/'; }, ' ');
  const auto folder = std::filesystem::path(homeFolder()) / "Library" / "Logs" / "Kestrova" / component;
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) {
    qelnk::logError("Could not create folder for schedule logging with error: {}", error.message());
    return std::nullopt;
  }
  return fmt::format("{}/{} {} {}.{}", folder.string(), dateText(qelnk::Clock::system()->wallTime()),
                     logFileCounter.fetch_add(1), prefix, extension);
}

std::optional<std::string> QELNKLegacyStream::logFilenameWithPrefix(const std::string &prefix,
                                                                    const std::string &extension) const {
  return logFilenameForApp(appID(), prefix, extension);
}
