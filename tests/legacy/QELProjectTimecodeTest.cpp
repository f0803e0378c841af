#include <QELNetworkKit/QELNKLegacyServer.h>
#include <QELNetworkKit/QELProjectTimecode.h>
#include <gtest/gtest.h>

TEST(QELProjectTimecode, TextAndBack) {
  const auto text = [](auto... fields) { return QELProjectTimecode(fields...).XMLRepresentation(); };
  EXPECT_EQ(text(10, 59, 59, 24, 25), "10:59:59:24 25");
  EXPECT_EQ(text(1, 2, 3, 4, 29.97), "01:02:03:04 29.97");
  EXPECT_EQ(text(25, 61, 62, 30, 23.976), "01:01:02:06 23.976");
  EXPECT_EQ(text(0, 0, 0, 119, 120), "00:00:00:119 120");
  EXPECT_EQ(text(0, 0, 0, 0, 0.0), "00:00:00:00 25");
  for (const std::string written : {"10:59:59:24 25", "01:02:03:04 29.97", "00:00:00:119 120"}) {
    const auto timecode = QELProjectTimecode::timecodeWithString(written);
    EXPECT_TRUE(timecode.isValid()) << written;
    EXPECT_EQ(timecode.XMLRepresentation(), written);
    EXPECT_EQ(timecode, QELProjectTimecode(timecode.hours(), timecode.minutes(), timecode.seconds(), timecode.frames(),
                                           timecode.rate()));
  }
  // Another's text is kept as it is.
  for (const std::string other :
       {"", "x", "10:59:59:24", "10:59:59:25 25", "1:2:3:4 25", "10:59:59:24 25 ", "10:59:59:24 -1",
        "10:59:59;24 29.97", "24:00:00:00 25", "00:00:00:00 1e9", "00:00:00:00 inf"}) {
    const auto timecode = QELProjectTimecode::timecodeWithString(other);
    EXPECT_FALSE(timecode.isValid()) << other;
    EXPECT_EQ(timecode.XMLRepresentation(), other);
  }
  EXPECT_EQ(QELNKLegacyServer::timecodeStringForTimecode(QELProjectTimecode(), "on air"),
            "heartbeat 00:00:00:00 25 on air");
  EXPECT_EQ(QELNKLegacyServer::timecodeStringForTimecode(QELProjectTimecode(), std::nullopt),
            "heartbeat 00:00:00:00 25");
  EXPECT_EQ(QELProjectTimecode::timeOfDay(1e9 + 0.5, 50).frames(), 25u);
}
