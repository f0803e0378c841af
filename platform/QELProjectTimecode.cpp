#include <QELNetworkKit/QELProjectTimecode.h>
#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <ctime>
#include <optional>

namespace {

constexpr double lowestRate = 1, highestRate = 999;

bool isRate(double rate) { return rate >= lowestRate && rate <= highestRate; }

std::string textOfRate(double rate) {
  std::string text = fmt::format("{:.3f}", rate);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

/// Takes two digits and what follows them off the front.
std::optional<uint32_t> takeField(std::string_view &text, char behind) {
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + std::min<size_t>(text.size(), 3), value);
  const auto digits = size_t(end - text.data());
  if (error != std::errc() || digits < 2 || digits >= text.size() || text[digits] != behind) return std::nullopt;
  text.remove_prefix(digits + 1);
  return value;
}

}  // namespace

QELProjectTimecode::QELProjectTimecode(uint32_t hours, uint32_t minutes, uint32_t seconds, uint32_t frames, double rate)
    : hours_(hours % 24),
      minutes_(minutes % 60),
      seconds_(seconds % 60),
      rate_(isRate(rate) ? std::round(rate * 1000) / 1000 : 25) {
  frames_ = frames % uint32_t(std::ceil(rate_));
  text_ = fmt::format("{:02}:{:02}:{:02}:{:02} {}", hours_, minutes_, seconds_, frames_, textOfRate(rate_));
}

QELProjectTimecode QELProjectTimecode::timecodeWithString(std::string_view text) {
  std::string_view rest = text;
  const auto hours = takeField(rest, ':'), minutes = takeField(rest, ':'), seconds = takeField(rest, ':'),
             frames = takeField(rest, ' ');
  double rate = 0;
  const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), rate, std::chars_format::fixed);
  if (hours && minutes && seconds && frames && error == std::errc() && end == rest.data() + rest.size() &&
      isRate(rate)) {
    QELProjectTimecode timecode(*hours, *minutes, *seconds, *frames, rate);
    if (timecode.text_ == text) return timecode;
  }
  return QELProjectTimecode(std::string(text));
}

QELProjectTimecode QELProjectTimecode::timeOfDay(double wallTime, double rate) {
  if (!isRate(rate)) rate = 25;
  const auto whole = time_t(std::floor(wallTime));
  tm local{};
  localtime_r(&whole, &local);
  return {uint32_t(local.tm_hour), uint32_t(local.tm_min), uint32_t(local.tm_sec),
          uint32_t((wallTime - std::floor(wallTime)) * rate), rate};
}
