#include <QELNetworkKit/QELNKWebSocket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "encoding/Text.h"
#include "netutil/WebSocketConnection.h"
#include "platform/Guard.h"
#include "platform/LogFormat.h"

using qelnk::Error;
using qelnk::Queue;
using qelnk::WebSocketConnection;
using qelnk::WebSocketURL;

/// Brings what happens to the host's queue. What waits there holds the WebSocket weakly.
class QELNK_HIDDEN QELNKWebSocket::Courier final : public qelnk::WebSocketEvents {
 public:
  using Target = std::shared_ptr<QELNKWebSocket>;

  Courier(const Target &webSocket, std::string url, std::shared_ptr<Queue> queue)
      : webSocket_(webSocket), url_(std::move(url)), queue_(std::move(queue)) {}

  void opened() override {
    qelnk::logDebug("QELNKWebSocket {} is open", url_);
    tellDelegate([](auto &delegate, auto &webSocket) { delegate.webSocketDidOpen(webSocket); });
  }

  void received(std::string text) override {
    queue_->async([weak = webSocket_, text = std::move(text)] {
      const Target webSocket = weak.lock();
      if (!webSocket) return;
      if (const auto delegate = webSocket->delegate())
        qelnk::runGuarded("A WebSocket's observer", [&] { delegate->webSocket(webSocket, text); });
      webSocket->connection_->consumed(text.size());
    });
  }

  void closed(uint16_t code, std::string reason) override {
    qelnk::logDefault("webSocket - {}, didCloseWithCode - {}, reason - {}, wasClean: {:d}", url_, code,
                      qelnk::printable(reason), true);
    tellClosedBlock(code, std::move(reason), true);
  }

  void failed(const std::string &why) override {
    qelnk::logError("QELNKWebSocket {} has failed: {}", url_, why);
    tellDelegate([](auto &delegate, auto &webSocket) { delegate.webSocketDidClose(webSocket); });
    tellClosedBlock(1006, why, false);
  }

 private:
  template <class Call>
  void tellDelegate(Call call) {
    queue_->async([weak = webSocket_, call] {
      const Target webSocket = weak.lock();
      const auto delegate = webSocket ? webSocket->delegate() : nullptr;
      if (delegate) qelnk::runGuarded("A WebSocket's observer", [&] { call(*delegate, webSocket); });
    });
  }
  void tellClosedBlock(uint16_t code, std::string reason, bool wasClean) {
    queue_->async([weak = webSocket_, code, reason = std::move(reason), wasClean] {
      const Target webSocket = weak.lock();
      if (webSocket && webSocket->closedBlock_)
        qelnk::runGuarded("A WebSocket's closed block",
                          [&] { webSocket->closedBlock_(webSocket, code, reason, wasClean); });
    });
  }

  const std::weak_ptr<QELNKWebSocket> webSocket_;
  const std::string url_;
  const std::shared_ptr<Queue> queue_;
};

QELNKWebSocket::QELNKWebSocket(std::weak_ptr<QELNKWebSocketDelegate> delegate,
                               QELNKWebSocketOptions::ClosedBlock closedBlock)
    : closedBlock_(std::move(closedBlock)), delegate_(std::move(delegate)) {}

std::shared_ptr<QELNKWebSocket> QELNKWebSocket::create(const std::string &url,
                                                       std::weak_ptr<QELNKWebSocketDelegate> delegate,
                                                       QELNKWebSocketOptions options) {
  std::shared_ptr<QELNKWebSocket> webSocket(new QELNKWebSocket(std::move(delegate), std::move(options.closedBlock)));
  const auto target = WebSocketURL::parse(url);
  const auto courier = std::make_shared<Courier>(webSocket, target ? target->description() : qelnk::printable(url),
                                                 options.queue ? options.queue : Queue::main());
  if (!target) {
    courier->failed("this is no URL of a WebSocket");
    return webSocket;
  }
  try {
    webSocket->connection_ = WebSocketConnection::make(*target, options, courier);
  } catch (const std::exception &problem) {
    courier->failed(problem.what());
    return webSocket;
  }
  webSocket->connection_->open();  // from now on there are callbacks, which use what was set above
  return webSocket;
}

QELNKWebSocket::~QELNKWebSocket() {
  if (connection_) connection_->letGo();
}

bool QELNKWebSocket::sendString(std::string text, Error *error) {
  if (readyState() != open) return true;
  Error problem;
  if (!qelnk::detail::isUTF8(text))
    problem = {"QELNKWebSocket", EILSEQ, "the text is not UTF-8", {}};
  else if (connection_->send(std::move(text), problem))
    return true;
  qelnk::logDefault("There was an error sending a string over websocket! - {}", problem.description);
  if (error) *error = std::move(problem);
  return false;
}

bool QELNKWebSocket::sendData(qelnk::Data data, Error *error) {
  if (readyState() != open) return true;
  Error problem;
  if (connection_->send(std::move(data), problem)) return true;
  qelnk::logDefault("There was an error sending data over websocket! - {}", problem.description);
  if (error) *error = std::move(problem);
  return false;
}

std::shared_ptr<QELNKWebSocketDelegate> QELNKWebSocket::delegate() const {
  const qelnk::Lock lock(mutex_);
  return delegate_.lock();
}

void QELNKWebSocket::setDelegate(std::weak_ptr<QELNKWebSocketDelegate> delegate) {
  const qelnk::Lock lock(mutex_);
  delegate_.swap(delegate);  // what the old one holds goes after the lock
}

QELNKWebSocket::ReadyState QELNKWebSocket::readyState() const {
  return connection_ ? connection_->readyState() : closed;
}

size_t QELNKWebSocket::bufferedAmount() const { return connection_ ? connection_->bufferedAmount() : 0; }

bool QELNKWebSocket::waitUntilClosed(std::chrono::milliseconds limit) {
  return WebSocketConnection::waitUntilClosed(limit);
}
