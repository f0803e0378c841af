#include "encoding/NumberText.h"

#include <fmt/format.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace qelnk::detail {

namespace {

constexpr uint64_t asciiZeros = 0x3030303030303030;

// The eight decimal digits of a number below 10^8, one a byte, the first in the lowest: three steps that divide all
// halves, then all pairs, then all digits at once.
uint64_t eightDigits(uint32_t number) {
  uint64_t digits = number / 10000 | uint64_t(number % 10000) << 32;
  const uint64_t hundreds = (digits * 10486 >> 20) & 0x7F0000007F;
  digits = (digits - 100 * hundreds) << 16 | hundreds;
  const uint64_t tens = (digits * 103 >> 10) & 0x000F000F000F000F;
  return (digits - 10 * tens) << 8 | tens;
}

char *writeEight(char *to, uint32_t number) {
  const uint64_t text = eightDigits(number) | asciiZeros;
  std::memcpy(to, &text, 8);
  return to + 8;
}

// Without leading zeros.
char *writeUpToEight(char *to, uint32_t number) {
  const uint64_t digits = eightDigits(number);
  const int zeros = digits ? std::countr_zero(digits) / 8 : 7;
  const uint64_t text = (digits | asciiZeros) >> (8 * zeros);
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
