#include "Base64.h"

#include <array>

namespace tool {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> digits = [] {
  std::array<int8_t, 256> table{};
  table.fill(-1);
  for (size_t value = 0; value < alphabet.size(); ++value) table[uint8_t(alphabet[value])] = int8_t(value);
  return table;
}();

}  // namespace

std::string base64Text(std::span<const uint8_t> bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t index = 0; index < bytes.size(); index += 3) {
    const size_t count = std::min<size_t>(3, bytes.size() - index);
    uint32_t group = 0;
    for (size_t byte = 0; byte < 3; ++byte) group = group << 8 | (byte < count ? bytes[index + byte] : 0);
    for (size_t digit = 0; digit < 4; ++digit) text += digit <= count ? alphabet[group >> (18 - 6 * digit) & 63] : '=';
  }
  return text;
}

std::optional<qelnk::Data> base64Data(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  const size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
  qelnk::Data data = qelnk::Data::uninitialized(text.size() / 4 * 3 - padding);
  uint8_t *out = data.empty() ? nullptr : data.mutableData();
  size_t written = 0;
  for (size_t index = 0; index < text.size(); index += 4) {
    const size_t count = index + 4 == text.size() ? 4 - padding : 4;
    uint32_t group = 0;
    for (size_t digit = 0; digit < 4; ++digit) {
      const int8_t value = digit < count ? digits[uint8_t(text[index + digit])] : int8_t(0);
      if (value < 0) return std::nullopt;
      group = group << 6 | uint32_t(value);
    }
    if (count < 4 && (group & (count == 2 ? 0xFFFF : 0xFF)) != 0) return std::nullopt;
    for (size_t byte = 0; byte + 1 < count; ++byte) out[written++] = uint8_t(group >> (16 - 8 * byte));
  }
  return data;
}

}  // namespace tool
