#pragma once

#include <QELNetworkKit/Log.h>

#include <fmt/format.h>

namespace qelnk {

/// Writes a formatted line; the text is built only when its level is in force. Arguments are evaluated either way: wrap
/// what is costly to describe in an object with a formatter of its own, or ask enabled() first.
template <class... Arguments>
void logLine(LogLevel level, fmt::format_string<Arguments...> format, Arguments &&...arguments) {
  if (LogHandle &log = QLGetHandle(); log.enabled(level))
    log.write(level, fmt::format(format, std::forward<Arguments>(arguments)...));
}
template <class... Arguments>
void logDefault(fmt::format_string<Arguments...> format, Arguments &&...arguments) {
  logLine(LogLevel::standard, format, std::forward<Arguments>(arguments)...);
}
template <class... Arguments>
void logDebug(fmt::format_string<Arguments...> format, Arguments &&...arguments) {
  logLine(LogLevel::debug, format, std::forward<Arguments>(arguments)...);
}
template <class... Arguments>
void logError(fmt::format_string<Arguments...> format, Arguments &&...arguments) {
  logLine(LogLevel::error, format, std::forward<Arguments>(arguments)...);
}

}  // namespace qelnk
