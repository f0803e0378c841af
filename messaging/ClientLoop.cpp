#include "messaging/ClientLoop.h"

#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>

#include "messaging/ErrorText.h"
#include "platform/Guard.h"
#include "platform/LogFormat.h"

#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

using namespace std::chrono_literals;
using qelnk::Error;

using qelnk::describe;

namespace {

// How long a failed sending rests.
constexpr auto retryInterval = 20ms;
// How many messages are received, and how many are sent, before the other has its turn. A request socket does the two
// in turns.
int drainBound(int32_t socketType) { return socketType == ZMQ_REQ ? 1 : 256; }

}  // namespace

QELNKClient::Loop::Loop(QELNKClient &client)
    : client_(client),
      state_(*client.state_),
      runLoop_(qelnk::RunLoop::current()),
      socketType_(client.socketType()),
      endpoint_(endPointForHost(client.host(), client.port())) {
  runLoop_->setClock(client.clock());
  client.clock()->attach(runLoop_);  // deadlines are looked at in every pass: a clock moved by hand has to cause one
  state_.loop = this;
  const qelnk::Lock lock(state_.mutex);
  state_.runLoop = runLoop_;
}

bool QELNKClient::Loop::isEnding() const {
  return state_.phase.load(std::memory_order_relaxed) != State::Phase::running || client_.isCancelled();
}

void QELNKClient::Loop::run() {
  qelnk::runGuarded("QELNKClient io thread", [this] { serve(); });
  end();
  qelnk::logDefault("QELNKClient io thread exiting");
}

void QELNKClient::Loop::serve() {
  if (isEnding()) return;
  qelnk::logDefault("QELNKClient connecting to {}", endpoint_);
  if (!connect()) {
    qelnk::logError("QELNKClient could not connect");
    return;
  }
  qelnk::logDefault("QELNKClient connected to {}", endpoint_);
  client_.onConnected();
  while (!isEnding() && pass()) {
  }
}

bool QELNKClient::Loop::connect() {
  poll_ = {};
  try {
    const auto socket = client_.openSocket(endpoint_);
    poll_ = qelnk::SocketPoll(socket->socket(), *runLoop_);
    return socket->connectToEndpoint(endpoint_);
  } catch (const ZMQException &) {  // its reason is on the log
  } catch (const std::system_error &error) {
    qelnk::logError("QELNKClient is short of descriptors: {}", error.what());
  }
  poll_ = {};
  client_.closeSocket();
  return false;
}

// One pass. Returns false when it was the last.
bool QELNKClient::Loop::pass() {
  const int events = poll();
  const int error = events < 0 ? zmq_errno() : 0;
  if (isEnding()) return false;
  if (error != 0) qelnk::logError("QELNKClient poll error [{}: {}]", error, zmq_strerror(error));
  if (events > 0 && (events & ZMQ_POLLIN)) receive();
  if (events > 0 && (events & ZMQ_POLLOUT)) send();
  finishEmpty();
  expire();
  return error == 0 || error == EINTR;
}

// Waiting.

// What the socket is ready for, once it is ready for something or another thread has handed something in; -1 on
// failure.
int QELNKClient::Loop::poll() {
  serveOthers();
  const int events = wantedEvents();
  if (events != 0 || !sleep()) return events;
  const bool waited = poll_.wait(longestWait()) >= 0;
  state_.asleep.store(false, std::memory_order_relaxed);
  if (!waited) return -1;
  serveOthers();  // so that what woke the thread goes out in this pass
  return wantedEvents();
}

// Does what other threads asked for.
void QELNKClient::Loop::serveOthers() {
  runLoop_->runOnce(0ns);
  takeInbox();
  if (!isEnding()) renewSocket();
}

int QELNKClient::Loop::wantedEvents() {
  if (client_.isAskedToClose()) {
    errno = ENOTSOCK;
    return -1;
  }
  if (!poll_) return 0;  // to be connected again
  int wanted = ZMQ_POLLIN | ZMQ_POLLERR;
  if (const QELNKMessage *unsent = messages_.firstUnsent(); unsent && (unsent != failed_ || Steady::now() >= retryAt_))
    wanted |= ZMQ_POLLOUT;
  const int events = poll_.events();
  return events < 0 ? events : events & wanted;
}

