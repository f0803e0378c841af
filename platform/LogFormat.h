#pragma once

#include <QELNetworkKit/Log.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

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

/// What a peer or a user wrote, for a line of the log: the first of it, of which nothing ends the line or means
/// something to a terminal.
inline std::string printable(std::string_view text, size_t longest = 1024) {
  const auto isContinuation = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; };
  size_t length = std::min(text.size(), longest);
  while (length > 0 && length < text.size() && isContinuation(text[length])) --length;  // no half of a character
  std::string line(text.substr(0, length));
  for (size_t i = 0; i < line.size(); ++i) {
    const auto c = static_cast<unsigned char>(line[i]);
    if (c < ' ' || c == 0x7F) line[i] = '?';
    // The control characters behind ASCII, two bytes each.
    if (c == 0xC2 && i + 1 < line.size() && (static_cast<unsigned char>(line[i + 1]) & 0xE0) == 0x80)
      line.replace(i, 2, "?");
  }
  return line;
}

/// Counts what a peer can make happen as often as it likes. A line on the log is due the first time, the tenth, the
/// hundredth and so on.
class Recurrence {
 public:
  /// It has happened again; whether a line is due.
  bool again() {
    if (++count_ != due_) return false;
    due_ *= 10;
    return true;
  }
  uint64_t count() const { return count_; }

 private:
  uint64_t count_ = 0, due_ = 1;
};

}  // namespace qelnk
