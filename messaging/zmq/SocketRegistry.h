#pragma once

#include <QELNetworkKit/ZMQContext.h>

#include <memory>
#include <mutex>
#include <set>
#include <vector>

/// The open sockets of a context. A socket that closes takes itself off, so that months of reconnecting leave nothing
/// behind; it may do so after its context has gone.
struct QELNK_HIDDEN ZMQContext::Registry {
  std::mutex mutex;  // guards the set, and the making of sockets against the end of the context
  std::set<std::shared_ptr<ZMQSocket>> sockets;
  // Those of monitors that have gone before ZeroMQ has stopped sending them events; a socket that is closing may.
  std::vector<std::shared_ptr<ZMQSocket>> keptMonitors;
};
