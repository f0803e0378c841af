#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "Body.h"
#include "Command.h"

namespace tool {
namespace {

/// A publisher that hears of subscriptions: to a subscriber it is the same, but an extended socket can be read.
class CountingPublisher : public QELNKPublisher {
 public:
  explicit CountingPublisher(std::shared_ptr<QELNKContext> context) : QELNKPublisher(std::move(context)) {}
  int32_t socketType() const override { return ZMQ_XPUB; }

  /// How many are there and have said what they want.
  size_t subscribers() {
    zmq_msg_t message;
    zmq_msg_init(&message);
    while (zmq_msg_recv(&message, socket()->socket(), ZMQ_DONTWAIT) >= 0) {
      const bool subscribes = zmq_msg_size(&message) > 0 && *static_cast<const char *>(zmq_msg_data(&message)) == 1;
      subscriptions_ += subscribes ? 1 : -1;
      if (subscribes) connections_.insert(zmq_msg_get(&message, ZMQ_SRCFD));
    }
    zmq_msg_close(&message);
    return std::min(connections_.size(), size_t(std::max(subscriptions_, 0)));
  }

 private:
  std::set<int> connections_;  // that have subscribed to something, by their descriptors; some may have gone
  int subscriptions_ = 0;      // of those that are there
};

/// Publishes the lines of standard input.
class Publishing {
 public:
  explicit Publishing(Invocation &invocation)
      : invocation_(invocation),
        body_(Body::of(invocation.arguments)),
        wanted_(size_t(invocation.arguments.integer("wait", 1, 1'000'000).value_or(0))),
        publisher_(QELNKSocket::make<CountingPublisher>(QELNKContext::contextWithBackgroundQueue())) {}

  Exit run();

 private:
  void bind();
  void awaitSubscribers();
  void publish(const qelnk::Value &message);

  Invocation &invocation_;
  const Body body_;
  const size_t wanted_;
  const std::shared_ptr<CountingPublisher> publisher_;
};

void Publishing::bind() {
  const Arguments &arguments = invocation_.arguments;
  publisher_->setMessageBody(body_.number());
  try {
    publisher_->bindToPort(ownPortArgument(arguments[0]));
  } catch (const ZMQException &exception) {
    throw Failure(Exit::failed, "port " + arguments[0] + ": " + exception.what());
  }
  const auto socket = publisher_->socket();
  socket->setInt(1, ZMQ_XPUB_VERBOSER);  // tell of every subscription, not of the first of each kind
  socket->setInt(1, ZMQ_XPUB_NODROP);    // wait for a slow subscriber rather than lose lines
  const int limit = int(std::min(invocation_.timeout, 1e6) * 1000);
  socket->setInt(limit, ZMQ_SNDTIMEO);
  socket->setInt(limit, ZMQ_LINGER);
  if (invocation_.output.json())
    invocation_.output.event("listening", {{"port", publisher_->port()}});
  else
    invocation_.output.line("listening on port " + std::to_string(publisher_->port()));
}

/// Waits until so many are there and have said what they want: what is published before that is not for them.
void Publishing::awaitSubscribers() {
  const auto wait = invocation_.session.waitUntil([&] { return publisher_->subscribers() >= wanted_; },
                                                  after(invocation_.timeout), std::chrono::milliseconds(5));
  if (wait == Session::Wait::timedOut)
    throw Failure(Exit::unanswered, std::to_string(publisher_->subscribers()) + " of " + std::to_string(wanted_) +
                                        " subscribers have joined in time (--timeout gives them longer)");
}

void Publishing::publish(const qelnk::Value &message) {
  qelnk::Error error;
  publisher_->subscribers();  // or what has come would pile up
  const auto frames = publisher_->serializeMessage(message, &error);
  if (frames && publisher_->sendData(*frames, &error)) {
    const size_t bytes = frames->front().size();
    if (invocation_.output.json())
      invocation_.output.event("published", {{"bytes", bytes}});
    else
      invocation_.output.line("published " + std::to_string(bytes) + " bytes");
    return;
  }
  if (error.code == EINTR) return;
  if (error.code == EAGAIN) throw Failure(Exit::unanswered, "a subscriber does not read: no message taken in time");
  throw Failure(Exit::failed, error.description);
}

Exit Publishing::run() {
  bind();
  if (wanted_ > 0) awaitSubscribers();
  size_t number = 0;
  while (const auto line = invocation_.session.readLine()) {
    ++number;
    if (const auto message = body_.message(*line, number)) publish(*message);
  }
  invocation_.session.serve(invocation_.arguments.has("stay"));
  // Who asks it to end does not want to wait for a subscriber that does not read.
  if (invocation_.session.stopped()) publisher_->socket()->setInt(int(ZMQSocket::longestLinger.count()), ZMQ_LINGER);
  return Exit::done;
}

Exit publish(Invocation &invocation) { return Publishing(invocation).run(); }

}  // namespace

extern const Command publishCommand;
const Command publishCommand = {
    "publish",
    "Broadcasts each line of standard input to whoever has subscribed.",
    {"PORT",
     {Body::option, {"wait", "N", "first wait until N subscribers have joined, at most the timeout"}, stayOption}},
    [] {
      return "Port 0 lets the system choose one. " + Body::notes() +
             "A subscriber that does not read holds the others up, at most the timeout.\n";
    },
    publish};

}  // namespace tool
