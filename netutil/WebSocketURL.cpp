#include "netutil/WebSocketURL.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "platform/AsciiCase.h"

namespace qelnk {

namespace {

/// Takes the text before `end` away, and `end` too; none where that is not there.
std::optional<std::string_view> takeUpTo(std::string_view &text, std::string_view end) {
  const size_t place = text.find(end);
  if (place == std::string_view::npos) return std::nullopt;
  const auto taken = text.substr(0, place);
  text.remove_prefix(place + end.size());
  return taken;
}

bool isIPv6Literal(std::string_view text) {
  in6_addr address{};
  return inet_pton(AF_INET6, std::string(text.substr(0, text.find('%'))).c_str(), &address) == 1;
}

/// The address in brackets, with a scope as it is written in a URL.
std::optional<std::string> ipv6Host(std::string_view literal) {
  std::string host(literal);
  if (const size_t scope = host.find("%25"); scope != std::string::npos) host.erase(scope + 1, 2);
  if (!isIPv6Literal(host)) return std::nullopt;
  return host;
}

/// A request is plain ASCII.
std::string escaped(std::string_view target) {
  std::string text;
  for (const char c : target) {
    if (static_cast<unsigned char>(c) < 0x80)
      text += c;
    else
      text += fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return text;
}

}  // namespace

std::optional<WebSocketURL> WebSocketURL::parse(std::string_view text) {
  // None of these belongs into a URL, and they would end a line of the request.
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == 0x7F; };
  if (std::any_of(text.begin(), text.end(), isControl)) return std::nullopt;
  WebSocketURL url;
  const auto scheme = takeUpTo(text, "://");
  if (!scheme) return std::nullopt;
  const auto is = [&](std::string_view name) { return equalIgnoringCase(*scheme, name); };
  url.isSecure = is("wss") || is("https");
  if (!url.isSecure && !is("ws") && !is("http")) return std::nullopt;

  text = text.substr(0, text.find('#'));
  const size_t end = std::min(text.find_first_of("/?"), text.size());
  std::string_view place = text.substr(0, end);
  url.target = escaped(text.substr(end));
  if (!url.target.starts_with('/')) url.target.insert(0, "/");
  place.remove_prefix(place.rfind('@') + 1);  // from the start where there is none

  if (place.starts_with('[')) {
    place.remove_prefix(1);
    const auto literal = takeUpTo(place, "]");
    const auto host = literal ? ipv6Host(*literal) : std::nullopt;
    if (!host) return std::nullopt;
    url.host = *host;
    url.authority = "[" + host->substr(0, host->find('%')) + "]";
  } else {
    url.host = place.substr(0, place.find(':'));
    place.remove_prefix(url.host.size());
    const auto isASCII = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    if (url.host.empty() || !std::all_of(url.host.begin(), url.host.end(), isASCII)) return std::nullopt;
    url.authority = url.host;
  }
  const uint16_t usual = url.isSecure ? 443 : 80;
  url.port = usual;
  if (place.empty() || place == ":") return url;
  if (!place.starts_with(':')) return std::nullopt;
  place.remove_prefix(1);
  const auto [stop, problem] = std::from_chars(place.data(), place.data() + place.size(), url.port);
  if (problem != std::errc() || stop != place.data() + place.size() || url.port == 0) return std::nullopt;
  if (url.port != usual) url.authority += ":" + std::to_string(url.port);
  return url;
}

}  // namespace qelnk
