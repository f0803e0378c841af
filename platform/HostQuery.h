#pragma once

#include <avahi-client/lookup.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/DiscoveryDaemon.h"

namespace qelnk {

/// The addresses of a host, asked of the network through the discovery daemon.
class HostQuery final : public DiscoveryActivity {
 public:
  /// Called once, on the daemon's thread: without addresses when there are none, or no daemon.
  using Handler = std::function<void(std::vector<std::string>)>;

  HostQuery(std::string host, uint16_t port, Handler handler)
      : host_(std::move(host)), port_(port), handler_(std::move(handler)) {}

  void begin(AvahiClient *client) override;
  void end() override;
  void unavailable(std::error_code) override { finish(); }

 private:
  void finish();
  static void resolverTold(AvahiHostNameResolver *resolver, AvahiIfIndex interface, AvahiProtocol,
                           AvahiResolverEvent event, const char *, const AvahiAddress *address, AvahiLookupResultFlags,
                           void *self);

  const std::string host_;
  const uint16_t port_;
  Handler handler_;
  std::vector<AvahiHostNameResolver *> resolvers_, silent_;
  std::vector<std::string> addresses_;
};

}  // namespace qelnk
