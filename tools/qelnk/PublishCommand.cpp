#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>

#include <algorithm>
#include <cerrno>

#include "Body.h"
#include "Command.h"
#include "ConnectionWatch.h"

namespace tool {
namespace {

/// A publisher that hears of subscriptions: to a subscriber it is the same, but an extended socket can be read.
class CountingPublisher : public QELNKPublisher {
 public:
  explicit CountingPublisher(std::shared_ptr<QELNKContext> context) : QELNKPublisher(std::move(context)) {}
  int32_t socketType() const override { return ZMQ_XPUB; }

  /// How many subscriptions there are.
  int64_t subscriptions() {
    while (const auto frames = receiveData(ZMQ_DONTWAIT, nullptr)) {
      if (frames->empty() || frames->front().empty()) continue;
      subscriptions_ += frames->front().data()[0] == 1 ? 1 : -1;
    }
    return subscriptions_;
  }

 private:
  int64_t subscriptions_ = 0;
};

/// Publishes the lines of standard input.
class Publishing {
 public:
  explicit Publishing(Invocation &invocation)
      : invocation_(invocation),
        body_(Body::of(invocation.arguments)),
        wanted_(invocation.arguments.integer("wait", 1, 1'000'000).value_or(0)),
        publisher_(QELNKSocket::make<CountingPublisher>(QELNKContext::contextWithBackgroundQueue())),
        watch_(*publisher_, ZMQ_EVENT_HANDSHAKE_SUCCEEDED | QELNKMonitorEventDisconnected, [this](uint16_t event) {
          connections_ = std::max<int64_t>(0, connections_ + (event == QELNKMonitorEventDisconnected ? -1 : 1));
        }) {}

  Exit run();

 private:
  void bind();
  void awaitSubscribers();
  void publish(const qelnk::Value &message);

  Invocation &invocation_;
  const Body body_;
  const int64_t wanted_;
  int64_t connections_ = 0;
  const std::shared_ptr<CountingPublisher> publisher_;
  const ConnectionWatch watch_;
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
  socket->setInt(int(std::min(invocation_.timeout, 1e6) * 1000), ZMQ_SNDTIMEO);
  if (invocation_.output.json())
    invocation_.output.event("listening", {{"port", publisher_->port()}});
  else
    invocation_.output.line("listening on port " + std::to_string(publisher_->port()));
}

/// Waits until so many are there and have said what they want: what is published before that is not for them.
void Publishing::awaitSubscribers() {
  const auto joined = [this] { return std::min(connections_, publisher_->subscriptions()); };
  const auto wait = invocation_.session.waitUntil([&] { return joined() >= wanted_; }, after(invocation_.timeout),
                                                  std::chrono::milliseconds(5));
  if (wait == Session::Wait::timedOut)
    throw Failure(Exit::unanswered, std::to_string(joined()) + " of " + std::to_string(wanted_) +
                                        " subscribers have joined in time (--timeout gives them longer)");
}

void Publishing::publish(const qelnk::Value &message) {
  qelnk::Error error;
  publisher_->subscriptions();  // or what has come would pile up
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
