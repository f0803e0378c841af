#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKMonitor.h>
#include <QELNetworkKit/RunLoop.h>

#include <functional>
#include <memory>
#include <thread>

#include "Command.h"

namespace tool {
namespace {

/// Brings the transport events of an endpoint to the main thread.
///
/// Threads: the main thread, on which the events arrive; make it before the endpoint connects.
class ConnectionWatch {
 public:
  using Handler = std::function<void(uint16_t event)>;
  /// Watches `endpoint` from its first event on.
  ConnectionWatch(QELNKSocket &endpoint, uint32_t mask, Handler handler);
  /// Ends; no event arrives any more.
  ~ConnectionWatch();
  ConnectionWatch(const ConnectionWatch &) = delete;
  ConnectionWatch &operator=(const ConnectionWatch &) = delete;

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
  std::thread thread_;
};

struct ConnectionWatch::Shared {
  std::shared_ptr<QELNKMonitor> monitor;
  Handler handler;
  qelnk::Mutex mutex;
  qelnk::Condition changed;
  int attached QELNK_GUARDED_BY(mutex) = 0;  // how often
  bool ended QELNK_GUARDED_BY(mutex) = false;

  bool hasEnded() {
    const qelnk::Lock lock(mutex);
    return ended;
  }

  // The thread that waits for events. After one of the monitor's connections the next may come.
  void read(const std::shared_ptr<Shared> &self) {
    for (int seen = 0;;) {
      {
        qelnk::Lock lock(mutex);
        while (!ended && attached <= seen) changed.wait(lock);
        if (ended) return;
        seen = attached;
      }
      while (const uint16_t event = monitor->events())
        qelnk::RunLoop::main()->perform([self, event] {
          if (!self->hasEnded()) self->handler(event);
        });
    }
  }
};

ConnectionWatch::ConnectionWatch(QELNKSocket &endpoint, uint32_t mask, Handler handler)
    : shared_(std::make_shared<Shared>()) {
  shared_->monitor = QELNKMonitor::create(endpoint.context());
  shared_->handler = std::move(handler);
  endpoint.setSocketBlock([shared = shared_, mask](const auto &socket, auto &) {
    shared->monitor->connectToSocket(socket, mask);
    const qelnk::Lock lock(shared->mutex);
    ++shared->attached;
    shared->changed.notifyOne();
  });
  thread_ = std::thread([shared = shared_] { shared->read(shared); });
}

ConnectionWatch::~ConnectionWatch() {
  {
    const qelnk::Lock lock(shared_->mutex);
    shared_->ended = true;
  }
  shared_->changed.notifyOne();
  shared_->monitor->disconnect();
  thread_.join();
}

Exit monitor(Invocation &invocation) {
  const Arguments &arguments = invocation.arguments;
  const int32_t port = portArgument(arguments[1]);
  const auto wanted = arguments.integer("count", 1, INT64_MAX);
  Output &output = invocation.output;
  int64_t count = 0;
  const auto client = QELNKClient::create(QELNKContext::contextWithBackgroundQueue());
  const ConnectionWatch watch(*client, QELNKMonitorEventAll - QELNKMonitorEventMonitorStopped, [&](uint16_t event) {
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
