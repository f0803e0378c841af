#include "ConnectionWatch.h"

#include <QELNetworkKit/RunLoop.h>

#include <condition_variable>
#include <mutex>

namespace tool {

struct ConnectionWatch::Shared {
  std::shared_ptr<QELNKMonitor> monitor;
  Handler handler;
  std::mutex mutex;  // guards the two
  std::condition_variable changed;
  int attached = 0;  // how often
  bool ended = false;

  // The thread that waits for events. After one of the monitor's connections the next may come.
  void read(const std::shared_ptr<Shared> &self) {
    for (int seen = 0;;) {
      {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return ended || attached > seen; });
        if (ended) return;
        seen = attached;
      }
      while (const uint16_t event = monitor->events())
        qelnk::RunLoop::main()->perform([self, event] {
          if (!self->ended) self->handler(event);
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
    const std::lock_guard lock(shared->mutex);
    ++shared->attached;
    shared->changed.notify_one();
  });
  thread_ = std::thread([shared = shared_] { shared->read(shared); });
}

ConnectionWatch::~ConnectionWatch() {
  {
    const std::lock_guard lock(shared_->mutex);
    shared_->ended = true;
  }
  shared_->changed.notify_one();
  shared_->monitor->disconnect();
  thread_.join();
}

}  // namespace tool
