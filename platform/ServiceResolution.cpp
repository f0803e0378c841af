#include "platform/ServiceResolution.h"

#include <avahi-common/error.h>
#include <avahi-common/strlst.h>

#include <algorithm>

#include "platform/AsciiCase.h"
#include "platform/LogFormat.h"
#include "platform/SocketAddress.h"
#include "platform/TXTRecord.h"

namespace qelnk {

namespace {

constexpr auto retryInterval = std::chrono::seconds(5);

/// In one order, whatever it came in: two paths that tell the same record are no change.
std::string txtOf(AvahiStringList *list) {
  std::vector<std::string> entries;
  for (; list; list = avahi_string_list_get_next(list))
    entries.emplace_back(reinterpret_cast<const char *>(avahi_string_list_get_text(list)),
                         avahi_string_list_get_size(list));
  std::erase(entries, "");
  std::sort(entries.begin(), entries.end());
  return txtData(entries);
}

bool isSame(const ServiceResolution::Found &a, const ServiceResolution::Found &b) {
  return a.hostName == b.hostName && a.port == b.port;
}

}  // namespace

void ServiceResolution::begin(AvahiClient *client) {
  client_ = client;
  listener_.hindered({});
  browse();
}

void ServiceResolution::end() {
  RunLoop::current()->cancelPerforms(this);
  freeAll();
  client_ = nullptr;
}

void ServiceResolution::freeAll() {
  for (const Path &path : paths_) avahi_service_resolver_free(path.resolver);
  paths_.clear();
  if (browser_) avahi_service_browser_free(std::exchange(browser_, nullptr));
}

void ServiceResolution::browse() {
  browser_ = avahi_service_browser_new(client_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, service_.type.c_str(),
                                       service_.domain.empty() ? nullptr : service_.domain.c_str(), AvahiLookupFlags(0),
                                       browserTold, this);
  if (!browser_) browseLater();
}

void ServiceResolution::browseLater() {
  const auto reason = discoveryError(avahi_client_errno(client_));
  logDebug("NetService {} cannot be searched yet: {}", service_.name, reason.message());
  listener_.hindered(reason);
  RunLoop::current()->performAfter(
      retryInterval,
      [this] {
        freeAll();
        browse();
      },
      {}, this);
}

void ServiceResolution::browserTold(AvahiServiceBrowser *, AvahiIfIndex interface, AvahiProtocol protocol,
                                    AvahiBrowserEvent event, const char *name, const char *type, const char *domain,
                                    AvahiLookupResultFlags, void *self) {
  auto &resolution = *static_cast<ServiceResolution *>(self);
  if (event == AVAHI_BROWSER_FAILURE) return resolution.browseLater();
  if (!name || !equalIgnoringCase(name, resolution.service_.name)) return;
  if (event == AVAHI_BROWSER_NEW) resolution.open(interface, protocol, name, type, domain);
  if (event == AVAHI_BROWSER_REMOVE) resolution.close(interface, protocol);
}

void ServiceResolution::open(AvahiIfIndex interface, AvahiProtocol protocol, const char *name, const char *type,
                             const char *domain) {
  for (const AvahiProtocol kind : {AVAHI_PROTO_INET6, AVAHI_PROTO_INET}) {
    Path &path = paths_.emplace_back(Path{this, interface, protocol, nullptr, std::nullopt});
    path.resolver = avahi_service_resolver_new(client_, interface, protocol, name, type, domain, kind,
                                               AvahiLookupFlags(0), resolverTold, &path);
    if (path.resolver) continue;
    paths_.pop_back();
    logError("NetService {} cannot be resolved on interface {}: {}", service_.name, interface,
             avahi_strerror(avahi_client_errno(client_)));
  }
}

void ServiceResolution::close(AvahiIfIndex interface, AvahiProtocol protocol) {
  std::erase_if(paths_, [&](const Path &path) {
    if (path.interface != interface || path.protocol != protocol) return false;
    avahi_service_resolver_free(path.resolver);
    return true;
  });
  reportRest();
}

/// What is left once a path was lost. The last one stays told: a service that goes may come back.
void ServiceResolution::reportRest() {
  for (const bool sameMachine : {true, false})
    for (const Path &path : paths_)
      if (path.found && (!sameMachine || isSame(*path.found, told_))) return report(*path.found);
}

void ServiceResolution::resolverTold(AvahiServiceResolver *, AvahiIfIndex interface, AvahiProtocol,
                                     AvahiResolverEvent event, const char *, const char *, const char *,
                                     const char *hostName, const AvahiAddress *address, uint16_t port,
                                     AvahiStringList *txt, AvahiLookupResultFlags, void *told) {
  Path &path = *static_cast<Path *>(told);
  if (event == AVAHI_RESOLVER_FAILURE) {  // no address of this kind, or not any more
    path.found.reset();
    return path.owner->reportRest();
  }
  path.found = Found{hostName, port, {socketAddress(*address, interface, port)}, txtOf(txt)};
  path.owner->report(*path.found);
}

/// Tells what has changed. Different machines may have a service of the same name where they do not see each other: we
/// stay with the one that was told, as long as there is a path to it.
void ServiceResolution::report(const Found &latest) {
  const auto leadsToTold = [&](const Path &path) { return path.found && isSame(*path.found, told_); };
  const bool stays = std::any_of(paths_.begin(), paths_.end(), leadsToTold);
  if (stays && !isSame(latest, told_)) return;
  Found found = latest;
  found.addresses.clear();
  for (const Path &path : paths_)
    if (path.found && isSame(*path.found, found)) found.addresses.push_back(path.found->addresses.front());
  std::sort(found.addresses.begin(), found.addresses.end());
  arrangeAddresses(found.addresses);
  if (found == told_) return;
  told_ = found;
  listener_.found(std::move(found));
}

}  // namespace qelnk