// Whether the thread may wait: nothing is left to do, and whoever hands something in from here on wakes it.
bool QELNKClient::Loop::sleep() {
  if (isEnding() || (messages_.first() && messages_.first()->isEmptyMessage())) return false;
  const qelnk::Lock lock(state_.mutex);
  if (!state_.inbox.empty()) return false;
  state_.asleep.store(true, std::memory_order_relaxed);
  return true;
}

std::chrono::nanoseconds QELNKClient::Loop::longestWait() const {
  std::chrono::nanoseconds limit = runLoop_->untilNextTimer(pollInterval);
  if (const auto now = Steady::now(); failed_ && retryAt_ > now)
    limit = std::min<std::chrono::nanoseconds>(limit, retryAt_ - now);
  // A clock of the host's may stand still until it is moved, which wakes the run loop.
  if (const auto deadline = messages_.firstDeadline();
      deadline != std::chrono::nanoseconds::max() && !client_.clock()->isMovedByHand())
    limit = std::min(limit, std::max(deadline - client_.clock()->now(), 0ns));
  return limit;
}

// Receiving.

void QELNKClient::Loop::receive() {
  for (int count = 0; count < drainBound(socketType_) && !isEnding(); count++) {
    Error failure;
    std::optional<qelnk::Value> response;
    size_t bytes = 0;
    const int error = client_.receiveMessage(ZMQ_DONTWAIT, response, failure, bytes);
    if (error == 0) {
      // What was cancelled before its reply was sent is not to be found by the reply.
      if (state_.cancelling.exchange(false)) takeInbox();
      const bool wanted = !std::exchange(replyOutstanding_, false);
      awaiting_ = nullptr;
      if (response)
        handle(std::move(*response), wanted);
      else
        qelnk::logError("QELNKClient could not deserialize response with error {}", describe(failure));
      finishEmpty();  // before the next reply is matched
    } else {
      if (error != EAGAIN || count == 0)
        qelnk::logError("QELNKClient recieved message with no data and error {}", describe(qelnk::zmqError(error)));
      return;
    }
  }
}

void QELNKClient::Loop::handle(qelnk::Value response, bool wanted) {
  if (QLGetHandle().enabled(qelnk::LogLevel::debug))
    qelnk::logDebug("QELNKClient got response {}", response.description());
  const auto message = wanted ? client_.messageForResponse(response) : nullptr;
  if (message && message->client_ == &client_ && !message->isFinished()) {
    message->response_ = std::move(response);
    finish(message);
  } else {
    state_.responses.seal();
    qelnk::logError("QELNKClient got response without matching message, discarding it");
  }
}

// Sending.

void QELNKClient::Loop::send() {
  for (int count = 0; count < drainBound(socketType_) && !isEnding(); count++) {
    QELNKMessage *message = messages_.firstUnsent();
    if (!message) return;
    if (!send(*message)) {
      if (count == 0) rest(*message);
      return;
    }
  }
}

// Returns false when nothing more can be sent now.
bool QELNKClient::Loop::send(QELNKMessage &message) {
  Error error;
  const auto frames = client_.serializeMessage(*message.request_, &error);
  if (!frames) {
    qelnk::logError("QELNKClient could not serialize request with error {}", describe(error));
  } else if (!sendFrames(message, *frames, error)) {
    return false;
  }
  message.error_ = std::move(error);
  failed_ = nullptr;
  if (!message.sent_) {
    rest(message);
    return false;
  }
  if (message.responseless_) {
    unanswerableSentAt_ = Steady::now();
    client_.complete(messages_.remove(message));
    finishEmpty();
  }
  return true;
}

// Returns false when the socket is full, which is no attempt.
bool QELNKClient::Loop::sendFrames(QELNKMessage &message, const QELNKFrames &frames, Error &error) {
  size_t tried = 0;
  bool ok = true;
  for (; ok && tried < frames.size(); tried++) {
    const int more = tried + 1 < frames.size() ? ZMQ_SNDMORE : 0;
    ok = client_.sendData(frames[tried], ZMQ_DONTWAIT | more, &error);
    if (!ok && tried == 0 && error.code == EAGAIN) return false;
  }
  // A failure of the last frame counts as sent.
  message.sent_ = tried == frames.size();
  if (socketType_ == ZMQ_REQ && ok && tried > 0) awaiting_ = &message;
  if (!message.sent_) qelnk::logError("QELNKClient did not send request, only sent {} from {}", tried, frames.size());
  return true;
}

