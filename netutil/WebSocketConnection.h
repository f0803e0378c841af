#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/QELNKWebSocket.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "netutil/WebSocketURL.h"

namespace qelnk {

/// What a WebSocket connection tells, in order, on its io thread, which must not wait. The last one is closed() or
/// failed(), once.
class WebSocketEvents {
 public:
  virtual ~WebSocketEvents() = default;
  virtual void opened() = 0;
  virtual void received(std::string text) = 0;
  /// By the peer, in good order.
  virtual void closed(uint16_t code, std::string reason) = 0;
  virtual void failed(const std::string &why) = 0;
};

/// A client's connection, from looking the host up to the end. It lives until it has closed, whoever lets go of it.
///
/// Threads: any. What is to be done is done on one io thread, which all connections share; it starts with the first and
/// ends with the last.
class WebSocketConnection {
 public:
  using Payload = std::variant<std::string, Data>;  // text or bytes

  /// One that is yet to open. Throws a std::exception that says why there can be none.
  static std::shared_ptr<WebSocketConnection> make(const WebSocketURL &url, const QELNKWebSocketOptions &options,
                                                   std::shared_ptr<WebSocketEvents> events);
  virtual ~WebSocketConnection() = default;

  virtual void open() = 0;
  /// Queues a message, or does nothing where the connection is not open.
  virtual bool send(Payload payload, Error &error) = 0;
  /// So much of what was received has been dealt with. Nothing is read while too much has not been.
  virtual void consumed(size_t bytes) = 0;
  /// Nothing is told any more; what is queued is sent, then the connection is closed.
  virtual void letGo() = 0;
  virtual QELNKWebSocket::ReadyState readyState() const = 0;
  virtual size_t bufferedAmount() const = 0;

  /// Waits until no connection is left that was let go of.
  static bool waitUntilClosed(std::chrono::milliseconds limit);
};

}  // namespace qelnk
