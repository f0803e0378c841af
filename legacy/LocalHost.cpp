#include "legacy/LocalHost.h"

#include <QELNetworkKit/QELNKLegacyStream.h>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string_view>

namespace {

/// The IPv4 addresses of this machine's interfaces, asked in turn; the first that `accept` takes, else 0.
template <class Accept>
uint32_t firstIPv4Address(Accept accept) {
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) return 0;
  uint32_t found = 0;
  for (const ifaddrs *entry = list; entry && found == 0; entry = entry->ifa_next) {
    if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in address;
    std::memcpy(&address, entry->ifa_addr, sizeof address);
    if (accept(entry->ifa_flags, address.sin_addr.s_addr)) found = address.sin_addr.s_addr;
  }
  freeifaddrs(list);
  return found;
}

bool isLoopback(uint32_t address) { return (ntohl(address) >> 24) == 127; }

}  // namespace

namespace qelnk {

std::string publishingName() {
  std::array<char, 256> buffer{};
  if (gethostname(buffer.data(), buffer.size() - 1) != 0 || buffer[0] == 0) return "localhost";
  std::string name = buffer.data();
  constexpr std::string_view suffix = ".local";
  if (name.ends_with(suffix)) name.resize(name.size() - suffix.size());
  return name;
}

std::string localDomainName() {
  std::array<char, 257> buffer{};
  const bool known = getdomainname(buffer.data(), buffer.size() - 1) == 0;
  const std::string name = buffer.data();
  return known && !name.empty() && name != "(none)" ? name : "local.";  // the kernel's word for none
}

}  // namespace qelnk

uint32_t QELNKLegacyStream::rawLocalAddress() {
  return firstIPv4Address([](unsigned flags, uint32_t) { return (flags & IFF_UP) && !(flags & IFF_LOOPBACK); });
}

std::string QELNKLegacyStream::stringFromIPv4Address(uint32_t address) {
  std::array<uint8_t, 4> octets;
  std::memcpy(octets.data(), &address, sizeof address);
  return fmt::format("{}.{}.{}.{}", octets[0], octets[1], octets[2], octets[3]);
}

std::string QELNKLegacyStream::localHostIPv4() {
  uint32_t address = rawLocalAddress();
  if (address == 0) address = firstIPv4Address([](unsigned, uint32_t other) { return !isLoopback(other); });
  return address ? stringFromIPv4Address(address) : "localhost";
}

std::string QELNKLegacyStream::hostMessage() { return "host " + qelnk::publishingName(); }

std::string QELNKLegacyStream::ipv4Message() { return "ipv4 " + localHostIPv4(); }
