#include <QELNetworkKit/JSON.h>
#include <QELNetworkKit/PQODictionary.h>
#include <QELNetworkKit/XMLDocument.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cmath>
#include <limits>
#include <random>

using qelnk::Data;
using qelnk::Error;
using qelnk::jsonData;
using qelnk::jsonObject;
using qelnk::JSONTopLevel;
using qelnk::Kind;
using qelnk::Value;

namespace {

std::string written(const Value &value) { return std::string(jsonData(value, nullptr, JSONTopLevel::any)->text()); }

TEST(JSON, KeepsKindsOrderAndTextThroughARoundTrip) {
  const std::string text =
      R"({"z":1,"a":-9223372036854775808,"u":18446744073709551615,"d":1.0,"e":1e+300,"s":"\"\\\n\u0001é😀","l":[[],{},null,true]})";
  Error error;
  const auto value = jsonObject(text, &error);
  ASSERT_TRUE(value) << error.description;
  EXPECT_EQ((*value)["z"].kind(), Kind::int64);
  EXPECT_EQ((*value)["u"].kind(), Kind::uint64);
  EXPECT_EQ((*value)["d"].kind(), Kind::float64);
  EXPECT_EQ((*value)["s"].string(), "\"\\\n\u0001é😀");
  EXPECT_EQ(written(*value), text);
  EXPECT_EQ((*jsonObject(R"({"a":1,"b":2,"a":3})")), Value::map({{"a", 3}, {"b", 2}}));
  EXPECT_EQ(written(PQODictionary{{"z", 1}, {"a", 2}}), R"({"z":1,"a":2})");
}

TEST(JSON, DoublesAreExactBothWays) {
  std::mt19937_64 random(7);
  std::vector<double> numbers = {0.0,
                                 -0.0,
                                 1.0,
                                 0.1,
                                 1e21,
                                 1e22,
                                 1e-5,
                                 1e-7,
                                 123456789012345680.0,
                                 5e-324,
                                 1e308,
                                 2.5e-3,
                                 1e15,
                                 1e16,
                                 1e17,
                                 1e18,
                                 99999999999999990.0,
                                 0.3,
                                 1 / 3.,
                                 1e100,
                                 100.125,
                                 1e-300,
                                 12345678.9,
                                 std::numeric_limits<double>::max()};
  while (numbers.size() < 20000) {
    const uint64_t bits = random();
    const double number = std::bit_cast<double>(bits);
    if (std::isfinite(number)) numbers.push_back(number);
    numbers.push_back(double(int64_t(bits)) / 1024);
    numbers.push_back(double(bits >> 40) * 0.01);
  }
  for (const double number : numbers) {
    if (!std::isfinite(number)) continue;
    const std::string text = written(number);
    const auto back = jsonObject(text, nullptr, JSONTopLevel::any);
    ASSERT_TRUE(back) << text;
    ASSERT_EQ(back->kind(), Kind::float64) << text;
    ASSERT_EQ(std::bit_cast<uint64_t>(back->doubleValue()), std::bit_cast<uint64_t>(number)) << text;
    ASSERT_LE(text.size(), 24u);
  }
  EXPECT_EQ(written(0.1f), "0.10000000149011612");
  EXPECT_EQ(written(1e15), "1000000000000000.0");
}

TEST(JSON, IntegersOfEveryLength) {
  for (uint64_t n = 1, digits = 1; digits <= 20; ++digits, n *= 10) {
    for (const uint64_t m : {n - 1, n, n + 1, n * 3 / 2}) {
      EXPECT_EQ(written(m), std::to_string(m));
      if (m <= uint64_t(std::numeric_limits<int64_t>::max())) {
        EXPECT_EQ(written(-int64_t(m)), std::to_string(-int64_t(m)));
      }
    }
  }
  EXPECT_EQ(written(std::numeric_limits<uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(written(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
}

TEST(JSON, StringsOfEveryLengthWithSomethingSpecialAnywhere) {
  const std::pair<std::string, std::string> specials[] = {
      {"x", "x"},          {"\"", "\\\""}, {"\\", "\\\\"}, {"\n", "\\n"},    {std::string(1, '\0'), "\\u0000"},
      {"\x1f", "\\u001f"}, {" ", " "},     {"!", "!"},     {"\x7f", "\x7f"}, {"é", "é"}};
  for (size_t length = 0; length <= 40; ++length)
    for (size_t place = 0; place <= length; ++place) {
      const std::string before(place, 'a'), after(length - place, ']');
      for (const auto &[special, form] : specials)
        EXPECT_EQ(written(before + special + after), '"' + before + form + after + '"');
      EXPECT_FALSE(jsonData(Value::list({before + "\x80" + after})));
      EXPECT_FALSE(jsonData(Value::list({before + "\xc3" + after})));
    }
}

TEST(JSON, RefusesWhatHasNoForm) {
  const std::pair<Value, const char *> refused[] = {
      {Value::list({Data{1}}), "byte buffer"},
      {Value::list({std::nan("")}), "NaN"},
      {Value::list({1, std::numeric_limits<float>::infinity()}), "infinities"},
      {Value::map({{1, 2}}), "key"},
      {Value::map({{Value::list(), 2}}), "key"},
      {Value::list({qelnk::XMLDocument()}), "XML"},
      {Value::list({"\xff"}), "UTF-8"},
      {7, "top level"},
      {"text", "top level"},
      {nullptr, "top level"}};
  for (const auto &[value, reason] : refused) {
    Error error;
    EXPECT_FALSE(jsonData(value, &error)) << value;
    EXPECT_EQ(error.domain, "JSON");
    EXPECT_NE(error.description.find(reason), std::string::npos) << error.description;
  }
}

TEST(JSON, RefusesMalformedText) {
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  for (const std::string &text :
       {std::string(), std::string("{"), std::string("[1,]"), std::string("[1] x"), std::string("{\"a\" 1}"),
        std::string("[01]"), std::string("[1e400]"), std::string("[18446744073709551616]"), std::string("[\"\xff\"]"),
        std::string("7"), std::string("nul"), deep}) {
    Error error;
    EXPECT_FALSE(jsonObject(text, &error)) << text.substr(0, 30);
    EXPECT_EQ(error.domain, "JSON");
    EXPECT_FALSE(error.description.empty());
  }
  EXPECT_EQ(*jsonObject("7", nullptr, JSONTopLevel::any), Value(7));
}

// Neither what was malformed nor what was fine leaves a large buffer with the thread.
TEST(JSON, KeepsNoLargeBuffers) {
  const auto used = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
  std::string text = "[" + std::string(size_t(20) << 20, ' ') + "1]";
  const size_t before = used();
  EXPECT_TRUE(jsonObject(text));
  EXPECT_LT(used(), before + (size_t(4) << 20));
  text.back() = '}';
  EXPECT_FALSE(jsonObject(text));
  EXPECT_LT(used(), before + (size_t(4) << 20));
  EXPECT_FALSE(jsonObject(Data().span()));
}

}  // namespace
