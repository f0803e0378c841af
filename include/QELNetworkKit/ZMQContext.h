#pragma once

#include <QELNetworkKit/Export.h>

#include <zmq.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>

class ZMQSocket;
namespace qelnk {
class Authenticator;
}

/// A ZeroMQ context and the sockets made on it.
///
/// Threads: every operation may be called from any thread. closeSockets() and terminate() belong to the end of its
/// life: but for those that an endpoint's io thread owns, no thread may be using a socket of it by then.
class QELNK_EXPORT ZMQContext {
 public:
  /// The version of the ZeroMQ library in use.
  static void getZMQVersion(int &major, int &minor, int &patch);
  /// ZeroMQ's poll, unchanged: the timeout is in milliseconds, -1 for ever. Returns how many items are ready, or -1.
  static int pollWithItems(zmq_pollitem_t *items, int count, long timeout);

  /// Throws ZMQException when ZeroMQ makes no context.
  explicit ZMQContext(int ioThreads);
  /// Closes what is still open and terminates.
  ~ZMQContext();
  ZMQContext(const ZMQContext &) = delete;
  ZMQContext &operator=(const ZMQContext &) = delete;

  /// A new socket, which the context keeps until it is closed. Throws ZMQException.
  std::shared_ptr<ZMQSocket> socketWithType(int32_t type);

  /// The sockets that were made here and are not closed yet.
  std::set<std::shared_ptr<ZMQSocket>> sockets() const;

  /// Closes each of them; one that an endpoint's io thread owns is closed by that thread, whose loop ends.
  void closeSockets();
  /// Ends the ZeroMQ context: what waits in a call on one of its sockets fails with ETERM. It waits until the last
  /// socket is closed and, for each, at most as long as its linger option says. Twice is harmless.
  void terminate();
  /// Whether terminate() was called.
  bool isTerminated() const { return terminated_.load(); }

  /// The raw context; null after termination.
  void *context() const { return context_.load(); }
  void setContext(void *context) { context_.store(context); }

 private:
  friend class ZMQSocket;
  friend class QELNKSocket;
  struct Registry;
  std::shared_ptr<ZMQSocket> makeSocket(int32_t type, bool ownedByThread);
  void keepMonitor(const std::shared_ptr<ZMQSocket> &socket);
  qelnk::Authenticator &authenticator();
  std::atomic<void *> context_{nullptr};
  std::atomic<bool> terminated_{false};
  std::shared_ptr<Registry> registry_;  // the sockets; outlives the context as long as a socket needs it
};
