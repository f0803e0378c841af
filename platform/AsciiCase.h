#pragma once

#include <algorithm>
#include <string_view>

namespace qelnk {

/// Names in the domain name system do not tell the case of ASCII letters; whatever the locale says of them.
constexpr char lowerCase(char c) { return c >= 'A' && c <= 'Z' ? char(c + ('a' - 'A')) : c; }

inline bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lowerCase(x) == lowerCase(y); });
}

}  // namespace qelnk
