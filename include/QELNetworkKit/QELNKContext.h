#pragma once

#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/Export.h>

#include <memory>

class ZMQContext;
namespace qelnk {
class Queue;
}

/// What messaging endpoints share: a ZeroMQ context with one io thread, a queue that is kept for the host, and the
/// queue on which the callbacks of connections and responses run.
///
/// Threads: any. It is destroyed when the last holder lets go (each endpoint holds its context), which closes its
/// sockets and terminates its ZeroMQ context; that waits for no peer beyond the linger time of a socket.
class QELNK_EXPORT QELNKContext {
 public:
  /// The process's context, made on first use; its callbacks run on the main queue. None after
  /// terminateSharedContext(). Throws ZMQException when ZeroMQ makes none.
  static std::shared_ptr<QELNKContext> sharedContext();

  /// A new context with one serial queue of its own for both, so that no callback runs on the main queue.
  static std::shared_ptr<QELNKContext> contextWithBackgroundQueue();

  /// Drops the process's hold on the shared context for good. It ends once no endpoint holds it.
  static void terminateSharedContext();

  /// A context of the host's own parts; endpoints hold it, and it holds these.
  QELNKContext(std::shared_ptr<ZMQContext> zmqContext, std::shared_ptr<qelnk::Queue> networkQueue,
               std::shared_ptr<qelnk::Queue> responseQueue);
  ~QELNKContext();
  QELNKContext(const QELNKContext &) = delete;
  QELNKContext &operator=(const QELNKContext &) = delete;

  /// Where the endpoints' sockets are made.
  const std::shared_ptr<ZMQContext> &zmqContext() const { return zmqContext_; }
  /// A queue that is kept for the host; the library runs nothing on it.
  const std::shared_ptr<qelnk::Queue> &networkQueue() const { return networkQueue_; }
  /// Where callbacks run.
  const std::shared_ptr<qelnk::Queue> &responseQueue() const { return responseQueue_; }

 private:
  std::shared_ptr<ZMQContext> zmqContext_;
  std::shared_ptr<qelnk::Queue> networkQueue_;
  std::shared_ptr<qelnk::Queue> responseQueue_;
};
