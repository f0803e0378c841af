#pragma once

#include <QELNetworkKit/RunLoop.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

namespace qelnk {

/// A TCP socket that takes connections on one port, over IPv4 or over IPv6 alone, so that there may be one of each on
/// the same port.
///
/// Threads: accept() and everything after it on the loop's thread, or where nobody else uses it; destroying it on any.
class ListeningSocket {
 public:
  enum class Family { ipv4, ipv6 };
  /// Gets a connection, a socket that is its own, with the other side's address: a sockaddr_in or sockaddr_in6 in 28
  /// bytes. On the loop's thread.
  using AcceptHandler = std::function<void(int socket, const std::string &address)>;

  /// Null, with the reason in `error`, when the system gives no socket of the family.
  static std::unique_ptr<ListeningSocket> create(Family family, std::error_code &error);
  ~ListeningSocket();
  ListeningSocket(const ListeningSocket &) = delete;
  ListeningSocket &operator=(const ListeningSocket &) = delete;

  /// Has the port taken again while old connections of an earlier listener linger.
  void setReuseAddress();
  /// Binds and listens: port 0 lets the system choose one; `ipv4Address` is in host byte order, 0 for any.
  std::error_code bind(uint16_t port, uint32_t ipv4Address = 0);
  /// The port it is bound to.
  uint16_t port() const;

  /// Calls `handler` for each connection. While the system has no descriptor left, it says so on the log, once, and
  /// tries again every half second.
  std::error_code accept(const std::shared_ptr<RunLoop> &loop, AcceptHandler handler);

 private:
  struct Accepting;
  ListeningSocket(std::shared_ptr<const int> socket, Family family) : socket_(std::move(socket)), family_(family) {}
  const std::shared_ptr<const int> socket_;
  const Family family_;
  std::shared_ptr<Accepting> accepting_;
};

}  // namespace qelnk
