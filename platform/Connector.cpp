#include "platform/Connector.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace qelnk {

namespace {

/// How long an address may keep the next one waiting.
constexpr std::chrono::milliseconds patience{250};

std::error_code systemError(int number) { return {number, std::system_category()}; }

/// Which of two failures tells more: that somebody is there and refuses, then that the address cannot be used here.
std::error_code worthier(std::error_code a, std::error_code b) {
  for (const int number : {ECONNREFUSED, EADDRNOTAVAIL})
    if (a == systemError(number) || b == systemError(number)) return systemError(number);
  return b;
}

}  // namespace

Connector::Connector(std::shared_ptr<RunLoop> loop, Handler handler)
    : loop_(std::move(loop)), handler_(std::move(handler)) {}

Connector::~Connector() { cancel(); }

std::shared_ptr<Connector> Connector::start(const std::string &host, uint16_t port,
                                            const std::shared_ptr<RunLoop> &loop, Handler handler) {
  std::shared_ptr<Connector> connector(new Connector(loop, std::move(handler)));
  const Lock lock(connector->mutex_);
  connector->lookup_ =
      HostLookup::start(host, port, loop, [weak = std::weak_ptr(connector)](auto addresses, std::error_code error) {
        if (const auto self = weak.lock()) self->lookedUp(std::move(addresses), error);
      });
  return connector;
}

void Connector::cancel() {
  Handler handler;  // what it holds goes after the lock
  std::shared_ptr<HostLookup> lookup;
  const Lock lock(mutex_);
  handler_.swap(handler);
  lookup_.swap(lookup);
  if (lookup) lookup->cancel();
  if (timer_) timer_->cancel();
  for (const Attempt &attempt : std::exchange(attempts_, {})) {
    attempt.watch->cancel();
    close(attempt.socket);
  }
}

void Connector::lookedUp(std::vector<std::string> addresses, std::error_code error) {
  {
    const Lock lock(mutex_);
    if (!handler_) return;
    addresses_ = std::move(addresses);
    error_ = error;
  }
  tryNext();
}

/// Begins with the next address that can be begun with.
void Connector::tryNext() {
  Lock lock(mutex_);
  if (!handler_) return;
  if (timer_) timer_->cancel();
  while (next_ < addresses_.size()) {
    const std::error_code error = begin(addresses_[next_]);
    ++next_;
    if (error) {
      error_ = worthier(error_, error);
      continue;
    }
    if (next_ < addresses_.size())
      timer_ = loop_->performAfter(patience, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->tryNext();
      });
    return;
  }
  if (!attempts_.empty()) return;
  const auto error = error_;
  lock.unlock();
  finish(-1, error);
}

std::error_code Connector::begin(const std::string &address) {
  const auto *target = reinterpret_cast<const sockaddr *>(address.data());
  const int socket = ::socket(target->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
  if (socket < 0) return systemError(errno);
  std::error_code error;
  if (connect(socket, target, socklen_t(address.size())) < 0 && errno != EINPROGRESS) error = systemError(errno);
  if (!error) try {
      attempts_.push_back({socket, loop_->watch(socket, Readiness::writable, [weak = weak_from_this(), socket](auto) {
                             if (const auto self = weak.lock()) self->answered(socket);
                           })});
    } catch (const std::system_error &refused) {
      error = refused.code();
    }
  if (error) close(socket);
  return error;
}

/// Who tries a port of this machine again and again may get that very port for its own end, and is connected to itself:
/// nobody listens there, and nobody could while that lasts.
static bool isItsOwnPeer(int socket) {
  sockaddr_storage own{}, peer{};
  socklen_t ownSize = sizeof own, peerSize = sizeof peer;
  return getsockname(socket, reinterpret_cast<sockaddr *>(&own), &ownSize) == 0 &&
         getpeername(socket, reinterpret_cast<sockaddr *>(&peer), &peerSize) == 0 && ownSize == peerSize &&
         std::memcmp(&own, &peer, ownSize) == 0;
}

void Connector::answered(int socket) {
  {
    const Lock lock(mutex_);
    const auto attempt =
        std::find_if(attempts_.begin(), attempts_.end(), [&](const Attempt &a) { return a.socket == socket; });
    if (attempt == attempts_.end()) return;
    attempt->watch->cancel();
    attempts_.erase(attempt);
  }
  int number = 0;
  socklen_t size = sizeof number;
  if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &number, &size) < 0) number = errno;
  if (number == 0 && !isItsOwnPeer(socket)) return finish(socket, {});
  if (number == 0) number = ECONNREFUSED;
  close(socket);
  {
    const Lock lock(mutex_);
    error_ = worthier(error_, systemError(number));
  }
  tryNext();
}

void Connector::finish(int socket, std::error_code error) {
  Lock lock(mutex_);
  const Handler handler = std::exchange(handler_, nullptr);
  lock.unlock();
  cancel();
  if (handler)
    handler(socket, error);
  else if (socket >= 0)
    close(socket);
}

}  // namespace qelnk
