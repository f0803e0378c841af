#include <gtest/gtest.h>

#include <thread>

#include "platform/LogFormat.h"
#include "support/TestSupport.h"

namespace qelnk {

TEST(Log, LevelDecidesWhatIsWrittenAndWhatIsFormatted) {
  const test::CapturedLog log(LogLevel::standard);
  logDebug("debug {}", 1);
  logDefault("default {}", 2);
  logError("error {}", 3);
  QLGetHandle().setLevel(LogLevel::off);
  logError("error {}", 4);
  QLGetHandle().write(LogLevel::off, "off is no level to write at");
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"default 2", "error 3"}));
}

TEST(Log, StandardErrorGetsLinesWithTheirLevel) {
  testing::internal::CaptureStderr();
  logError("{{braces}} {}", "%s");
  logDefault("started");
  logDebug("unseen");
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_NE(text.find("[error] QELNetworkKit: {braces} %s\n"), std::string::npos) << text;
  EXPECT_NE(text.find("[info] QELNetworkKit: started\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("unseen"), std::string::npos) << text;
}

TEST(Log, OldSinkIsNotCalledOnceAnotherIsSet) {
  const test::CapturedLog quiet;
  std::atomic<bool> over = false;
  std::vector<std::thread> writers;
  for (int n = 0; n < 2; ++n)
    writers.emplace_back([&] {
      while (!over) logError("line");
    });
  for (int round = 0; round < 2000; ++round) {
    const auto inside = std::make_unique<int>(0);
    QLGetHandle().setSink([sink = inside.get()](LogLevel, std::string_view) { ++*sink; });
    QLGetHandle().setSink([](LogLevel, std::string_view) {});
  }
  over = true;
  for (auto &writer : writers) writer.join();
}

TEST(Log, SinkMayReplaceItselfLogAndThrow) {
  int first = 0, second = 0;
  QLGetHandle().setSink([&](LogLevel, std::string_view) {
    ++first;
    logError("from inside");
    QLGetHandle().setSink([&](LogLevel, std::string_view) {
      ++second;
      throw std::runtime_error("full disk");
    });
    ++first;
  });
  for (int n = 0; n < 3; ++n) logError("line");
  QLGetHandle().setSink(nullptr);
  EXPECT_EQ(first, 2);
  EXPECT_EQ(second, 2);
}

}  // namespace qelnk
