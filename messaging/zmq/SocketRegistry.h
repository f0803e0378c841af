#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/ZMQContext.h>

#include <memory>
#include <set>
#include <vector>

#include "messaging/zmq/Authenticator.h"

/// The open sockets of a context. A socket that closes takes itself off, so that months of reconnecting leave nothing
/// behind; it may do so after its context has gone.
struct QELNK_HIDDEN ZMQContext::Registry {
  qelnk::Mutex mutex;  // also keeps the context from its end while a socket is being made
  std::set<std::shared_ptr<ZMQSocket>> sockets QELNK_GUARDED_BY(mutex);
  // Those of monitors that have gone before ZeroMQ has stopped sending them events; a socket that is closing may.
  std::vector<std::shared_ptr<ZMQSocket>> keptMonitors QELNK_GUARDED_BY(mutex);
  std::unique_ptr<qelnk::Authenticator> authenticator QELNK_GUARDED_BY(mutex);  // once an endpoint needs it
  bool started QELNK_GUARDED_BY(mutex) = false;                                 // the context has its threads

  /// zmq_socket(), for every socket of the context: null, with errno, also where the context could not start.
  void *openSocket(void *context, int type) QELNK_REQUIRES(mutex);
};
