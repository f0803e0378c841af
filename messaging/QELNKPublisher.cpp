#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>

#include "messaging/ErrorText.h"

#include <cerrno>
#include <string>
#include <utility>

using qelnk::Error;

std::shared_ptr<QELNKPublisher> QELNKPublisher::create(std::shared_ptr<QELNKContext> context) {
  return make<QELNKPublisher>(std::move(context));
}

QELNKPublisher::QELNKPublisher(std::shared_ptr<QELNKContext> context) : QELNKSocket(std::move(context)) {}

int32_t QELNKPublisher::socketType() const { return ZMQ_PUB; }

void QELNKPublisher::bindToPort(int32_t port) {
  const auto self = weak_from_this().lock();  // the socket block may drop the last reference before this is over
  bool refused;
  {
    const qelnk::Lock lock(sending_);
    refused = binding_ || rawSocket();
    if (!refused) binding_ = true;
  }
  if (refused) return qelnk::logError("QELNKPublisher is bound already, not binding to port {}", port);
  const std::shared_ptr<void> bound(nullptr, [this](void *) {
    const qelnk::Lock lock(sending_);
    binding_ = false;
    if (std::exchange(closeWhenBound_, false)) closeSocket();
  });
  try {
    const std::string endpoint = endPointForHost("*", port);
    const auto socket = openSocket(endpoint, ZMQSocket::longestLinger);
    socket->bindToEndpoint(endpoint);
    port_ = socket->boundPort();
  } catch (const ZMQException &) {
    closeSocket();
    throw;
  }
}

bool QELNKPublisher::publish(const qelnk::Value &message, Error *error) {
  Error failure;
  const auto send = [&](auto &&sendIt) {
    const qelnk::Lock lock(sending_);
    if (!binding_) return sendIt();
    failure = qelnk::zmqError(ENOTSOCK);
    return false;
  };
  if (messageBody() == QELNKMessageBodyData) {  // as it is
    if (send([&] { return sendFrame(message.bytes(), 0, &failure); })) return true;
  } else if (const auto encoded = encodeMessage(message, failure)) {
    if (send([&] { return sendEncoded(*encoded, failure); })) return true;
  }
  qelnk::logError("QELNKPublisher could not publish message with error {}", qelnk::describe(failure));
  if (error) *error = std::move(failure);
  return false;
}

void QELNKPublisher::disconnect() {
  const qelnk::Lock lock(sending_);
  closeWhenBound_ = binding_;
  if (!binding_) QELNKSocket::disconnect();
}
