#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/Queue.h>

#include "messaging/ClientLoop.h"
#include "messaging/ClientState.h"
#include "messaging/IOThread.h"
#include "platform/Guard.h"
#include "platform/LogFormat.h"
#include "platform/RunLoopThread.h"
#include "platform/Semaphore.h"

#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

using Message = std::shared_ptr<QELNKMessage>;
using std::chrono::nanoseconds;

std::shared_ptr<QELNKClient> QELNKClient::create(std::shared_ptr<QELNKContext> context) {
  return make<QELNKClient>(std::move(context));
}

QELNKClient::QELNKClient(std::shared_ptr<QELNKContext> context)
    : QELNKSocket(std::move(context)), state_(std::make_unique<State>(this->context()->responseQueue())) {}

QELNKClient::~QELNKClient() = default;

int32_t QELNKClient::socketType() const { return ZMQ_REQ; }

void QELNKClient::waitForSemaphore(qelnk::Semaphore &semaphore) { semaphore.wait(); }

// Connecting.

void QELNKClient::connectToHost(std::string host, int32_t port, ConnectedBlock onConnected) {
  auto self = weak_from_this().lock();  // a callback may drop the last reference before this is over
  std::shared_ptr<IOThread> last;
  std::shared_ptr<qelnk::Semaphore> connected;
  bool refused;
  std::string failure;
  {
    qelnk::Lock lock(state_->mutex);
    // The last connection's thread may still be at its end, and uses the same members. Others may connect and
    // disconnect while it is waited for.
    while (state_->phase >= State::Phase::stopping && last != thread()) {
      last = thread();
      lock.unlock();
      if (!joinThread(last))
        return qelnk::logError("QELNKClient cannot connect to {} again on an io thread", endPointForHost(host, port));
      lock.lock();
    }
    refused = state_->phase != State::Phase::idle && state_->phase != State::Phase::ended;
    if (!refused) {
      if (state_->phase == State::Phase::ended) ++state_->connection;
      state_->phase = State::Phase::running;
      state_->connectedBlock.swap(onConnected);  // the old one goes after the lock
      try {
        state_->host = host;
        state_->port = port;
        if (syncRequests()) connected = std::make_shared<qelnk::Semaphore>();
        state_->connected = connected;
        startThread("qelnk-client");
      } catch (const std::exception &error) {
        failure = error.what();
      }
    }
  }
  if (refused)
    return qelnk::logError("QELNKClient is connected already, not connecting to {}", endPointForHost(host, port));
  if (!failure.empty()) {
    qelnk::logError("QELNKClient could not connect: {}", failure);
    endWithoutThread();
  }
  // The last reference may go while the run loop turns here: nothing of the client is used behind this.
  self.reset();
  if (connected) waitForSemaphore(*connected);
}

void QELNKClient::ioThread() { Loop(*this).run(); }

void QELNKClient::onConnected() { informConnected(); }

// On the io thread the connection is its own for as long as it runs.
void QELNKClient::informConnected() {
  if (auto awaiting = takeAwaiting(connection())) informConnected(std::move(*awaiting));
}

void QELNKClient::informConnected(Awaiting awaiting) {
  state_->responses.seal();
  const auto queue = context()->responseQueue();  // it may go with the client as soon as it has the task
  queue->async([weak = weak_from_this(), awaiting = std::move(awaiting)] {
    if (const auto self = std::static_pointer_cast<QELNKClient>(weak.lock()); self && awaiting.block)
      qelnk::runGuarded("QELNKClient connected block", [&] { awaiting.block(self); });
    if (awaiting.waiter) awaiting.waiter->signal();
  });
}

std::optional<QELNKClient::Awaiting> QELNKClient::takeAwaiting(uint64_t connection) {
  const qelnk::Lock lock(state_->mutex);
  if (state_->connection != connection) return std::nullopt;
  return Awaiting{.block = std::exchange(state_->connectedBlock, nullptr), .waiter = state_->connected};
}

void QELNKClient::disconnect() { end(std::nullopt); }
void QELNKClient::endConnection(uint64_t connection) { end(connection); }

// Ends the connection, whichever there is or this one alone.
void QELNKClient::end(std::optional<uint64_t> connection) {
  const auto self = weak_from_this().lock();  // a callback may drop the last reference before this is over
  bool idle;
  std::shared_ptr<IOThread> ending;
  {
    const qelnk::Lock lock(state_->mutex);
    if (connection && *connection != state_->connection) return;
    idle = state_->phase == State::Phase::idle;
    if (state_->phase == State::Phase::running || idle) state_->phase = State::Phase::stopping;
    ending = thread();  // and none of a connection that is made as soon as somebody hears of the end of this one
  }
  if (idle) endWithoutThread();
  cancelThread(ending);
}

