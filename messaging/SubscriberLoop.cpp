#include "messaging/SubscriberLoop.h"

#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>

#include "messaging/ErrorText.h"
#include "platform/Guard.h"

#include <atomic>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

using namespace std::chrono_literals;
using qelnk::describe;
using qelnk::Error;

QELNKSubscriber::Loop::Loop(QELNKSubscriber &subscriber)
    : subscriber_(subscriber),
      state_(*subscriber.state_),
      runLoop_(qelnk::RunLoop::current()),
      endpoint_(endPointForHost(subscriber.host(), subscriber.port())),
      silentSince_(subscriber.clock()->now()) {
  runLoop_->setClock(subscriber.clock());
  subscriber.clock()->attach(runLoop_);  // the silence is looked at in every pass: a clock moved by hand causes one
}

void QELNKSubscriber::Loop::run() {
  qelnk::runGuarded("QELNKSubscriber io thread", [this] {
    while (pass() && !subscriber_.isCancelled()) {
    }
  });
  end();
}

// One pass. Returns false when it was the last.
bool QELNKSubscriber::Loop::pass() {
  if (!poll_ && !connect()) {
    qelnk::logError("QELNKSubscriber could not connect");
    return false;
  }
  const int events = subscriber_.pollSocket(poll_, pollInterval);
  if (events < 0) {
    const int error = zmq_errno();
    qelnk::logError("QELNKSubscriber poll error {}", qelnk::describeNumber(error));
    if (error != EINTR) return false;
  }
  if (events > 0 && (events & ZMQ_POLLERR)) qelnk::logError("QELNKSubscriber socket has error flagged");
  if (events > 0)
    receive();
  else
    watchSilence();
  return true;
}

bool QELNKSubscriber::Loop::connect() {
  qelnk::logDefault("QELNKSubscriber connecting to {}", endpoint_);
  try {
    const auto socket = subscriber_.openSocket(endpoint_);
    subscriber_.subscribe();
    poll_ = qelnk::SocketPoll(socket->socket(), *runLoop_);
    socket->connectToEndpoint(endpoint_);
  } catch (const std::exception &exception) {  // ZMQException, or std::system_error for want of descriptors
    qelnk::logError("QELNKSubscriber connect threw exception {}", exception.what());
    return false;
  }
  qelnk::logDefault("QELNKSubscriber connected to {}", endpoint_);
  subscriber_.informConnected();
  return true;
}

// Receiving.

void QELNKSubscriber::Loop::receive() {
  // How many messages are received before the run loop has its turn.
  constexpr int drainBound = 256;
  silentSince_ = subscriber_.clock()->now();  // before anybody hears of it
  renewed_ = false;
  for (int count = 0; count < drainBound && !subscriber_.isCancelled() && receiveOne(); ++count) {
  }
  deliver();
}

// Returns false when there is nothing more.
bool QELNKSubscriber::Loop::receiveOne() {
  Error error;
  std::optional<qelnk::Value> message;
  size_t bytes = 0;
  const int number = subscriber_.receiveMessage(ZMQ_DONTWAIT, message, error, bytes);
  if (number != 0) {
    if (number != EAGAIN)
      qelnk::logError("QELNKSubscriber recieved message with no data and error {}", describe(qelnk::zmqError(number)));
    return false;
  }
  if (message)
    add(std::move(*message), bytes);
  else
    qelnk::logError("QELNKSubscriber could not deserialize message with error {}", describe(error));
  return true;
}

void QELNKSubscriber::Loop::add(qelnk::Value message, size_t bytes) {
  // How many are handed over at a time while there are more: one by one costs more, many come late.
  constexpr size_t largestHandOver = 32;
  if (QLGetHandle().enabled(qelnk::LogLevel::debug))
    qelnk::logDebug("QELNKSubscriber got message {}", message.description());
  received_.push_back({std::move(message), bytes});
  if (received_.size() == largestHandOver) deliver();
}

void QELNKSubscriber::Loop::deliver() {
  const PendingLimit limit = subscriber_.pendingLimit();
  const size_t dropped = state_.deliveries.post(subscriber_.weak_from_this(), received_, {limit.messages, limit.bytes});
  received_.clear();
  if (dropped == 0) {
    dropping_ = dropping_ && state_.deliveries.waiting() > 1;
    return;
  }
  state_.dropped += dropped;
  if (!std::exchange(dropping_, true))
    qelnk::logError("QELNKSubscriber drops messages from {}, its callback is too slow", endpoint_);
}

// A publisher that is silent may have gone without a word. One new connection is enough to find out: where it has, that
// one stays until the publisher is back.
void QELNKSubscriber::Loop::watchSilence() {
  if (renewed_ || subscriber_.clock()->now() - silentSince_ < silenceLimit) return;
  qelnk::logDefault("QELNKSubscriber didn't recieve any data for at least 5 seconds, re-connecting");
  poll_ = {};
  subscriber_.closeSocket();
  renewed_ = true;
}

// The last line is written on the response queue, behind the callbacks, and the thread waits for that: whoever
// disconnects knows then that none will come. Nobody needs to know once the host has let go, or connects anew.
void QELNKSubscriber::Loop::end() {
  state_.stopping = true;
  subscriber_.closeSocket();
  const auto written = std::make_shared<std::atomic<bool>>(false);
  // Is destroyed with the task that holds it, whether that has run or not.
  std::shared_ptr<void> wakeUp(nullptr, [written, loop = runLoop_](void *) {
    *written = true;
    loop->perform([] {});
  });
  state_.deliveries.seal();
  subscriber_.context()->responseQueue()->async(
      [wakeUp = std::move(wakeUp)] { qelnk::logDefault("QELNKSubscriber io thread exiting"); });
  const auto patience = subscriber_.clock()->now() + 5s;
  bool told = false;
  while (!*written && !state_.abandoned && !subscriber_.weak_from_this().expired()) {
    runLoop_->runOnce(100ms);
    if (!told && !*written && subscriber_.clock()->now() > patience) {
      qelnk::logError("QELNKSubscriber io thread cannot end, for nobody serves its response queue");
      told = true;
    }
  }
}
