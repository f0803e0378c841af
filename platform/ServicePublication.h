#pragma once

#include <avahi-client/publish.h>
#include <avahi-common/strlst.h>

#include <memory>

#include "platform/DiscoveryDaemon.h"

namespace qelnk {

/// A service that is announced.
class ServicePublication final : public DiscoveryActivity {
 public:
  struct Service {
    std::string name, type, domain;
    uint16_t port = 0;
    std::string txt;
  };
  /// Called on the daemon's thread.
  struct Listener {
    std::function<void(std::string name)> published;
    std::function<void(std::error_code)> failed;
  };

  ServicePublication(Service service, Listener listener)
      : service_(std::move(service)), listener_(std::move(listener)) {}

  void setTXTRecordData(std::string data);

  void begin(AvahiClient *client) override;
  void end() override;
  void unavailable(std::error_code reason) override { listener_.failed(reason); }

 private:
  using TXTList = std::unique_ptr<AvahiStringList, decltype(&avahi_string_list_free)>;
  TXTList txtList() const;
  int announce();
  int addToGroup();
  void tryAnnounce();
  void tryLater(int error);
  void rename();
  void freeGroup();
  static void groupChanged(AvahiEntryGroup *group, AvahiEntryGroupState state, void *self);

  Service service_;
  const Listener listener_;
  AvahiClient *client_ = nullptr;
  AvahiEntryGroup *group_ = nullptr;
  bool failed_ = false;  // and is tried again later
};

}  // namespace qelnk
