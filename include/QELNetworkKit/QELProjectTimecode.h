#pragma once

#include <QELNetworkKit/Export.h>

#include <cstdint>
#include <string>
#include <string_view>

/// A position in a programme: hours, minutes, seconds and frames, at a frame rate.
///
/// Its text form is "HH:MM:SS:FF RATE", "10:59:59:24 25" for one; the rate has up to three decimals. A text of another
/// form, as other makers' applications may write, is kept as it is: such a timecode is not valid but still has its
/// text.
///
/// Threads: like a standard container.
class QELNK_EXPORT QELProjectTimecode {
 public:
  /// 00:00:00:00 at 25 frames a second.
  QELProjectTimecode() : QELProjectTimecode(0, 0, 0, 0, 25) {}
  /// Values are taken modulo 24 hours, 60 minutes, 60 seconds and the rate rounded up; a rate that is not between 1 and
  /// 999 is taken as 25.
  QELProjectTimecode(uint32_t hours, uint32_t minutes, uint32_t seconds, uint32_t frames, double rate);

  /// The timecode that `text` writes.
  static QELProjectTimecode timecodeWithString(std::string_view text);
  /// The local time of day at `rate`, for `wallTime` seconds since 1970.
  static QELProjectTimecode timeOfDay(double wallTime, double rate = 25);

  /// The text form; the text that it was made with, if that has another form.
  const std::string &XMLRepresentation() const { return text_; }

  /// Whether its text has the form.
  bool isValid() const { return rate_ > 0; }
  /// These are 0 when it is not valid.
  uint32_t hours() const { return hours_; }
  /// 0 to 59.
  uint32_t minutes() const { return minutes_; }
  /// 0 to 59.
  uint32_t seconds() const { return seconds_; }
  /// 0 to the rate rounded up, less one.
  uint32_t frames() const { return frames_; }
  /// Frames a second.
  double rate() const { return rate_; }

  /// Equal when the texts are.
  bool operator==(const QELProjectTimecode &other) const { return text_ == other.text_; }

 private:
  explicit QELProjectTimecode(std::string text) : text_(std::move(text)) {}

  uint32_t hours_ = 0, minutes_ = 0, seconds_ = 0, frames_ = 0;
  double rate_ = 0;
  std::string text_;
};