// A message that cannot be sent keeps its place, and is tried again a little later.
void QELNKClient::Loop::rest(const QELNKMessage &message) {
  failed_ = &message;
  retryAt_ = Steady::now() + retryInterval;
}

// Finishing.

void QELNKClient::Loop::finish(const std::shared_ptr<QELNKMessage> &message) {
  if (!qelnk::MessageList::isListed(*message)) takeInbox();
  if (!qelnk::MessageList::isListed(*message)) return;
  forget(*message);
  client_.complete(messages_.remove(*message));
}

void QELNKClient::Loop::finishEmpty() {
  while (messages_.first() && messages_.first()->isEmptyMessage())
    client_.complete(messages_.remove(*messages_.first()));
}

void QELNKClient::Loop::expire() {
  if (messages_.firstDeadline() == std::chrono::nanoseconds::max()) return;
  const auto now = client_.clock()->now();
  while (QELNKMessage *message = messages_.expired(now)) abandon(*message, ETIMEDOUT, "Request timed out");
}

void QELNKClient::Loop::cancel(const std::shared_ptr<QELNKMessage> &message) {
  if (qelnk::MessageList::isListed(*message)) abandon(*message, ECANCELED, "Request cancelled");
}

void QELNKClient::Loop::forget(const QELNKMessage &message) {
  if (&message == failed_) failed_ = nullptr;
  if (&message == awaiting_) awaiting_ = nullptr;
}

void QELNKClient::Loop::abandon(QELNKMessage &message, int32_t code, const char *reason) {
  replyOutstanding_ |= &message == awaiting_;
  forget(message);
  client_.fail(messages_.remove(message), code, reason);
}

// A request socket that waits for a reply sends nothing, and the reply, should it come, would be taken for that to the
// next request. A new socket knows nothing of it.
void QELNKClient::Loop::renewSocket() {
  if (!replyOutstanding_ || (!poll_ && Steady::now() < renewAt_)) return;
  qelnk::logDefault("QELNKClient connecting to {} anew, for a request ended without its reply", endpoint_);
  poll_ = {};
  client_.closeSocket();
  awaiting_ = nullptr;
  replyOutstanding_ = !connect();
  if (!replyOutstanding_) return;
  qelnk::logError("QELNKClient could not connect");
  renewAt_ = Steady::now() + 1s;
}

void QELNKClient::Loop::takeInbox() {
  {
    const qelnk::Lock lock(state_.mutex);
    if (state_.inbox.empty()) return;
    taken_.swap(state_.inbox);
  }
  for (State::Order &order : taken_) {
    if (order.cancel)
      cancel(order.message);
    else
      messages_.append(std::move(order.message));
  }
  taken_.clear();
  if (taken_.capacity() > 4096) taken_.shrink_to_fit();
}

void QELNKClient::Loop::end() {
  // What expects no reply is meant to arrive before the connection ends; everything else is of no use any more.
  const auto left = unanswerableSentAt_ + ZMQSocket::longestLinger - Steady::now();
  client_.closeSocket(std::max(std::chrono::ceil<std::chrono::milliseconds>(left), 0ms));
  std::shared_ptr<qelnk::Semaphore> connected;
  for (bool ended = false; !ended;) {
    takeInbox();
    while (QELNKMessage *message = messages_.first())
      client_.fail(messages_.remove(*message), ENOTCONN, "Client disconnected");
    const qelnk::Lock lock(state_.mutex);
    if (!state_.inbox.empty()) continue;
    ended = true;
    state_.phase = State::Phase::ended;
    ++state_.connection;
    state_.runLoop.reset();
    connected = state_.connected;
  }
  state_.loop = nullptr;
  if (connected) connected->signal();
  client_.dropConnectedBlock();
}
