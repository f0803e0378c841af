#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKServer.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>

#include "messaging/ErrorText.h"
#include "messaging/HeldBlock.h"
#include "messaging/SocketPoll.h"
#include "platform/Guard.h"

#include <atomic>
#include <cerrno>
#include <future>
#include <system_error>
#include <utility>

using qelnk::describe;
using qelnk::Error;
using qelnk::Value;

struct QELNK_HIDDEN QELNKServer::State {
  qelnk::HeldBlock<MessageBlock> block;
  qelnk::Mutex mutex;
  std::optional<Value> fallback QELNK_GUARDED_BY(mutex);

  // One bindToPort() at a time, but for one that is made by who waits for the calling thread while that waits.
  qelnk::RecursiveMutex binding;
  std::atomic<bool> stopping{false}, silent{false};
  std::atomic<int32_t> port{0};
  // What is handed to the io thread at its start, and its own then.
  int32_t wantedPort = 0;
  std::promise<Error> bound;  // an unset error for success
  qelnk::SocketPoll poll;
};

std::shared_ptr<QELNKServer> QELNKServer::create(std::shared_ptr<QELNKContext> context) {
  return make<QELNKServer>(std::move(context));
}

QELNKServer::QELNKServer(std::shared_ptr<QELNKContext> context)
    : QELNKSocket(std::move(context)), state_(std::make_unique<State>()) {}

QELNKServer::~QELNKServer() = default;

int32_t QELNKServer::socketType() const { return ZMQ_REP; }

// Binding.

bool QELNKServer::bindToPort(int32_t port, MessageBlock messageReceived, Error *error) {
  const auto refuse = [&](int code, const char *reason) {
    qelnk::logError("QELNKServer cannot bind to port {}, {}", port, reason);
    if (error) *error = qelnk::zmqError(code);
    return false;
  };
  const auto self = weak_from_this().lock();  // the handler may drop the last reference before this is over
  if (onMessageThread()) return refuse(EDEADLK, "called on its own io thread");
  const qelnk::Lock lock(state_->binding);
  if (hasLastingThread() && !state_->stopping) return refuse(EISCONN, "it is bound already");
  const auto last = thread();
  cancelThread(last);
  if (!joinThread(last)) return refuse(EDEADLK, "its last thread cannot be waited for on an io thread");
  if (hasThread()) return refuse(EISCONN, "it has been bound meanwhile");
  setMessageBlock(std::move(messageReceived));
  state_->stopping = state_->silent = false;
  state_->wantedPort = port;
  state_->bound = {};
  auto bound = state_->bound.get_future();
  try {
    startThread("qelnk-server");
  } catch (const std::system_error &failure) {
    state_->stopping = true;
    return refuse(failure.code().value(), failure.what());
  }
  if (state_->stopping) QELNKSocket::disconnect();  // another thread's came too early for this one
  Error failure = bound.get();
  if (!failure) return true;
  state_->stopping = true;
  qelnk::logError("QELNKServer could not bind to port {} with error {}", port, describe(failure));
  if (error) *error = std::move(failure);
  return false;
}

void QELNKServer::disconnect() {
  state_->stopping = true;
  QELNKSocket::disconnect();
}

// The io thread.

void QELNKServer::ioThread() {
  Error failure;
  try {
    const std::string endpoint = endPointForHost("*", state_->wantedPort);
    const auto socket = openSocket(endpoint, ZMQSocket::longestLinger);
    state_->poll = qelnk::SocketPoll(socket->socket(), *qelnk::RunLoop::current());
    socket->bindToEndpoint(endpoint);
    state_->port = socket->boundPort();
  } catch (const ZMQException &exception) {
    failure = qelnk::zmqError(exception.code());
  } catch (const std::system_error &exception) {
    failure = qelnk::zmqError(exception.code().value());
  } catch (const std::exception &) {
    failure = qelnk::zmqError(ENOMEM);
  }
  const bool isBound = !failure;
  state_->bound.set_value(std::move(failure));
  if (isBound) serve();
}

void QELNKServer::serve() {
  // How many requests are answered before the run loop has its turn.
  constexpr int drainBound = 256;
  while (!isCancelled()) {
    const int events = pollSocket(state_->poll, pollInterval);
    if (events < 0 && zmq_errno() != EINTR) return;
    for (int count = 0; events > 0 && count < drainBound && !isCancelled() && answer(); ++count) {
    }
  }
}

// Takes a request and answers it. Returns false when there was none, or it was left unanswered.
bool QELNKServer::answer() {
  Error error;
  std::optional<Value> request;
  size_t bytes = 0;
  if (receiveMessage(ZMQ_DONTWAIT, request, error, bytes) != 0) return false;
  if (request && handle(std::move(*request))) return true;
  if (const auto fallback = fallbackResponse(); fallback && reply(*fallback)) return true;
  state_->silent = true;
  return false;
}

bool QELNKServer::handle(Value request) {
  const auto self = std::static_pointer_cast<QELNKServer>(weak_from_this().lock());
  if (!self) return false;
  const auto block = state_->block.current();
  const auto message = std::make_shared<QELNKMessage>(std::move(request), nullptr);
  if (block) qelnk::runGuarded("QELNKServer message block", [&] { (*block)(self, message); });
  if (message->response()) message->setSent(reply(*message->response()));
  return message->sent();
}

bool QELNKServer::reply(const Value &response) {
  Error error;
  const auto encoded = encodeMessage(response, error);
  const bool sent = encoded && sendEncoded(*encoded, error);
  if (!sent) qelnk::logError("QELNKServer could not send response with error {}", describe(error));
  return sent;
}

// Properties.

int32_t QELNKServer::port() const { return state_->port; }
bool QELNKServer::isSilent() const { return state_->silent; }

QELNKServer::MessageBlock QELNKServer::messageBlock() const { return state_->block.get(); }
void QELNKServer::setMessageBlock(MessageBlock block) { state_->block.set(std::move(block)); }

std::optional<Value> QELNKServer::fallbackResponse() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->fallback;
}

void QELNKServer::setFallbackResponse(std::optional<Value> response) {
  const qelnk::Lock lock(state_->mutex);
  state_->fallback.swap(response);
}
