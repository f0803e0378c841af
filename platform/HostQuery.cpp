#include "platform/HostQuery.h"

#include "platform/SocketAddress.h"

namespace qelnk {

namespace {

/// How long an address of one kind waits for one of the other kind, which may not be there: as much as is usually given
/// to a resolver's second answer.
constexpr auto patience = std::chrono::milliseconds(50);

}  // namespace

/// Each kind of address is asked for over IPv4 and over IPv6, because hosts tend to answer only for the one they are
/// asked over.
void HostQuery::begin(AvahiClient *client) {
  for (const AvahiProtocol asked : {AVAHI_PROTO_INET6, AVAHI_PROTO_INET})
    for (const AvahiProtocol over : {AVAHI_PROTO_INET6, AVAHI_PROTO_INET})
      if (auto *resolver = avahi_host_name_resolver_new(client, AVAHI_IF_UNSPEC, over, host_.c_str(), asked,
                                                        AvahiLookupFlags(0), resolverTold, this))
        resolvers_.push_back(resolver);
  silent_ = resolvers_;
  if (silent_.empty()) finish();
}

void HostQuery::end() {
  RunLoop::current()->cancelPerforms(this);
  for (auto *resolver : resolvers_) avahi_host_name_resolver_free(resolver);
  resolvers_.clear();
}

void HostQuery::resolverTold(AvahiHostNameResolver *resolver, AvahiIfIndex interface, AvahiProtocol,
                             AvahiResolverEvent event, const char *, const AvahiAddress *address,
                             AvahiLookupResultFlags, void *self) {
  auto &query = *static_cast<HostQuery *>(self);
  std::erase(query.silent_, resolver);
  if (event == AVAHI_RESOLVER_FOUND) {
    if (query.addresses_.empty())
      RunLoop::current()->performAfter(
          patience, [&query] { query.finish(); }, {}, self);
    query.addresses_.push_back(socketAddress(*address, interface, query.port_));
  }
  if (query.silent_.empty()) query.finish();
}

void HostQuery::finish() {
  const auto handler = std::exchange(handler_, nullptr);
  if (!handler) return;
  arrangeAddresses(addresses_);
  handler(std::move(addresses_));
}

}  // namespace qelnk
