#pragma once

#include <avahi-client/lookup.h>

#include <cstdint>
#include <list>
#include <optional>
#include <vector>

#include "platform/DiscoveryDaemon.h"

namespace qelnk {

/// A service that is searched and then followed.
///
/// A service may be seen on several interfaces, over IPv4 and over IPv6, and each such path may know an address of
/// either kind: each path gets a resolver for each kind. Those that find nothing keep nobody waiting.
class ServiceResolution final : public DiscoveryActivity {
 public:
  struct Service {
    std::string name, type, domain;
  };
  struct Found {
    std::string hostName;
    uint16_t port = 0;
    std::vector<std::string> addresses;
    std::string txt;
    bool operator==(const Found &) const = default;
  };
  /// Called on the daemon's thread.
  struct Listener {
    std::function<void(Found)> found;
    /// Why nothing can be found for now; no error once something can.
    std::function<void(std::error_code)> hindered;
  };

  ServiceResolution(Service service, Listener listener)
      : service_(std::move(service)), listener_(std::move(listener)) {}

  void begin(AvahiClient *client) override;
  void end() override;
  void unavailable(std::error_code reason) override { listener_.hindered(reason); }

 private:
  struct Path {
    ServiceResolution *owner;
    AvahiIfIndex interface;
    AvahiProtocol protocol;
    AvahiServiceResolver *resolver;
    std::optional<Found> found;  // with one address
  };

  void browse();
  void browseLater();
  void open(AvahiIfIndex interface, AvahiProtocol protocol, const char *name, const char *type, const char *domain);
  void close(AvahiIfIndex interface, AvahiProtocol protocol);
  void freeAll();
  void report(const Found &latest);
  void reportRest();

  static void browserTold(AvahiServiceBrowser *, AvahiIfIndex interface, AvahiProtocol protocol,
                          AvahiBrowserEvent event, const char *name, const char *type, const char *domain,
                          AvahiLookupResultFlags, void *self);
  static void resolverTold(AvahiServiceResolver *, AvahiIfIndex interface, AvahiProtocol, AvahiResolverEvent event,
                           const char *name, const char *type, const char *domain, const char *hostName,
                           const AvahiAddress *address, uint16_t port, AvahiStringList *txt, AvahiLookupResultFlags,
                           void *path);

  const Service service_;
  const Listener listener_;
  AvahiClient *client_ = nullptr;
  AvahiServiceBrowser *browser_ = nullptr;
  std::list<Path> paths_;
  Found told_;
};

}  // namespace qelnk