// Ends a client that has no io thread which would.
void QELNKClient::endWithoutThread() {
  std::vector<State::Order> orders;
  std::shared_ptr<qelnk::Semaphore> connected;
  {
    const qelnk::Lock lock(state_->mutex);
    state_->phase = State::Phase::ended;
    ++state_->connection;
    orders.swap(state_->inbox);
    connected = state_->connected;
  }
  for (State::Order &order : orders)
    if (!order.cancel) fail(std::move(order.message), ENOTCONN, "Client disconnected");
  if (connected) connected->signal();
  dropConnectedBlock();
}

// A callback that was never due often holds the client itself, and must not keep it for ever.
void QELNKClient::dropConnectedBlock() {
  state_->responses.seal();
  context()->responseQueue()->async([weak = weak_from_this()] {
    const auto self = std::static_pointer_cast<QELNKClient>(weak.lock());
    if (!self) return;
    ConnectedBlock dropped;  // goes after the lock
    const qelnk::Lock lock(self->state_->mutex);
    if (self->state_->phase == State::Phase::ended) dropped.swap(self->state_->connectedBlock);
  });
}

// Requests.

std::shared_ptr<QELNKMessage> QELNKClient::sendRequest(qelnk::Value request, ResponseBlock responseBlock,
                                                       bool responselessMessage) {
  return send(std::make_shared<QELNKMessage>(std::move(request), std::move(responseBlock), responselessMessage));
}

std::shared_ptr<QELNKMessage> QELNKClient::sendRequest(qelnk::Value request, ResponseBlock responseBlock,
                                                       nanoseconds timeout) {
  auto message = std::make_shared<QELNKMessage>(std::move(request), std::move(responseBlock));
  message->timeout_ = timeout;
  return send(std::move(message));
}

Message QELNKClient::send(Message message) {
  if (QLGetHandle().enabled(qelnk::LogLevel::debug))
    qelnk::logDebug("QELNKClient sending request {}", message->request()->description());
  std::shared_ptr<qelnk::Semaphore> waiter;
  if (syncRequests() && !onMessageThread()) message->waiter_ = waiter = std::make_shared<qelnk::Semaphore>();
  scheduleMessage(message);
  // The last reference may go while the run loop turns here: nothing of the client is used behind this.
  if (message->sync_ && waiter) waitForSemaphore(*waiter);
  return message;
}

void QELNKClient::scheduleMessage(const Message &message) {
  if (prepare(message)) enqueue({&message, 1});
}

void QELNKClient::scheduleMessages(const std::vector<Message> &messages) {
  std::vector<Message> accepted;
  std::ranges::copy_if(messages, std::back_inserter(accepted),
                       [this](const Message &message) { return prepare(message); });
  enqueue(accepted);
}

// Makes a message this client's. Returns false for one that is some client's already.
bool QELNKClient::prepare(const Message &message) {
  const QELNKClient *none = nullptr;
  if (!message || !message->client_.compare_exchange_strong(none, this)) {
    qelnk::logError("QELNKClient was given a message that has been queued before, refusing it");
    return false;
  }
  message->identifier_ = identifierForMessage(*message);
  auto timeout = message->timeout_;
  if (!timeout && !message->isEmptyMessage()) timeout = requestTimeout();
  if (timeout) {
    const nanoseconds now = clock()->now();
    if (*timeout < nanoseconds::max() - now) message->deadline_ = now + *timeout;
  }
  return true;
}

// Queues prepared messages, or finishes them where the client has ended.
void QELNKClient::enqueue(std::span<const Message> messages) {
  state_->pending += messages.size();
  if (Loop *loop = currentLoop()) {
    loop->takeInbox();
    for (const Message &message : messages) {
      message->connection_ = connection();
      loop->append(message);
    }
  } else if (!handIn(messages, false)) {
    for (const Message &message : messages) fail(message, ENOTCONN, "Client disconnected");
  }
}

