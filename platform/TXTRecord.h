#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qelnk {

/// The entries of a record's wire form, without the empty ones, as far as they can be read.
std::vector<std::string> txtEntries(std::string_view data);

/// The wire form of entries of at most 255 bytes each.
std::string txtData(const std::vector<std::string> &entries);

}  // namespace qelnk
