#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/NetService.h>
#include <QELNetworkKit/RunLoop.h>
#include <avahi-common/error.h>

#include <functional>
#include <utility>

#include "platform/DiscoveryDaemon.h"
#include "platform/Guard.h"
#include "platform/LogFormat.h"
#include "platform/ServicePublication.h"
#include "platform/ServiceResolution.h"
#include "platform/Simdjson.h"

namespace qelnk {

namespace {

std::string withoutTrailingDot(std::string name) {
  if (name.ends_with('.')) name.pop_back();
  return name;
}

/// One publish() or resolveWithTimeout(). What comes of it is for this thread, as long as the service holds the
/// session.
struct Session {
  const std::shared_ptr<RunLoop> loop = RunLoop::current();
  bool told = false;  // what is told once
};

constexpr std::chrono::seconds withoutThreadRetry{5};

struct PublishSession : Session {
  std::unique_ptr<Active<ServicePublication>> publication;
};

struct ResolveSession : Session {
  std::unique_ptr<Active<ServiceResolution>> resolution;
  std::shared_ptr<LoopSource> timeout;
  std::error_code obstacle;
  bool toldTXTRecord = false;
};

}  // namespace

/// What a service is made of, shared with what is on its way to its observer.
struct QELNK_HIDDEN NetService::State : std::enable_shared_from_this<NetService::State> {
  State(std::string domain, std::string type, std::string name, uint16_t port)
      : domain(std::move(domain)), type(std::move(type)), name(std::move(name)), port(port) {}

  template <class T>
  T get(T State::*member) const {
    const Lock lock(mutex);
    return this->*member;
  }

  /// Makes a function for other threads that calls `handle` on the session's loop.
  template <class Kind, class Handle>
  auto onLoop(const std::shared_ptr<Kind> &session, Handle handle) {
    return [state = weak_from_this(), weak = std::weak_ptr(session), loop = session->loop, handle](auto... arguments) {
      loop->perform([=] {
        const auto self = state.lock();
        const auto mine = weak.lock();
        if (self && mine) std::invoke(handle, *self, *mine, arguments...);
      });
    };
  }

  bool isCurrent(const Session &session) const QELNK_REQUIRES(mutex) {
    return &session == publishing.get() || &session == resolving.get();
  }

  /// Calls the observer unless the session was ended, as its last call may have done.
  template <class Operation, class... Arguments>
  void tell(const Session &session, Operation operation, const Arguments &...arguments) QELNK_EXCLUDES(mutex) {
    std::shared_ptr<NetServiceDelegate> observer;
    {
      const Lock lock(mutex);
      if (isCurrent(session)) observer = delegate.lock();
    }
    if (const auto service = observer ? owner.lock() : nullptr)
      runGuarded("NetServiceDelegate", [&] { std::invoke(operation, *observer, service, arguments...); });
  }

  void publish();
  void announce(const std::shared_ptr<PublishSession> &session);
  void published(PublishSession &session, const std::string &announced);
  void notPublished(PublishSession &session, std::error_code error);

  void resolve(std::chrono::nanoseconds timeout);
  void found(ResolveSession &session, const ServiceResolution::Found &what);
  void hindered(ResolveSession &session, std::error_code why);
  void timedOut(ResolveSession &session);
  void stopResolving();
  void stop(const std::weak_ptr<const void> *onlyFor);

  /// The daemon's library ends the process for what is not UTF-8.
  bool isText() const QELNK_REQUIRES(mutex) { return validateUTF8(name) && validateUTF8(type) && validateUTF8(domain); }