// Leaves messages to the io thread, and wakes it if it sleeps. Returns false when there will never be one.
bool QELNKClient::handIn(std::span<const Message> messages, bool cancel) {
  std::shared_ptr<qelnk::RunLoop> asleep;
  {
    const qelnk::Lock lock(state_->mutex);
    if (!cancel)
      for (const Message &message : messages) message->connection_ = state_->connection;
    if (state_->phase == State::Phase::ended) return false;
    for (const Message &message : messages) {
      if (!cancel && message->waiter_) message->sync_ = state_->phase != State::Phase::idle;
      state_->inbox.push_back({message, cancel});
    }
    if (cancel) state_->cancelling = true;
    if (state_->asleep.exchange(false)) asleep = state_->runLoop;
  }
  if (asleep) qelnk::RunLoopThread::wake(*asleep);
  return true;
}

void QELNKClient::cancelMessage(const Message &message) {
  if (!message || message->client_ != this || message->isFinished()) return;
  if (Loop *loop = currentLoop()) {
    loop->takeInbox();
    loop->cancel(message);
  } else if (withdraw(message)) {
    fail(message, ECANCELED, "Request cancelled");
  } else {
    handIn({&message, 1}, true);
  }
}

// Takes a message back that waits for the connection to be started; there is no io thread yet that could do it.
bool QELNKClient::withdraw(const Message &message) {
  const qelnk::Lock lock(state_->mutex);
  return state_->phase == State::Phase::idle &&
         std::erase_if(state_->inbox, [&](const State::Order &order) { return order.message == message; }) > 0;
}

QELNKClient::Loop *QELNKClient::currentLoop() const { return onMessageThread() ? state_->loop : nullptr; }

// Finishing.

void QELNKClient::finishMessage(const Message &message) {
  if (Loop *loop = currentLoop(); loop && message && message->client_ == this) loop->finish(message);
}

// Everything about a message that has left the list. From here on it belongs to the host.
void QELNKClient::complete(Message message) {
  auto block = std::exchange(message->responseBlock_, nullptr);
  const auto waiter = std::exchange(message->waiter_, nullptr);
  message->finished_.store(true, std::memory_order_release);
  if (block) state_->responses.post(weak_from_this(), {std::move(message), std::move(block)});
  state_->pending--;  // after it: whoever sees none pending may rely on every callback being queued
  if (waiter) waiter->signal();
}

void QELNKClient::fail(Message message, int32_t code, const char *reason) {
  message->error_ = {.domain = "ZMQ", .code = code, .description = reason, .userInfo = {}};
  complete(std::move(message));
}

std::shared_ptr<QELNKMessage> QELNKClient::messageForResponse(const qelnk::Value &) {
  Loop *loop = currentLoop();
  return loop && loop->messages().first() ? loop->messages().first()->place_.self : nullptr;
}

std::optional<int64_t> QELNKClient::identifierForMessage(const QELNKMessage &) const { return std::nullopt; }

std::vector<std::shared_ptr<QELNKMessage>> QELNKClient::messages() const {
  Loop *loop = currentLoop();
  return loop ? loop->messages().all() : std::vector<std::shared_ptr<QELNKMessage>>();
}

std::shared_ptr<QELNKMessage> QELNKClient::messageWithIdentifier(int64_t identifier) const {
  Loop *loop = currentLoop();
  QELNKMessage *message = loop ? loop->messages().find(identifier) : nullptr;
  return message ? message->place_.self : nullptr;
}

// Properties.

std::optional<nanoseconds> QELNKClient::requestTimeout() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->requestTimeout;
}

void QELNKClient::setRequestTimeout(std::optional<nanoseconds> timeout) {
  const qelnk::Lock lock(state_->mutex);
  state_->requestTimeout = timeout;
}

bool QELNKClient::syncRequests() const { return state_->syncRequests; }
void QELNKClient::setSyncRequests(bool sync) { state_->syncRequests = sync; }
bool QELNKClient::executing() const { return state_->executing; }
void QELNKClient::setExecuting(bool executing) { state_->executing = executing; }
size_t QELNKClient::pendingMessages() const { return state_->pending; }
uint64_t QELNKClient::connection() const { return state_->connection; }
uint64_t QELNKClient::connectionOf(const QELNKMessage &message) { return message.connection_; }

std::string QELNKClient::host() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->host;
}

int32_t QELNKClient::port() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->port;
}

QELNKClient::ConnectedBlock QELNKClient::connectedBlock() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->connectedBlock;
}

void QELNKClient::setConnectedBlock(ConnectedBlock block) { exchangeConnectedBlock(std::move(block)); }

QELNKClient::ConnectedBlock QELNKClient::exchangeConnectedBlock(ConnectedBlock block) {
  const qelnk::Lock lock(state_->mutex);
  if (state_->phase != State::Phase::ended) state_->connectedBlock.swap(block);
  return block;
}
