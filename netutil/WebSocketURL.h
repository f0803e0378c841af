#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qelnk {

/// Where a WebSocket connects to, and what it asks for there.
struct WebSocketURL {
  bool isSecure = false;
  std::string host;  // without the brackets of an IPv6 address
  uint16_t port = 0;
  std::string authority;  // the host as a request names it, with a port that is not the scheme's own
  std::string target;     // path and query

  /// None for a text that is no such URL. User information and a fragment are left out.
  static std::optional<WebSocketURL> parse(std::string_view text);
  /// For people.
  std::string description() const { return (isSecure ? "wss://" : "ws://") + authority + target; }
};

}  // namespace qelnk