  const std::string domain, type;
  std::weak_ptr<NetService> owner;
  mutable Mutex mutex;
  std::string name QELNK_GUARDED_BY(mutex), hostName QELNK_GUARDED_BY(mutex), txt QELNK_GUARDED_BY(mutex);
  uint16_t port QELNK_GUARDED_BY(mutex);
  std::vector<std::string> addresses QELNK_GUARDED_BY(mutex);
  std::weak_ptr<NetServiceDelegate> delegate QELNK_GUARDED_BY(mutex);
  std::shared_ptr<PublishSession> publishing QELNK_GUARDED_BY(mutex);
  std::shared_ptr<ResolveSession> resolving QELNK_GUARDED_BY(mutex);
};

// --- Publishing ---

void NetService::State::publish() {
  const auto session = std::make_shared<PublishSession>();
  {
    const Lock lock(mutex);
    if (publishing) return;
    publishing = session;
  }
  announce(session);
}

void NetService::State::announce(const std::shared_ptr<PublishSession> &session) {
  const Lock lock(mutex);
  if (!isCurrent(*session)) return;
  if (!isText()) return onLoop(session, &State::notPublished)(discoveryError(AVAHI_ERR_INVALID_SERVICE_NAME));
  try {
    session->publication = std::make_unique<Active<ServicePublication>>(
        ServicePublication::Service{discoveryLabel(name), withoutTrailingDot(type), withoutTrailingDot(domain), port,
                                    txt},
        ServicePublication::Listener{onLoop(session, &State::published), onLoop(session, &State::notPublished)});
  } catch (const std::system_error &error) {  // no thread is left for the daemon's client
    onLoop(session, &State::notPublished)(error.code());
    session->loop->performAfter(withoutThreadRetry, [state = weak_from_this(), weak = std::weak_ptr(session)] {
      const auto self = state.lock();
      const auto mine = weak.lock();
      if (self && mine) self->announce(mine);
    });
  }
}

void NetService::State::published(PublishSession &session, const std::string &announced) {
  {
    const Lock lock(mutex);
    if (!isCurrent(session)) return;
    name = announced;
  }
  tell(session, &NetServiceDelegate::netServiceDidPublish);
}

void NetService::State::notPublished(PublishSession &session, std::error_code error) {
  if (std::exchange(session.told, true)) return;
  logError("NetService {} could not be published yet: {}", get(&State::name), error.message());
  tell(session, &NetServiceDelegate::netServiceDidNotPublish, error);
}

// --- Resolving ---

void NetService::State::resolve(std::chrono::nanoseconds timeout) {
  stopResolving();
  const auto session = std::make_shared<ResolveSession>();
  if (timeout > timeout.zero())
    session->timeout = session->loop->performAfter(timeout, onLoop(session, &State::timedOut));
  const Lock lock(mutex);
  resolving = session;
  if (!isText()) {
    session->obstacle = discoveryError(AVAHI_ERR_INVALID_SERVICE_NAME);
    return;
  }
  try {
    session->resolution = std::make_unique<Active<ServiceResolution>>(
        ServiceResolution::Service{discoveryLabel(name), withoutTrailingDot(type), withoutTrailingDot(domain)},
        ServiceResolution::Listener{onLoop(session, &State::found), onLoop(session, &State::hindered)});
  } catch (const std::system_error &error) {  // no thread is left for the daemon's client
    session->obstacle = error.code();
  }
}

void NetService::State::found(ResolveSession &session, const ServiceResolution::Found &what) {
  if (!session.resolution) return;  // too late
  const bool isFirst = !std::exchange(session.told, true);
  bool isNewRecord = !std::exchange(session.toldTXTRecord, true);
  {
    const Lock lock(mutex);
    if (!isCurrent(session)) return;
    isNewRecord |= txt != what.txt;
    hostName = what.hostName;
    port = what.port;
    addresses = what.addresses;
    txt = what.txt;
  }
  if (isFirst && session.timeout) session.timeout->cancel();
  if (isFirst) tell(session, &NetServiceDelegate::netServiceDidResolveAddress);
  if (isNewRecord) tell(session, &NetServiceDelegate::netServiceDidUpdateTXTRecordData, what.txt);
}

void NetService::State::hindered(ResolveSession &session, std::error_code why) { session.obstacle = why; }

void NetService::State::timedOut(ResolveSession &session) {
  if (session.told) return;
  session.resolution = nullptr;
  const std::error_code reason = session.obstacle ? session.obstacle : discoveryError(AVAHI_ERR_TIMEOUT);
  logError("NetService {} could not be resolved: {}", get(&State::name), reason.message());
  tell(session, &NetServiceDelegate::netServiceDidNotResolve, reason);
  const Lock lock(mutex);
  if (isCurrent(session)) resolving = nullptr;  // the caller holds it
}

void NetService::State::stopResolving() {
  std::shared_ptr<ResolveSession> ended;
  {
    const Lock lock(mutex);
    ended.swap(resolving);
  }
  if (ended && ended->timeout) ended->timeout->cancel();
}

void NetService::State::stop(const std::weak_ptr<const void> *onlyFor) {
  std::shared_ptr<PublishSession> published;
  std::shared_ptr<ResolveSession> resolved;
  {
    const Lock lock(mutex);
    if (onlyFor) {
      if (delegate.owner_before(*onlyFor) || onlyFor->owner_before(delegate)) return;
      delegate.reset();
    }
    published.swap(publishing);
    resolved.swap(resolving);
  }
  if (resolved && resolved->timeout) resolved->timeout->cancel();
}

// --- The public side ---

NetService::NetService() = default;

std::shared_ptr<NetService> NetService::create(std::string domain, std::string type, std::string name, uint16_t port) {
  std::shared_ptr<NetService> service(new NetService);
  service->state_ = std::make_shared<State>(std::move(domain), std::move(type), std::move(name), port);
  service->state_->owner = service;
  return service;
}

NetService::~NetService() { stop(); }

const std::string &NetService::domain() const { return state_->domain; }
const std::string &NetService::type() const { return state_->type; }
std::string NetService::name() const { return state_->get(&State::name); }
uint16_t NetService::port() const { return state_->get(&State::port); }
std::string NetService::hostName() const { return state_->get(&State::hostName); }
std::vector<std::string> NetService::addresses() const { return state_->get(&State::addresses); }
std::string NetService::txtRecordData() const { return state_->get(&State::txt); }

void NetService::setDelegate(std::weak_ptr<NetServiceDelegate> delegate) {
  const Lock lock(state_->mutex);
  state_->delegate.swap(delegate);
}

void NetService::setTXTRecordData(std::string data) {
  const Lock lock(state_->mutex);
  state_->txt = data;
  if (state_->publishing && state_->publishing->publication)
    state_->publishing->publication->tell(
        [data](ServicePublication &publication) { publication.setTXTRecordData(data); });
}

void NetService::publish() { state_->publish(); }
void NetService::resolveWithTimeout(std::chrono::nanoseconds timeout) { state_->resolve(timeout); }

void NetService::stop() { state_->stop(nullptr); }
void NetService::stopFor(const std::weak_ptr<const void> &delegate) { state_->stop(&delegate); }

}  // namespace qelnk
