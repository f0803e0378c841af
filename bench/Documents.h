#pragma once

#include <QELNetworkKit/Value.h>

#include <string>
#include <utility>
#include <vector>

/// The documents that encodings are measured with: name and tree.
inline std::vector<std::pair<std::string, qelnk::Value>> benchmarkDocuments() {
  using qelnk::Value;
  const Value small = Value::map({{"command", "setPortValue"},
                                  {"timestamp", 1700000000123.25},
                                  {"messageID", 4711},
                                  {"data", Value::map({{"id", "w1.p17"}, {"value", 0.5}})}});
  Value ports = Value::list();
  for (int i = 0; i < 200; ++i) {
    const std::string number = std::to_string(i);
    ports.append(Value::map({{"id", "w1.p" + number},
                             {"name", "Port " + number},
                             {"portType", i % 3 ? "input" : "output"},
                             {"portValueType", "doub"},
                             {"value", i * 0.25}}));
  }
  Value numbers = Value::list();
  for (int i = 0; i < 100000; ++i) {
    const uint64_t mixed = uint64_t(i) * 0x9E3779B97F4A7C15;
    switch (i % 5) {
      case 0:
        numbers.append(int32_t(i % 128));
        break;
      case 1:
        numbers.append(-int32_t(i % 40000));
        break;
      case 2:
        numbers.append(double(mixed >> 12) / 65536);
        break;
      case 3:
        numbers.append(int64_t(mixed >> 2));
        break;
      default:
        numbers.append(uint32_t(mixed >> 40));
    }
  }
  Value strings = Value::list();
  for (int i = 0; i < 20000; ++i) strings.append(std::string(size_t(4 + i % 29), char('a' + i % 26)));
  qelnk::Data bytes = qelnk::Data::uninitialized(1 << 20);
  for (size_t i = 0; i < bytes.size(); ++i) bytes.mutableData()[i] = uint8_t(i * 31);
  Value buffer = Value::map({{"name", "frame"}, {"data", bytes}});
  return {{"small", small}, {"ports", ports}, {"numbers", numbers}, {"strings", strings}, {"buffer", buffer}};
}
