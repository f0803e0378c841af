#include "encoding/NumberText.h"

#include <fmt/format.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace qelnk::detail {

namespace {

constexpr uint64_t asciiZeros = 0x3030303030303030;

// The decimal digits of all numbers below 100, two each.
constexpr auto pairs = [] {
  std::array<char, 200> table{};
  for (size_t i = 0; i < 100; ++i) {
    table[2 * i] = char('0' + i / 10);
    table[2 * i + 1] = char('0' + i % 10);
  }
  return table;
}();

inline uint32_t pair(uint32_t number) {
  uint16_t text;
  std::memcpy(&text, pairs.data() + 2 * number, 2);
  return text;
}

// The four digits of a number below 10^4 as text, the first in the lowest byte.
inline uint32_t fourDigits(uint32_t number) { return pair(number / 100) | pair(number % 100) << 16; }

// The eight of a number below 10^8.
inline uint64_t eightDigits(uint32_t number) {
  return fourDigits(number / 10000) | uint64_t(fourDigits(number % 10000)) << 32;
}

inline char *writeEight(char *to, uint32_t number) {
  const uint64_t text = eightDigits(number);
  std::memcpy(to, &text, 8);
  return to + 8;
}

// Without leading zeros.
inline char *writeUpToEight(char *to, uint32_t number) {
  if (number < 10000) {
    const uint32_t text = fourDigits(number);
    const int zeros = number ? std::countr_zero(text ^ 0x30303030) / 8 : 3;
    const uint32_t shown = text >> (8 * zeros);
    std::memcpy(to, &shown, 4);
    return to + 4 - zeros;
  }
  const uint64_t digits = eightDigits(number);
  const int zeros = std::countr_zero(digits ^ asciiZeros) / 8;
  const uint64_t text = digits >> (8 * zeros);
  std::memcpy(to, &text, 8);
  return to + 8 - zeros;
}

char *writeExponent(char *to, int exponent) {
  *to++ = 'e';
  *to++ = exponent < 0 ? '-' : '+';
  return writeInteger(to, static_cast<unsigned long>(std::abs(exponent)));
}

// A decimal of `digits` times 10 to the `exponent`: plain where that stays short, else with an exponent.
char *writeDecimal(char *to, uint64_t digits, int exponent) {
  char *const start = to;
  to = writeInteger(to, digits);
  const int count = int(to - start);
  const int point = count + exponent;  // how many digits stand before the point
  if (exponent >= 0 && point <= 17) {
    std::memset(to, '0', size_t(exponent));
    to += exponent;
    std::memcpy(to, ".0", 2);
    return to + 2;
  }
  if (point > 0 && point <= 17) {
    std::memmove(start + point + 1, start + point, size_t(count - point));
    start[point] = '.';
    return to + 1;
  }
  if (point > -5 && point <= 0) {
    std::memmove(start + 2 - point, start, size_t(count));
    std::memset(start, '0', size_t(2 - point));
    start[1] = '.';
    return to + 2 - point;
  }
  if (count > 1) {
    std::memmove(start + 2, start + 1, size_t(count - 1));
    start[1] = '.';
    ++to;
  }
  return writeExponent(to, point - 1);
}

template <class Float>
char *writeShortest(char *to, Float number) {
  if (std::signbit(number) && !std::isnan(number)) *to++ = '-';
  if (!std::isfinite(number)) {
    std::memcpy(to, std::isnan(number) ? "nan" : "inf", 3);
    return to + 3;
  }
  if (number == 0) {
    std::memcpy(to, "0.0", 3);
    return to + 3;
  }
  // The formatting library's Dragonbox: the shortest digits, twice as fast as std::to_chars, which writes them as well.
  const auto decimal = fmt::detail::dragonbox::to_decimal(std::abs(number));
  return writeDecimal(to, decimal.significand, decimal.exponent);
}

}  // namespace

char *writeInteger(char *to, unsigned long number) {
  constexpr uint64_t eight = 100'000'000;
  if (number < eight) return writeUpToEight(to, uint32_t(number));
  const uint64_t upper = number / eight;
  if (upper < eight) {
    to = writeUpToEight(to, uint32_t(upper));
  } else {
    to = writeUpToEight(to, uint32_t(upper / eight));
    to = writeEight(to, uint32_t(upper % eight));
  }
  return writeEight(to, uint32_t(number % eight));
}

char *writeDouble(char *to, double number) { return writeShortest(to, number); }
char *writeDouble(char *to, float number) { return writeShortest(to, number); }

}  // namespace qelnk::detail
