#include "platform/ListeningSocket.h"

#include <QELNetworkKit/Mutex.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/LogFormat.h"

namespace qelnk {

namespace {

constexpr std::chrono::milliseconds pauseWithoutDescriptors{500};
// The loop has other work as well.
constexpr int acceptedInARow = 64;

std::error_code systemError() { return {errno, std::system_category()}; }

/// Whether accepting failed for want of something that comes back.
bool isShortage(int number) { return number == EMFILE || number == ENFILE || number == ENOBUFS || number == ENOMEM; }

}  // namespace

struct ListeningSocket::Accepting : std::enable_shared_from_this<Accepting> {
  Accepting(std::shared_ptr<const int> listener, std::shared_ptr<RunLoop> runLoop, AcceptHandler accepted)
      : socket(std::move(listener)), loop(std::move(runLoop)), handler(std::move(accepted)) {}

  const std::shared_ptr<const int> socket;  // kept open while connections are being taken
  const std::shared_ptr<RunLoop> loop;
  const AcceptHandler handler;
  bool isShort = false;  // of descriptors; the loop's thread's
  Mutex mutex;
  bool ended QELNK_GUARDED_BY(mutex) = false;
  std::shared_ptr<LoopSource> source QELNK_GUARDED_BY(mutex);

  void watch() {
    const Lock lock(mutex);
    if (ended) return;
    source = loop->watch(*socket, Readiness::readable, [weak = weak_from_this()](Readiness) {
      if (const auto self = weak.lock()) self->acceptSome();
    });
  }
  void end() {
    const Lock lock(mutex);
    ended = true;
    if (source) source->cancel();
  }
  bool hasEnded() {
    const Lock lock(mutex);
    return ended;
  }

  void acceptSome() {
    for (int i = 0; i < acceptedInARow && !hasEnded(); ++i) {
      sockaddr_in6 address{};
      socklen_t size = sizeof address;
      const int connection = accept4(*socket, reinterpret_cast<sockaddr *>(&address), &size, SOCK_CLOEXEC);
      if (connection >= 0) {
        handler(connection, {reinterpret_cast<const char *>(&address), sizeof address});
        continue;
      }
      if (isShortage(errno)) return pause(errno);
      // A shortage is over once all who waited are there: one of them alone may have had luck.
      if (errno == EAGAIN) isShort = false;
      // Anything else concerns the one connection, or there is none any more.
      if (errno != ECONNABORTED && errno != EINTR) return;
    }
  }

  void pause(int number) {
    if (!std::exchange(isShort, true))
      logError("Listening socket cannot accept connections for now: {}", std::system_category().message(number));
    const Lock lock(mutex);
    if (ended) return;
    source->cancel();
    source = loop->performAfter(pauseWithoutDescriptors, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->resume();
    });
  }
  void resume() {
    try {
      watch();
    } catch (const std::system_error &refused) {
      pause(refused.code().value());
    }
  }
};

std::unique_ptr<ListeningSocket> ListeningSocket::create(Family family, std::error_code &error) {
  const bool isIPv6 = family == Family::ipv6;
  const int socket = ::socket(isIPv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
  if (socket < 0) {
    error = systemError();
    return nullptr;
  }
  const int on = 1;
  if (isIPv6) setsockopt(socket, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  const auto closeIt = [](const int *number) {
    close(*number);
    delete number;
  };
  return std::unique_ptr<ListeningSocket>(
      new ListeningSocket(std::shared_ptr<const int>(new int(socket), closeIt), family));
}

ListeningSocket::~ListeningSocket() {
  if (accepting_) accepting_->end();
}

void ListeningSocket::setReuseAddress() {
  const int on = 1;
  setsockopt(*socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

std::error_code ListeningSocket::bind(uint16_t port, uint32_t ipv4Address) {
  sockaddr_in ipv4{};
  ipv4.sin_family = AF_INET;
  ipv4.sin_port = htons(port);
  ipv4.sin_addr.s_addr = htonl(ipv4Address);
  sockaddr_in6 ipv6{};
  ipv6.sin6_family = AF_INET6;
  ipv6.sin6_port = htons(port);
  const bool isIPv6 = family_ == Family::ipv6;
  const auto *address = isIPv6 ? reinterpret_cast<const sockaddr *>(&ipv6) : reinterpret_cast<const sockaddr *>(&ipv4);
  if (::bind(*socket_, address, isIPv6 ? sizeof ipv6 : sizeof ipv4) < 0) return systemError();
  if (listen(*socket_, SOMAXCONN) < 0) return systemError();
  return {};
}

uint16_t ListeningSocket::port() const {
  sockaddr_in6 address{};
  socklen_t size = sizeof address;
  getsockname(*socket_, reinterpret_cast<sockaddr *>(&address), &size);
  return ntohs(address.sin6_port);  // at the same place for both families
}

std::error_code ListeningSocket::accept(const std::shared_ptr<RunLoop> &loop, AcceptHandler handler) {
  accepting_ = std::make_shared<Accepting>(socket_, loop, std::move(handler));
  try {
    accepting_->watch();
  } catch (const std::system_error &refused) {
    return refused.code();
  }
  return {};
}

}  // namespace qelnk
