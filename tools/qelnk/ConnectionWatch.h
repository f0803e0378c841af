#pragma once

#include <QELNetworkKit/QELNKMonitor.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

namespace tool {

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

}  // namespace tool
