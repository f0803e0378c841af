#include <QELNetworkKit/QELNKSubscriber.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/ZMQSocket.h>

#include "messaging/IOThread.h"
#include "messaging/SubscriberLoop.h"
#include "messaging/SubscriberState.h"
#include "platform/Guard.h"
#include "platform/LogFormat.h"

#include <span>
#include <system_error>
#include <utility>

using qelnk::Data;

std::shared_ptr<QELNKSubscriber> QELNKSubscriber::create(std::shared_ptr<QELNKContext> context) {
  return make<QELNKSubscriber>(std::move(context));
}

QELNKSubscriber::QELNKSubscriber(std::shared_ptr<QELNKContext> context)
    : QELNKSocket(std::move(context)), state_(std::make_unique<State>(this->context()->responseQueue())) {}

// What waits for its queue would otherwise keep the messages until that turns.
QELNKSubscriber::~QELNKSubscriber() { state_->deliveries.clear(); }

int32_t QELNKSubscriber::socketType() const { return ZMQ_SUB; }

// Filters.

void QELNKSubscriber::addFilter(Data prefix) {
  const qelnk::Lock lock(state_->mutex);
  state_->filters.push_back(std::move(prefix));
}

void QELNKSubscriber::addFilterWithInt(int32_t prefix) {
  addFilter(Data(std::span(reinterpret_cast<const uint8_t *>(&prefix), sizeof(prefix))));
}

std::vector<Data> QELNKSubscriber::filters() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->filters;
}

void QELNKSubscriber::subscribe() {
  const auto socket = this->socket();
  if (!socket) return;
  const auto filters = this->filters();
  if (filters.empty()) socket->subscribeAll();
  for (const Data &filter : filters) socket->subscribe(filter.text());
}

// Connecting.

void QELNKSubscriber::connectToHost(std::string host, int32_t port, ConnectedBlock onConnected) {
  const auto refuse = [&](std::string_view reason) {
    qelnk::logError("QELNKSubscriber cannot connect to {}, {}", endPointForHost(host, port), reason);
  };
  if (onMessageThread()) return refuse("called on its own io thread");
  const auto self = weak_from_this().lock();  // a callback may drop the last reference before this is over
  const qelnk::Lock lock(state_->connecting);
  if (hasLastingThread() && !state_->stopping) return refuse("it is connected already");
  state_->abandoned = true;  // this may be the thread that the last line is to be written on
  const auto last = thread();
  cancelThread(last);
  if (!joinThread(last)) return refuse("its last thread cannot be waited for on an io thread");
  if (hasThread()) return refuse("it has been connected meanwhile");
  setConnectedBlock(std::move(onConnected));
  state_->deliveries.clear();  // of the last connection
  try {
    const qelnk::Lock members(state_->mutex);  // disconnect() finds all of the connection, or nothing
    ++state_->connection;
    state_->host = std::move(host);
    state_->port = port;
    state_->stopping = state_->abandoned = false;
    startThread("qelnk-subscr");
  } catch (const std::system_error &error) {
    qelnk::logError("QELNKSubscriber could not connect: {}", error.what());
  }
}

void QELNKSubscriber::ioThread() { Loop(*this).run(); }

void QELNKSubscriber::disconnect() {
  const auto self = weak_from_this().lock();  // a callback may drop the last reference before this is over
  uint64_t connection = 0;
  std::shared_ptr<IOThread> ending;
  {
    const qelnk::Lock lock(state_->mutex);
    state_->stopping = true;
    connection = state_->connection;
    ending = thread();
  }
  const bool connected = ending && !ending->isFinished();
  cancelThread(ending);
  if (connected && (context()->responseQueue()->isCurrent() || !joinThread(ending)))
    qelnk::logError(
        "QELNKSubscriber was disconnected on the thread that serves its response queue, or on an io thread; its io "
        "thread needs that one to end, so it is not waited for");
  if (state_->connection != connection) return;  // another thread has connected it again, with a callback of its own
  setMessageBlock(nullptr);
  state_->deliveries.clear();
}

// Callbacks, on the response queue.

void QELNKSubscriber::informConnected() {
  state_->deliveries.seal();
  const auto queue = context()->responseQueue();  // it may go with the subscriber as soon as it has the task
  queue->async([weak = weak_from_this(), connection = state_->connection.load()] {
    const auto self = std::static_pointer_cast<QELNKSubscriber>(weak.lock());
    if (!self || self->state_->stopping || self->state_->connection != connection) return;
    if (const auto block = self->state_->connectedBlock.current())
      qelnk::runGuarded("QELNKSubscriber connected block", [&] { (*block)(self); });
  });
}

// Properties.

QELNKSubscriber::ConnectedBlock QELNKSubscriber::connectedBlock() const { return state_->connectedBlock.get(); }
void QELNKSubscriber::setConnectedBlock(ConnectedBlock block) { state_->connectedBlock.set(std::move(block)); }
QELNKSubscriber::MessageBlock QELNKSubscriber::messageBlock() const { return state_->messageBlock.get(); }
void QELNKSubscriber::setMessageBlock(MessageBlock block) { state_->messageBlock.set(std::move(block)); }

std::string QELNKSubscriber::host() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->host;
}

int32_t QELNKSubscriber::port() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->port;
}

QELNKSubscriber::PendingLimit QELNKSubscriber::pendingLimit() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->limit;
}

void QELNKSubscriber::setPendingLimit(PendingLimit limit) {
  const qelnk::Lock lock(state_->mutex);
  state_->limit = limit;
}

size_t QELNKSubscriber::pendingMessages() const { return state_->deliveries.waiting(); }
uint64_t QELNKSubscriber::droppedMessages() const { return state_->dropped; }
