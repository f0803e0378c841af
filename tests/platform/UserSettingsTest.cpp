#include <QELNetworkKit/UserSettings.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <limits>

#include "support/TestSupport.h"

namespace qelnk {

namespace fs = std::filesystem;

class Settings : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "settings-XXXXXX").string();
    folder = mkdtemp(name.data());
  }
  void TearDown() override { fs::remove_all(folder); }
  fs::path file(const std::string &text) {
    std::ofstream(folder / "settings.json") << text;
    return folder / "settings.json";
  }
  fs::path folder;
};

TEST_F(Settings, EveryKindReadsAsNumberTruthAndString) {
  const UserSettings settings(file(R"({"true": true, "false": false, "port": 5000, "negative": -3, "half": -0.9,
    "big": 1e300, "unsigned": 18446744073709551615, "text": "hello", "digits": " -12 apples", "plus": "+7", "sign": "+-7",
    "huge": "99999999999999999999", "yes": "Yes", "zero": "0", "list": [1], "none": null, "deep": {"port": 1}})"));
  constexpr int64_t most = std::numeric_limits<int64_t>::max();
  const std::vector<std::tuple<std::string, int64_t, bool, std::optional<std::string>>> cases{
      {"true", 1, true, {}},        {"false", 0, false, {}},     {"port", 5000, true, {}},
      {"negative", -3, true, {}},   {"half", 0, true, {}},       {"big", most, true, {}},
      {"unsigned", most, true, {}}, {"text", 0, false, "hello"}, {"digits", -12, false, " -12 apples"},
      {"plus", 7, false, "+7"},     {"sign", 0, false, "+-7"},   {"huge", most, true, "99999999999999999999"},
      {"yes", 0, true, "Yes"},      {"zero", 0, false, "0"},     {"list", 0, false, {}},
      {"none", 0, false, {}},       {"deep", 0, false, {}},      {"absent", 0, false, {}}};
  for (const auto &[key, number, truth, text] : cases) {
    EXPECT_EQ(settings.integerForKey(key), number) << key;
    EXPECT_EQ(settings.boolForKey(key), truth) << key;
    EXPECT_EQ(settings.stringForKey(key), text) << key;
  }
}

TEST_F(Settings, WhatIsSetWinsUntilRemoved) {
  const fs::path path = file(R"({"port": 1})");
  UserSettings settings(path);
  settings.set("port", int64_t(2));
  settings.set("name", "studio");
  EXPECT_EQ(settings.integerForKey("port"), 2);
  EXPECT_EQ(settings.stringForKey("name"), "studio");
  settings.remove("port");
  settings.remove("absent");
  EXPECT_EQ(settings.integerForKey("port"), 0);
  EXPECT_EQ(UserSettings(path).integerForKey("port"), 1) << "the file stays as it is";
}

TEST_F(Settings, FileThatCannotBeReadCountsAsEmptyAndIsTold) {
  const test::CapturedLog log;
  EXPECT_EQ(UserSettings(folder / "absent.json").integerForKey("port"), 0);
  EXPECT_EQ(UserSettings(fs::path()).integerForKey("port"), 0);
  EXPECT_EQ(log.lines().size(), 0u);
  for (const std::string text : {"", "{\"port\": 1", "[1]", "{\"port\": 1} x"}) {
    EXPECT_EQ(UserSettings(file(text)).integerForKey("port"), 0) << text;
  }
  EXPECT_EQ(UserSettings(folder).integerForKey("port"), 0);
  EXPECT_EQ(log.count("UserSettings could not read"), 5u);
}

TEST_F(Settings, StandardOnesAreOfTheNamedApplication) {
  const test::CapturedLog log;
  fs::create_directory(folder / "Studio");
  std::ofstream(folder / "Studio" / "settings.json") << R"({"orlinBasePort": 7000})";
  ASSERT_EQ(setenv("XDG_CONFIG_HOME", folder.c_str(), 1), 0);
  UserSettings::setApplicationName("Studio");
  EXPECT_EQ(UserSettings::standard().integerForKey("orlinBasePort"), 7000);
  UserSettings::setApplicationName("Other");
  EXPECT_TRUE(log.contains("Other comes too late"));
  EXPECT_EQ(UserSettings::standard().integerForKey("orlinBasePort"), 7000);
}

}  // namespace qelnk
