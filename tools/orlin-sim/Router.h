#pragma once

#include <QELNetworkKit/Value.h>

#include <optional>
#include <string>
#include <vector>

namespace sim {

/// Where a request came from, as the frames that lead an answer there.
using Address = std::vector<std::string>;

/// The daemon's command socket, on the loopback interface.
class Router {
 public:
  /// Binds; throws std::runtime_error where that fails, with the reason. Port 0 has the system choose one.
  explicit Router(int port);
  ~Router();
  Router(const Router &) = delete;
  Router &operator=(const Router &) = delete;

  int port() const { return port_; }
  void *socket() const { return socket_; }

  struct Request {
    Address from;
    std::string payload;
  };
  /// The next request that is there, or none.
  std::optional<Request> receive();
  /// Sends one frame. Returns false when that client is gone; for one that does not read, frames are kept until it is.
  bool send(const Address &to, std::span<const uint8_t> payload);

 private:
  void *context_;
  void *socket_;
  int port_ = 0;
};

}  // namespace sim
