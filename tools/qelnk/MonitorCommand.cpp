#include <QELNetworkKit/QELNKClient.h>

#include "Command.h"
#include "ConnectionWatch.h"

namespace tool {
namespace {

Exit monitor(Invocation &invocation) {
  const Arguments &arguments = invocation.arguments;
  const int32_t port = portArgument(arguments[1]);
  const auto wanted = arguments.integer("count", 1, INT64_MAX);
  Output &output = invocation.output;
  int64_t count = 0;
  const auto client = QELNKClient::create(QELNKContext::contextWithBackgroundQueue());
  const ConnectionWatch watch(*client, QELNKMonitorEventAll, [&](uint16_t event) {
    if (wanted && count == *wanted) return;
    ++count;
    const std::string name = QELNKMonitor::eventsToString(event);
    if (output.json())
      output.event("monitor", {{"mask", event}, {"name", name}});
    else
      output.line(name);
  });
  client->setSyncRequests(true);
  client->connectToHost(arguments[0], port, nullptr);
  if (client->socket() == nullptr)
    throw Failure(Exit::failed, "cannot connect to " + arguments[0] + ":" + arguments[1]);
  if (wanted)
    invocation.session.waitUntil([&] { return count == *wanted; });
  else
    invocation.session.serve(arguments.has("stay"));
  return Exit::done;
}

}  // namespace

extern const Command monitorCommand;
const Command monitorCommand = {"monitor",
                                "Connects a client and prints the events of its connection.",
                                {"HOST PORT", {{"count", "N", "end after N events"}, stayOption}},
                                nullptr,
                                monitor};

}  // namespace tool
