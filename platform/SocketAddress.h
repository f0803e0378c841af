#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace qelnk {

/// The bytes of a sockaddr_in or sockaddr_in6.
template <class Address>
std::string addressBytes(const Address &address) {
  return {reinterpret_cast<const char *>(&address), sizeof address};
}

inline bool isIPv6(std::string_view address) { return address.size() == sizeof(sockaddr_in6); }

/// Puts IPv6 first, in the order given otherwise, and leaves out what comes twice.
inline void arrangeAddresses(std::vector<std::string> &addresses) {
  for (auto next = addresses.begin(); next != addresses.end();)
    next = std::find(addresses.begin(), next, *next) == next ? next + 1 : addresses.erase(next);
  std::stable_partition(addresses.begin(), addresses.end(), isIPv6);
}

}  // namespace qelnk
