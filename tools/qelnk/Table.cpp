#include "Table.h"

#include <algorithm>

namespace tool {

size_t widthOf(std::string_view text) {
  return size_t(std::count_if(text.begin(), text.end(), [](char byte) { return (uint8_t(byte) & 0xC0) != 0x80; }));
}

std::string padded(std::string_view text, size_t width) {
  const size_t used = widthOf(text);
  return std::string(text) + std::string(width > used ? width - used : 0, ' ');
}

std::string Table::text(std::string_view indent) const {
  std::vector<size_t> widths;
  for (const auto &row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], widthOf(row[column]));
  }
  std::string result;
  for (const auto &row : rows_) {
    std::string line(indent);
    for (size_t column = 0; column < row.size(); ++column) line += padded(row[column], widths[column]) + "  ";
    line.erase(line.find_last_not_of(' ') + 1);
    result += line + "\n";
  }
  return result;
}

}  // namespace tool
