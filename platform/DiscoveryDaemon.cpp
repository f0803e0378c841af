#include "platform/DiscoveryDaemon.h"

#include <QELNetworkKit/Mutex.h>

#include <avahi-common/domain.h>
#include <avahi-common/error.h>
#include <avahi-common/simple-watch.h>
#include <dbus/dbus.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "platform/Guard.h"
#include "platform/LogFormat.h"
#include "platform/RunLoopThread.h"
#include "platform/SocketAddress.h"

namespace qelnk {

using namespace std::chrono_literals;

namespace {

constexpr auto firstRetry = 500ms, lastRetry = 5000ms;

class DiscoveryCategory final : public std::error_category {
 public:
  const char *name() const noexcept override { return "service discovery"; }
  std::string message(int number) const override { return avahi_strerror(number); }
};

}  // namespace

std::error_code discoveryError(int number) {
  static const auto &immortal = *new DiscoveryCategory;
  return {number, immortal};
}

std::string socketAddress(const AvahiAddress &address, AvahiIfIndex interface, uint16_t port) {
  if (address.proto == AVAHI_PROTO_INET) {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(port);
    ipv4.sin_addr.s_addr = address.data.ipv4.address;
    return addressBytes(ipv4);
  }
  sockaddr_in6 ipv6{};
  ipv6.sin6_family = AF_INET6;
  ipv6.sin6_port = htons(port);
  std::memcpy(&ipv6.sin6_addr, address.data.ipv6.address, sizeof ipv6.sin6_addr);
  if (IN6_IS_ADDR_LINKLOCAL(&ipv6.sin6_addr) && interface > 0) ipv6.sin6_scope_id = uint32_t(interface);
  return addressBytes(ipv6);
}

std::string discoveryLabel(std::string name) {
  size_t length = AVAHI_LABEL_MAX - 1;
  if (name.size() <= length) return name;
  while (length && (name[length] & 0xC0) == 0x80) --length;
  name.resize(length);
  return name;
}

/// The connection's own thread, which alone calls the client library.
class DiscoveryDaemon::Connection {
 public:
  void run() {
    dbus_connection_set_change_sigpipe(false);  // how signals are handled is the host's business
    connect();
    while (!finished_) {
      loop->runOnce(poll_ ? 0ns : std::chrono::nanoseconds(1h));
      if (!finished_ && poll_) waitInPoll();
    }
    if (client_) avahi_client_free(client_);
    if (poll_) avahi_simple_poll_free(poll_);
  }

  void add(std::shared_ptr<DiscoveryActivity> activity) {
    activities_.push_back(std::move(activity));
    if (running_) activities_.back()->begin(client_);
    if (missing_) activities_.back()->unavailable(*missing_);
  }

  void remove(const std::shared_ptr<DiscoveryActivity> &activity) {
    std::erase(activities_, activity);
    activity->end();
  }

  void finish() { finished_ = true; }

  const std::shared_ptr<RunLoop> loop = RunLoopThread::make();

 private:
  void connect() {
    auto error = openPoll();
    if (!error) {
      int number = 0;
      client_ = avahi_client_new(avahi_simple_poll_get(poll_), AVAHI_CLIENT_NO_FAIL, stateChanged, this, &number);
      if (client_) return follow();
      error = discoveryError(number);
    }
    interrupted_ = false;
    loseDaemon(error);
    connectLater();
  }

  void connectLater() {
    loop->performAfter(retry_, [this] { connect(); });
    retry_ = std::min(2 * retry_, std::chrono::milliseconds(lastRetry));
  }

  /// Makes the poll, which the loop's work wakes too. Out of descriptors it cannot be made.
  std::error_code openPoll() try {
    if (poll_) return {};
    const int wake = loop->wakeDescriptor();
    poll_ = avahi_simple_poll_new();
    if (!poll_) return {errno, std::system_category()};
    const AvahiPoll *api = avahi_simple_poll_get(poll_);
    api->watch_new(
        api, wake, AVAHI_WATCH_IN, [](AvahiWatch *, int, AvahiWatchEvent, void *) {}, nullptr);
    return {};
  } catch (const std::system_error &error) {
    return error.code();
  }

