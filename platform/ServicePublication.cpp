#include "platform/ServicePublication.h"

#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

#include "platform/LogFormat.h"
#include "platform/TXTRecord.h"

namespace qelnk {

namespace {

constexpr auto retryInterval = std::chrono::seconds(5);

}  // namespace

void ServicePublication::begin(AvahiClient *client) {
  client_ = client;
  tryAnnounce();
}

void ServicePublication::end() {
  RunLoop::current()->cancelPerforms(this);
  freeGroup();
  client_ = nullptr;
}

void ServicePublication::freeGroup() {
  if (group_) avahi_entry_group_free(std::exchange(group_, nullptr));
}

void ServicePublication::tryAnnounce() {
  failed_ = false;
  if (const int error = announce()) tryLater(error);
}

/// Not at once: the group is not to be freed in its own callback, and what is in the way takes its time to go.
void ServicePublication::tryLater(int error) {
  logDebug("NetService {} could not be published yet: {}", service_.name, avahi_strerror(error));
  listener_.failed(discoveryError(error));
  failed_ = true;
  RunLoop::current()->cancelPerforms(this);
  RunLoop::current()->performAfter(
      retryInterval,
      [this] {
        freeGroup();
        tryAnnounce();
      },
      {}, this);
}

/// Hands the service to the daemon, under another name as long as one is taken on this machine. The daemon then asks
/// the network, and tells the group what came of it.
int ServicePublication::announce() {
  if (service_.name.empty()) {
    const char *const host = avahi_client_get_host_name(client_);
    if (!host) return avahi_client_errno(client_);
    service_.name = discoveryLabel(host);
  }
  if (!group_) group_ = avahi_entry_group_new(client_, groupChanged, this);
  if (!group_) return avahi_client_errno(client_);
  int error = addToGroup();
  while (error == AVAHI_ERR_COLLISION) {
    rename();
    avahi_entry_group_reset(group_);
    error = addToGroup();
  }
  return error ? error : avahi_entry_group_commit(group_);
}

int ServicePublication::addToGroup() {
  const auto orUsual = [](const std::string &domain) { return domain.empty() ? nullptr : domain.c_str(); };
  return avahi_entry_group_add_service_strlst(group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0),
                                              service_.name.c_str(), service_.type.c_str(), orUsual(service_.domain),
                                              nullptr, service_.port, txtList().get());
}

ServicePublication::TXTList ServicePublication::txtList() const {
  AvahiStringList *list = nullptr;
  for (const std::string &entry : txtEntries(service_.txt))
    list = avahi_string_list_add_arbitrary(list, reinterpret_cast<const uint8_t *>(entry.data()), entry.size());
  return {list, avahi_string_list_free};
}

void ServicePublication::rename() {
  char *next = avahi_alternative_service_name(service_.name.c_str());
  logDefault("NetService name {} is taken; trying {}", service_.name, next);
  service_.name = next;
  avahi_free(next);
}

void ServicePublication::groupChanged(AvahiEntryGroup *group, AvahiEntryGroupState state, void *self) {
  auto &publication = *static_cast<ServicePublication *>(self);
  if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
    publication.listener_.published(publication.service_.name);
  } else if (state == AVAHI_ENTRY_GROUP_COLLISION) {  // somebody else's on the network
    publication.rename();
    avahi_entry_group_reset(group);
    publication.tryAnnounce();
  } else if (state == AVAHI_ENTRY_GROUP_FAILURE) {
    publication.tryLater(avahi_client_errno(publication.client_));
  }
}

void ServicePublication::setTXTRecordData(std::string data) {
  service_.txt = std::move(data);
  if (!group_ || failed_) return;  // to be announced with it
  const int error = avahi_entry_group_update_service_txt_strlst(
      group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0), service_.name.c_str(), service_.type.c_str(),
      service_.domain.empty() ? nullptr : service_.domain.c_str(), txtList().get());
  if (error) tryLater(error);
}

}  // namespace qelnk
