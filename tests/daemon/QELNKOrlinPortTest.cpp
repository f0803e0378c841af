#include <QELNetworkKit/QELNKOrlinPort.h>
#include <gtest/gtest.h>

#include <limits>

#include "daemon/FakeDaemon.h"
#include "support/TestSupport.h"

using qelnk::Value;
using qelnk::test::portDescription;

namespace {

/// What a port of a type has after each of some values was stored.
struct Stored {
  const char *type;
  std::vector<Value> values;
  Value current;
  std::optional<std::string> text;
};

class OrlinPortValue : public testing::TestWithParam<Stored> {};

const int64_t beyond32Bits = (int64_t(7) << 32) + 5;

}  // namespace

TEST_P(OrlinPortValue, IsStoredByItsType) {
  const Stored &expected = GetParam();
  QELNKOrlinPort port(portDescription("p", "input", expected.type));
  for (const Value &value : expected.values) port.setValue(value);
  EXPECT_EQ(*port.currentValue(), expected.current);
  EXPECT_EQ(port.currentValue()->kind(), expected.current.kind());
  EXPECT_EQ(port.currentValueAsString(), expected.text);
}

static std::string nameOfCase(const testing::TestParamInfo<Stored> &info) {
  return std::string(info.param.type) + std::to_string(info.index);
}

INSTANTIATE_TEST_SUITE_P(
    Values, OrlinPortValue,
    testing::Values(Stored{"bool", {}, false, "F"}, Stored{"bool", {true}, true, "T"}, Stored{"bool", {2}, true, "T"},
                    Stored{"bool", {" -007"}, true, "T"}, Stored{"bool", {true, "no"}, false, "F"},
                    Stored{"bool", {true, Value()}, true, "T"}, Stored{"trig", {"yes"}, true, "T"},
                    Stored{"trig", {true, Value::list({0})}, true, "T"}, Stored{"int_", {"42"}, int32_t(42), "42"},
                    Stored{"int_", {true}, int32_t(1), "1"}, Stored{"int_", {-7.9}, int32_t(-7), "-7"},
                    Stored{"int_", {4, "x"}, int32_t(0), "0"}, Stored{"int_", {4, Value::map()}, int32_t(4), "4"},
                    Stored{"long", {beyond32Bits}, int32_t(5), "5"},
                    Stored{"long", {3, qelnk::Data{1}}, int32_t(3), "3"}, Stored{"doub", {1.25}, 1.25, "1.250000"},
                    Stored{"doub", {"2.5e1x"}, 25.0, "25.000000"},
                    Stored{"doub", {1.5, Value::list({2})}, 1.5, "1.500000"}, Stored{"str_", {}, Value(), std::nullopt},
                    Stored{"str_", {"é", 7, Value()}, "é", "é"}, Stored{"arry", {}, Value(), ""},
                    Stored{"arry", {Value::list({1, "a"}), "text"}, Value::list({1, "a"}), ""}),
    nameOfCase);

TEST(OrlinPort, TypesWithoutAValueHereKeepAndReportNothing) {
  for (const int32_t type : {3, 7, 8, 9, 10, 11}) {
    QELNKOrlinPort port(portDescription("p", "output", std::string(QELNKOrlinPort::nameOfValueType(type)), 5));
    EXPECT_EQ(port.valueType(), type);
    EXPECT_EQ(port.portType(), QELNKOrlinPortTypeOutput);
    EXPECT_EQ(port.currentValue(), std::nullopt);
    EXPECT_EQ(port.currentValueAsString(), "");
  }
}

TEST(OrlinPort, DescriptionsThatSayLittleOrNonsenseMakeAnInputOfTypeBool) {
  const qelnk::test::CapturedLog log;
  const QELNKOrlinPort unknown(portDescription("p", "sideways", "xxxx", true));
  EXPECT_TRUE(log.contains("Unknown port type xxxx"));
  const QELNKOrlinPort empty{Value::map()}, none{Value()}, numbers{Value::map({{"name", 1}, {"portValueType", 4}})};
  EXPECT_TRUE(log.contains("Unknown port type 4"));
  for (const QELNKOrlinPort *port : {&unknown, &empty, &none, &numbers}) {
    EXPECT_EQ(port->portType(), QELNKOrlinPortTypeInput);
    EXPECT_EQ(port->valueType(), QELNKOrlinPortValueType_bool);
    EXPECT_FALSE(port->boolValue());
  }
  EXPECT_EQ(unknown.uid(), "p");
  EXPECT_EQ(numbers.name(), std::nullopt);
  EXPECT_EQ(QELNKOrlinPort::nameOfValueType(13), "");
}
