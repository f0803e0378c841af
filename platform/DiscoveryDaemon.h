#pragma once

#include <QELNetworkKit/RunLoop.h>
#include <avahi-client/client.h>
#include <avahi-common/address.h>

#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

namespace qelnk {

/// An error number of the service discovery daemon's client library.
std::error_code discoveryError(int number);

/// The bytes of a sockaddr_in or sockaddr_in6; `interface` is the scope of a link-local address.
std::string socketAddress(const AvahiAddress &address, AvahiIfIndex interface, uint16_t port);

/// `name` as far as it fits into one label of a name: 63 bytes, whole characters.
std::string discoveryLabel(std::string name);

/// Something that the service discovery daemon does for us: an announcement, a search.
///
/// Threads: all of it runs on the one thread of the connection to the daemon. As that waits for the daemon there, no
/// other thread ever does.
class DiscoveryActivity {
 public:
  virtual ~DiscoveryActivity() = default;
  /// The daemon is there and `client` connected with it, until end().
  virtual void begin(AvahiClient *client) = 0;
  /// Frees what it made with the client: the daemon has gone, has to be told everything anew, or is not needed any
  /// more. Without a begin() before it there is nothing to free.
  virtual void end() = 0;
  /// There is no daemon for the time being. Told once, not each time that the connection is tried in vain.
  virtual void unavailable(std::error_code reason) = 0;
};

/// The process's connection to the service discovery daemon, on a thread of its own that nobody waits for. It is made
/// with the first activity and ends with the last.
class DiscoveryDaemon {
 public:
  static std::shared_ptr<DiscoveryDaemon> shared();

  ~DiscoveryDaemon();
  DiscoveryDaemon(const DiscoveryDaemon &) = delete;
  DiscoveryDaemon &operator=(const DiscoveryDaemon &) = delete;

  void add(std::shared_ptr<DiscoveryActivity> activity);
  void remove(std::shared_ptr<DiscoveryActivity> activity);
  /// Runs `task` on the connection's thread.
  void perform(Task task);

 private:
  DiscoveryDaemon();
  class Connection;
  std::shared_ptr<Connection> connection_;
};

/// Holds an activity, which goes on for as long as this lives. Threads: any.
template <class Activity>
class Active {
 public:
  template <class... Arguments>
  explicit Active(Arguments &&...arguments)
      : activity_(std::make_shared<Activity>(std::forward<Arguments>(arguments)...)) {
    daemon_->add(activity_);
  }
  ~Active() { daemon_->remove(std::move(activity_)); }
  Active(const Active &) = delete;
  Active &operator=(const Active &) = delete;

  void tell(std::function<void(Activity &)> message) {
    daemon_->perform([activity = activity_, message = std::move(message)] { message(*activity); });
  }

 private:
  const std::shared_ptr<DiscoveryDaemon> daemon_ = DiscoveryDaemon::shared();
  std::shared_ptr<Activity> activity_;
};

}  // namespace qelnk
