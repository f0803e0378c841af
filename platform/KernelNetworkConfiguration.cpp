// The network as the kernel has it: links, addresses and routes by netlink, the rest from sysfs.

#include <QELNetworkKit/Mutex.h>
#include <arpa/inet.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/route.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

#include "platform/LogFormat.h"
#include "platform/NetworkConfiguration.h"
#include "platform/Simdjson.h"

namespace qelnk {

namespace {

struct Link {
  int index = 0;
  std::string name, kind, alias;
  unsigned hardware = 0, flags = 0;
  bool isMember = false;  // of a bridge or a bond
};

using NetlinkSocket = std::unique_ptr<nl_sock, void (*)(nl_sock *)>;
using NetlinkCache = std::unique_ptr<nl_cache, void (*)(nl_cache *)>;

/// Calls `visit` with each object of a table that `read` fetches.
template <class Object, class Read, class Visit>
void forEach(const Read &read, const Visit &visit) {
  nl_cache *table = nullptr;
  if (const int failure = read(&table); failure < 0) {
    logError("Network configuration cannot be read: {}", nl_geterror(failure));
    return;
  }
  const NetlinkCache owner(table, nl_cache_free);
  for (nl_object *at = nl_cache_get_first(table); at; at = nl_cache_get_next(at)) visit(reinterpret_cast<Object *>(at));
}

std::string orEmpty(const char *text) { return text ? text : ""; }

std::filesystem::path sysfs(const Link &link) { return std::filesystem::path("/sys/class/net") / link.name; }

std::string firstLine(const std::filesystem::path &file) {
  std::ifstream stream(file);
  std::string line;
  std::getline(stream, line);
  return line;
}

/// What a driver calls its kind of device; empty for Ethernet.
std::string deviceType(const Link &link) {
  std::error_code ignored;
  if (std::filesystem::exists(sysfs(link) / "wireless", ignored) ||
      std::filesystem::exists(sysfs(link) / "phy80211", ignored))
    return "wlan";
  std::ifstream stream(sysfs(link) / "uevent");
  constexpr std::string_view key = "DEVTYPE=";
  for (std::string line; std::getline(stream, line);)
    if (line.starts_with(key)) return line.substr(key.size());
  return "";
}

/// Whether a name can be shown: interfaces and their aliases may hold any bytes.
bool isText(const std::string &name) {
  return validateUTF8(name) &&
         std::none_of(name.begin(), name.end(), [](char c) { return uint8_t(c) < ' ' || c == 0x7F; });
}

/// Whether there is a device behind it, as there is not behind those that virtual machines' hosts make. Where this
/// process does not see it there may be.
bool mayBeHardware(const Link &link) {
  std::error_code ignored;
  return !std::filesystem::exists(sysfs(link), ignored) || std::filesystem::exists(sysfs(link) / "device", ignored);
}

/// The address that the maker gave the device, as hexadecimal digits; empty when it has none.
std::string permanentAddress(int socket, const std::string &device) {
  // As the kernel's structure for it, which ends in an array without a size.
  struct {
    uint32_t command = ETHTOOL_GPERMADDR, size = 32;
    std::array<uint8_t, 32> bytes{};
  } answer;
  ifreq request{};
  std::strncpy(request.ifr_name, device.c_str(), IFNAMSIZ - 1);
  request.ifr_data = reinterpret_cast<char *>(&answer);
  if (ioctl(socket, SIOCETHTOOL, &request) < 0) return "";
  std::string text;
  bool isAddress = false;
  for (uint32_t i = 0; i < std::min<uint32_t>(answer.size, 32); ++i) {
    text += fmt::format("{:02x}", answer.bytes[i]);
    isAddress |= answer.bytes[i] != 0;
  }
  return isAddress ? text : "";
}

NetlinkSocket connect() {
  NetlinkSocket socket(nl_socket_alloc(), nl_socket_free);
  if (!socket || nl_connect(socket.get(), NETLINK_ROUTE) < 0) {
    logError("Network configuration cannot be read: no netlink socket");
    socket.reset();
    return socket;
  }
  // The library beneath does not look whether its question left, and the kernel drops answers when it is short of
  // memory.
  const timeval patience{2, 0};
  setsockopt(nl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  return socket;
}

/// While it lives, libnl can be used, unless it is false. At the process's exit libnl forgets what it knows of kinds of
/// links, and would abort a thread that reads them then: so the exit waits for those who read, which takes the kernel
/// milliseconds, and nobody begins any more.
class LibnlUse {
 public:
  LibnlUse() {
    const Lock lock(gate().mutex);
    isAllowed_ = !gate().isClosed;
    if (isAllowed_) ++gate().users;
  }
  ~LibnlUse() {
    if (!isAllowed_) return;
    const Lock lock(gate().mutex);
    if (--gate().users == 0) gate().left.notifyAll();
  }
  LibnlUse(const LibnlUse &) = delete;
  LibnlUse &operator=(const LibnlUse &) = delete;
  explicit operator bool() const { return isAllowed_; }

 private:
  struct Gate {
    Mutex mutex;
    Condition left;
    int users QELNK_GUARDED_BY(mutex) = 0;
    bool isClosed QELNK_GUARDED_BY(mutex) = false;
  };
  // Never destroyed: threads may look at it to the very end.
  static Gate &gate() {
    static Gate &gate = *new Gate;
    return gate;
  }
  static void close() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    Lock lock(gate().mutex);
    gate().isClosed = true;
    while (gate().users != 0 && gate().left.waitUntil(lock, deadline)) {
    }
  }

  bool isAllowed_;
  // As the library is loaded: a thread's first use may come in the middle of the exit.
  static inline const int closesAtExit_ = std::atexit(close);
};

class KernelNetworkConfiguration final : public NetworkConfiguration {
 public:
  KernelNetworkConfiguration() {
    const LibnlUse use;
    if (!use) return;
    const NetlinkSocket socket = connect();
    if (!socket) return;
    readLinks(socket.get());
    readAddresses(socket.get());
  }

