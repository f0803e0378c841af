// WebSocket URLs: what is asked for is one line of plain text, and the description of a URL is a URL of the same place.

#include "netutil/WebSocketURL.h"

#include "Fuzz.h"

using qelnk::WebSocketURL;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text = fuzz::textOf({data, size});
  const auto isPlain = [](std::string_view part) {
    return std::ranges::all_of(part, [](char c) { return c > ' ' && c < 0x7F; });
  };
  const auto url = WebSocketURL::parse(text);
  if (!url) return 0;
  fuzz::require(!url->host.empty() && url->port != 0, "there is somewhere to connect to");
  fuzz::require(isPlain(url->authority) && isPlain(url->target) && url->target.starts_with('/'),
                "a request is one line of plain text");
  const auto again = WebSocketURL::parse(url->description());
  fuzz::require(again && again->port == url->port && again->isSecure == url->isSecure &&
                    again->authority == url->authority && again->target == url->target,
                "a description is a URL of the same place");
  return 0;
}
