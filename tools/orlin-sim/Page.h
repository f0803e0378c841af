#pragma once

#include <string_view>

namespace sim {

/// The page that shows the project. Each "{{nonce}}" in it is replaced whenever it is served.
extern const std::string_view page;

}  // namespace sim
