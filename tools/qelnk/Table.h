#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

/// Rows of text with aligned columns.
class Table {
 public:
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  bool empty() const { return rows_.empty(); }
  /// The rows, one a line, each behind `indent`.
  std::string text(std::string_view indent = {}) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

/// `text` filled with spaces up to `width` characters.
std::string padded(std::string_view text, size_t width);
/// Number of characters of UTF-8 text.
size_t widthOf(std::string_view text);

}  // namespace tool
