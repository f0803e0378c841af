#pragma once

#include "platform/Simdjson.h"

#include <cstdint>
#include <cstring>
#include <string_view>

namespace qelnk::detail {

/// A hash that no peer can foresee: another in each process. Keys that a peer chooses cannot be made to meet.
size_t hashOfText(std::string_view text);

/// Whether `text` is UTF-8. Most strings are short and ASCII, which eight bytes at a time tell fastest.
inline bool isUTF8(std::string_view text) {
  const char *at = text.data();
  const char *const end = at + text.size();
  uint64_t high = 0;
  for (uint64_t word; end - at >= 8; at += 8) {
    std::memcpy(&word, at, 8);
    high |= word;
  }
  if (at != end && text.size() >= 8) {  // the last eight, some of them again
    uint64_t word;
    std::memcpy(&word, end - 8, 8);
    high |= word;
  } else {
    for (; at != end; ++at) high |= uint8_t(*at);
  }
  return !(high & 0x8080808080808080) || validateUTF8(text);
}

}  // namespace qelnk::detail
