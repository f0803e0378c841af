#pragma once

#include <QELNetworkKit/Value.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "encoding/NumberText.h"
#include "encoding/ValueStorage.h"

namespace qelnk::detail {

/// A growing text in UTF-8 that JSON is written to.
class TextSink {
 public:
  TextSink() { grow(512); }

  void put(char c) {
    makeRoom(1);
    *cursor_++ = c;
  }
  void put(std::string_view text) {
    if (text.empty()) return;
    makeRoom(text.size());
    std::memcpy(cursor_, text.data(), text.size());
    cursor_ += text.size();
  }

  /// A number in the shortest form that reads back as the same; floats always with a fraction or an exponent.
  void putNumber(const Value &value) {
    makeRoom(longestNumber);
    const uint64_t bits = Access::bits(value);
    if (value.kind() == Kind::float64) {
      cursor_ = writeDouble(cursor_, std::bit_cast<double>(bits));
    } else if (value.kind() == Kind::float32) {
      cursor_ = writeDouble(cursor_, std::bit_cast<float>(uint32_t(bits)));
    } else if (value.kind() < Kind::uint8 && int64_t(bits) < 0) {
      *cursor_++ = '-';
      cursor_ = writeInteger(cursor_, 0 - bits);
    } else {
      cursor_ = writeInteger(cursor_, bits);
    }
  }

  /// A quoted string that is ASCII and needs no escape, as nearly all are: looked at and copied in one pass, eight
  /// bytes at a time. Returns false, with nothing written, for any other.
  bool putPlain(std::string_view text) {
    makeRoom(text.size() + 2);
    char *to = cursor_;
    *to++ = '"';
    const char *at = text.data();
    const size_t size = text.size();
    uint64_t special = 0;
    if (size >= 8) {
      const char *const last = at + size - 8;  // the last eight, some of them again
      for (; at < last && !special; at += 8, to += 8) special = copyWord(to, at);
      to = cursor_ + 1 + size - 8;
      special |= copyWord(to, last);
      to += 8;
    } else if (size >= 4) {
      uint32_t first, second;
      std::memcpy(&first, at, 4);
      std::memcpy(&second, at + size - 4, 4);
      std::memcpy(to, &first, 4);
      std::memcpy(to + size - 4, &second, 4);
      special = specialIn(first | uint64_t(second) << 32);
      to += size;
    } else {
      for (const char *const end = at + size; at != end; ++at) {
        special |= needsEscape[uint8_t(*at)] | (uint8_t(*at) & 0x80);
        *to++ = *at;
      }
    }
    if (special) return false;
    *to++ = '"';
    cursor_ = to;
    return true;
  }

  /// A quoted string with what JSON wants escaped.
  void putQuoted(std::string_view text) {
    makeRoom(text.size() + 2);
    *cursor_++ = '"';
    const char *run = text.data();
    const char *const end = run + text.size();
    for (const char *at = run;;) {
      while (end - at >= 8 && plainWord(at)) at += 8;
      while (at != end && !needsEscape[uint8_t(*at)]) ++at;
      if (at == end) break;
      put(std::string_view(run, size_t(at - run)));
      putEscape(*at++);
      run = at;
      makeRoom(size_t(end - run) + 2);
    }
    put(std::string_view(run, size_t(end - run)));
    put('"');
  }

  Data finishData() {
    data_.resize(size_t(cursor_ - begin()));
    return std::move(data_);
  }
  std::string_view text() { return {begin(), size_t(cursor_ - begin())}; }

 private:
  static constexpr auto needsEscape = [] {
    std::array<bool, 256> table{};
    for (int c = 0; c < 0x20; ++c) table[size_t(c)] = true;
    table['"'] = table['\\'] = true;
    return table;
  }();

  // Whether eight characters hold none that needs an escape.
  static bool plainWord(const char *at) {
    constexpr uint64_t ones = 0x0101010101010101, high = 0x8080808080808080;
    uint64_t word;
    std::memcpy(&word, at, 8);
    const auto hasZero = [](uint64_t x) { return (x - ones) & ~x & high; };
    const uint64_t control = (word - ones * 0x20) & ~word & high;
    return !(control | hasZero(word ^ ones * '"') | hasZero(word ^ ones * '\\'));
  }

  // Bits for those of eight characters that are not ASCII or need an escape.
  static uint64_t specialIn(uint64_t word) {
    constexpr uint64_t ones = 0x0101010101010101, high = 0x8080808080808080;
    // Where no high bit is set, what is less borrows from it.
    return (word | (word - ones * 0x20) | ((word ^ ones * '"') - ones) | ((word ^ ones * '\\') - ones)) & high;
  }
  static uint64_t copyWord(char *to, const char *from) {
    uint64_t word;
    std::memcpy(&word, from, 8);
    std::memcpy(to, &word, 8);
    return specialIn(word);
  }

  void putEscape(char c) {
    switch (c) {
      case '"':
        return put("\\\"");
      case '\\':
        return put("\\\\");
      case '\n':
        return put("\\n");
      case '\r':
        return put("\\r");
      case '\t':
        return put("\\t");
      default: {
        static constexpr char digits[] = "0123456789abcdef";
        const char escape[] = {'\\', 'u', '0', '0', digits[uint8_t(c) >> 4], digits[c & 15]};
        put(std::string_view(escape, sizeof escape));
      }
    }
  }

  char *begin() { return reinterpret_cast<char *>(const_cast<uint8_t *>(data_.data())); }
  void makeRoom(size_t count) {
    if (size_t(end_ - cursor_) < count) grow(count);
  }
  void grow(size_t more) {
    const size_t used = data_.data() ? size_t(cursor_ - begin()) : 0;
    data_.resize(std::max(used + more, 2 * used));
    cursor_ = begin() + used;
    end_ = begin() + data_.size();
  }

  Data data_;
  char *cursor_ = nullptr;
  char *end_ = nullptr;
};

}  // namespace qelnk::detail