  void waitInPoll() {
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(loop->untilNextTimer(1h));
    if (avahi_simple_poll_iterate(poll_, int(wait.count())) < 0) {
      logError("Service discovery could not wait for its daemon: {}", std::strerror(errno));
      std::this_thread::sleep_for(lastRetry);
    }
  }

  /// Called while the client is still being made, too; what follows is done outside of the client's own calls.
  static void stateChanged(AvahiClient *, AvahiClientState state, void *self) {
    auto *connection = static_cast<Connection *>(self);
    if (state != AVAHI_CLIENT_S_RUNNING) connection->interrupted_ = true;
    connection->loop->perform([connection] { connection->follow(); });
  }

  /// Does what the client's state asks for. A state that was left again already counts too: the daemon must be told
  /// everything anew after each.
  void follow() {
    if (!client_) return;
    if (std::exchange(interrupted_, false)) endActivities();
    switch (avahi_client_get_state(client_)) {
      case AVAHI_CLIENT_S_RUNNING:
        return beginActivities();
      case AVAHI_CLIENT_CONNECTING:
        return loseDaemon(discoveryError(AVAHI_ERR_NO_DAEMON));
      case AVAHI_CLIENT_FAILURE: {
        const auto error = discoveryError(avahi_client_errno(client_));
        avahi_client_free(std::exchange(client_, nullptr));
        loseDaemon(error);
        return connectLater();
      }
      default:  // the daemon looks for a host name of its own
        return;
    }
  }

  void beginActivities() {
    if (std::exchange(running_, true)) return;
    if (std::exchange(missing_, std::nullopt)) logDefault("The service discovery daemon is there");
    retry_ = firstRetry;
    for (const auto &activity : activities_) runGuarded("Service discovery", [&] { activity->begin(client_); });
  }

  void endActivities() {
    if (!std::exchange(running_, false)) return;
    for (const auto &activity : activities_) activity->end();
  }

  void loseDaemon(std::error_code error) {
    if (missing_) return;
    missing_ = error;
    logError("Service discovery waits for its daemon: {}", missing_->message());
    for (const auto &activity : activities_) activity->unavailable(*missing_);
  }

  AvahiSimplePoll *poll_ = nullptr;
  AvahiClient *client_ = nullptr;
  std::vector<std::shared_ptr<DiscoveryActivity>> activities_;
  std::chrono::milliseconds retry_ = firstRetry;
  std::optional<std::error_code> missing_;  // why there is no daemon
  bool running_ = false;
  bool interrupted_ = false;
  bool finished_ = false;
};

std::shared_ptr<DiscoveryDaemon> DiscoveryDaemon::shared() {
  struct Known {
    Mutex mutex;
    std::weak_ptr<DiscoveryDaemon> daemon QELNK_GUARDED_BY(mutex);
  };
  static auto &known = *new Known;
  const Lock lock(known.mutex);
  auto daemon = known.daemon.lock();
  if (!daemon) known.daemon = daemon = std::shared_ptr<DiscoveryDaemon>(new DiscoveryDaemon);
  return daemon;
}

DiscoveryDaemon::DiscoveryDaemon() : connection_(std::make_shared<Connection>()) {
  startThread("qelnk-discovery", [connection = connection_] {
    RunLoopThread::adopt(connection->loop);
    connection->run();
  }).detach();
}

DiscoveryDaemon::~DiscoveryDaemon() {
  perform([connection = connection_.get()] { connection->finish(); });
}

void DiscoveryDaemon::perform(Task task) { connection_->loop->perform(std::move(task)); }

void DiscoveryDaemon::add(std::shared_ptr<DiscoveryActivity> activity) {
  perform([connection = connection_.get(), activity = std::move(activity)] { connection->add(activity); });
}

void DiscoveryDaemon::remove(std::shared_ptr<DiscoveryActivity> activity) {
  perform([connection = connection_.get(), activity = std::move(activity)] { connection->remove(activity); });
}

}  // namespace qelnk
