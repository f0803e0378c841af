#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKSubscriber.h>

#include "Body.h"
#include "Command.h"

namespace tool {
namespace {

Exit subscribe(Invocation &invocation) {
  const Arguments &arguments = invocation.arguments;
  const Body body = Body::of(arguments);
  const int32_t port = portArgument(arguments[1]);
  const auto wanted = arguments.integer("count", 1, INT64_MAX);
  Output &output = invocation.output;
  int64_t count = 0;
  // The shared context's callbacks arrive on the main thread. The subscriber is let go of there rather than
  // disconnected, which would wait for callbacks of this very thread.
  const auto subscriber = QELNKSubscriber::create(QELNKContext::sharedContext());
  subscriber->setMessageBody(body.number());
  for (const std::string &filter : arguments.all("filter")) subscriber->addFilter(qelnk::Data(filter));
  for (const std::string &filter : arguments.all("filter-int"))
    subscriber->addFilterWithInt(int32_t(integerArgument("--filter-int", filter, INT32_MIN, INT32_MAX)));
  subscriber->setMessageBlock([&](auto &, const qelnk::Value &message) {
    if (wanted && count == *wanted) return;
    ++count;
    if (output.json())
      output.event("message", {{"message", body.plain(message)}});
    else
      output.line(body.text(message));
  });
  bool connected = false;
  subscriber->connectToHost(arguments[0], port, [&](auto &) {
    connected = true;
    if (output.json()) output.event("connected");
  });
  // ZeroMQ takes up any connection at once and makes it in the background.
  if (invocation.session.waitUntil([&] { return connected; }, after(invocation.timeout)) == Session::Wait::timedOut)
    throw Failure(Exit::failed, "cannot connect to " + arguments[0] + ":" + arguments[1]);
  if (wanted)
    invocation.session.waitUntil([&] { return count == *wanted; });
  else
    invocation.session.serve(arguments.has("stay"));
  if (const uint64_t dropped = subscriber->droppedMessages())
    complain("subscribe: the output was too slow, " + std::to_string(dropped) + " messages were lost");
  return Exit::done;
}

}  // namespace

extern const Command subscribeCommand;
const Command subscribeCommand = {
    "subscribe",
    "Prints what a publisher broadcasts.",
    {"HOST PORT",
     {Body::option,
      {"filter", "TEXT", "only messages that begin with this; may be given several times"},
      {"filter-int", "N", "the same with the four bytes of a number"},
      {"count", "N", "end after N messages"},
      stayOption}},
    nullptr,
    subscribe};

}  // namespace tool
