#pragma once

#include <QELNetworkKit/Value.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tool {

/// The bytes as base64 with padding, on one line.
std::string base64Text(std::span<const uint8_t> bytes);
/// The bytes of padded base64. None for anything that base64Text() would not have written.
std::optional<qelnk::Data> base64Data(std::string_view text);

}  // namespace tool