  std::vector<Service> services() override;
  std::optional<std::vector<std::string>> ipv4Addresses(const std::string &deviceName) override;
  std::string primaryInterface() override;

 private:
  void readLinks(nl_sock *socket);
  void readAddresses(nl_sock *socket);
  template <class Condition>
  const Link *linkWith(const Condition &condition) const {
    const auto found = std::find_if(links_.begin(), links_.end(), condition);
    return found == links_.end() ? nullptr : &*found;
  }

  std::vector<Link> links_;
  std::map<int, std::vector<std::string>> addresses_;  // by index
};

void KernelNetworkConfiguration::readLinks(nl_sock *socket) {
  forEach<rtnl_link>(
      [&](nl_cache **table) { return rtnl_link_alloc_cache(socket, AF_UNSPEC, table); },
      [&](rtnl_link *link) {
        links_.push_back({rtnl_link_get_ifindex(link), orEmpty(rtnl_link_get_name(link)),
                          orEmpty(rtnl_link_get_type(link)), orEmpty(rtnl_link_get_ifalias(link)),
                          rtnl_link_get_arptype(link), rtnl_link_get_flags(link), rtnl_link_get_master(link) != 0});
      });
  std::sort(links_.begin(), links_.end(), [](const Link &a, const Link &b) { return a.index < b.index; });
}

void KernelNetworkConfiguration::readAddresses(nl_sock *socket) {
  forEach<rtnl_addr>([&](nl_cache **table) { return rtnl_addr_alloc_cache(socket, table); },
                     [&](rtnl_addr *address) {
                       nl_addr *const local = rtnl_addr_get_local(address);
                       if (rtnl_addr_get_family(address) != AF_INET || !local) return;
                       std::array<char, INET_ADDRSTRLEN> text{};
                       if (inet_ntop(AF_INET, nl_addr_get_binary_addr(local), text.data(), text.size()))
                         addresses_[rtnl_addr_get_ifindex(address)].emplace_back(text.data());
                     });
}

/// Of the default routes that lead somewhere, the first choice.
std::string KernelNetworkConfiguration::primaryInterface() {
  const LibnlUse use;
  if (!use) return "";
  const NetlinkSocket socket = connect();
  if (!socket) return "";
  std::optional<uint32_t> best;
  int index = 0;
  forEach<rtnl_route>([&](nl_cache **table) { return rtnl_route_alloc_cache(socket.get(), AF_INET, 0, table); },
                      [&](rtnl_route *route) {
                        nl_addr *const destination = rtnl_route_get_dst(route);
                        if (rtnl_route_get_table(route) != RT_TABLE_MAIN || rtnl_route_get_type(route) != RTN_UNICAST ||
                            (destination && nl_addr_get_prefixlen(destination) != 0))
                          return;
                        const uint32_t metric = rtnl_route_get_priority(route);
                        if (best && metric >= *best) return;
                        for (int i = 0; i < rtnl_route_get_nnexthops(route); ++i) {
                          rtnl_nexthop *const hop = rtnl_route_nexthop_n(route, i);
                          if (rtnl_route_nh_get_flags(hop) & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) continue;
                          best = metric;
                          index = rtnl_route_nh_get_ifindex(hop);
                          return;
                        }
                      });
  const Link *link = linkWith([&](const Link &each) { return each.index == index; });
  return link ? link->name : "";
}

std::vector<NetworkConfiguration::Service> KernelNetworkConfiguration::services() {
  // Built upon wired links, these carry the addresses; so do the ports of a switch on the board ("dsa").
  constexpr auto wiredKinds = std::to_array<std::string_view>({"bond", "team", "vlan", "dsa"});
  constexpr auto guestKinds =
      std::to_array<std::string_view>({"veth", "macvlan", "ipvlan", "macvtap", "netkit", "tun"});
  const auto isOneOf = [](const auto &kinds, const std::string &kind) {
    return std::ranges::find(kinds, kind) != kinds.end();
  };
  std::vector<Service> services;
  bool hasHardware = false;
  std::vector<size_t> guests;
  std::set<std::string> identifiers;
  const boost::uuids::name_generator_sha1 generator(
      boost::uuids::string_generator()("8a4f0a3e-6c1b-4a8e-9d53-2f7e1b0c6d94"));
  const std::string machine = firstLine("/etc/machine-id");
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  for (const Link &link : links_) {
    if (link.hardware != ARPHRD_ETHER || !isText(link.name)) continue;
    Service service{"", link.name, !link.alias.empty() && isText(link.alias) ? link.alias : link.name, link.kind};
    std::string own;
    if (link.kind.empty() && mayBeHardware(link)) {
      hasHardware = true;
      service.type = deviceType(link);
      if (service.type.empty() || service.type == "dsa") service.type = ethernet;
      own = permanentAddress(socket, link.name);
    } else if (isOneOf(wiredKinds, link.kind)) {
      service.type = ethernet;
    } else if ((link.kind.empty() || isOneOf(guestKinds, link.kind)) && !link.isMember) {
      guests.push_back(services.size());
    }
    const auto identify = [&](const std::string &by) {
      service.identifier = boost::uuids::to_string(generator(fmt::format("{} {}", machine, by)));
      return identifiers.insert(service.identifier).second;
    };
    if (own.empty() || !identify(own)) identify("device " + link.name);
    services.push_back(std::move(service));
  }
  if (socket >= 0) close(socket);
  // A container has nothing else.
  if (!hasHardware)
    for (const size_t guest : guests) services[guest].type = ethernet;
  return services;
}

/// IPv4 runs on what is up and has a carrier: an address that was set by hand stays without, but reaches nobody.
std::optional<std::vector<std::string>> KernelNetworkConfiguration::ipv4Addresses(const std::string &deviceName) {
  const Link *link = linkWith([&](const Link &each) { return each.name == deviceName; });
  if (!link || !(link->flags & IFF_UP) || !(link->flags & IFF_RUNNING)) return std::nullopt;
  const auto found = addresses_.find(link->index);
  if (found != addresses_.end()) return found->second;
  if (link->isMember) return std::nullopt;  // its bridge or bond has them
  return std::vector<std::string>();
}

}  // namespace

std::unique_ptr<NetworkConfiguration> NetworkConfiguration::ofKernel() {
  return std::make_unique<KernelNetworkConfiguration>();
}

}  // namespace qelnk
