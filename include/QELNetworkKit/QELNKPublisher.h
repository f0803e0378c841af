#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKSocket.h>
#include <QELNetworkKit/Value.h>

#include <atomic>
#include <cstdint>
#include <memory>

/// Broadcasts messages to whoever has subscribed. The peer of QELNKSubscriber.
///
///     auto publisher = QELNKPublisher::create(QELNKContext::sharedContext());
///     publisher->bindToPort(5556);
///     publisher->publish(qelnk::Value::map({{"onAir", true}}));
///
/// It knows nothing of its subscribers: what is published before one has joined is not for him, and for one that reads
/// too slowly ZeroMQ keeps 1,000 messages and drops what comes then. A host that would rather wait for the slowest sets
/// ZMQ_XPUB_NODROP on the socket (see setSocketBlock()), and ZMQ_SNDTIMEO, so that one that has stopped reading does
/// not hold up publish(), and disconnect() behind it, for ever.
///
/// Threads: every operation may be called from any thread, but for those of the base that send, which must not run at
/// the same time as anything else. It has no thread of its own.
class QELNK_EXPORT QELNKPublisher : public QELNKSocket {
 public:
  /// Null, with a line on the log, for no context.
  static std::shared_ptr<QELNKPublisher> create(std::shared_ptr<QELNKContext> context);

  /// Binds to the port on all interfaces; 0 lets the system choose one. Throws ZMQException, and is as before, when
  /// that fails. While it is bound a second call is refused with a line on the log; after disconnect() it may bind
  /// again.
  void bindToPort(int32_t port);
  /// The port to which it is, or was, bound; 0 before.
  int32_t port() const { return port_; }

  /// Encodes a message and sends it to all who have subscribed to its first bytes. False, with a line on the log, when
  /// it cannot be encoded or there is no socket. Does not wait for anybody, unless the socket was told to.
  bool publish(const qelnk::Value &message, qelnk::Error *error = nullptr);

  /// Closes the socket. What was published last has a second to leave, in the background.
  void disconnect() override;

  /// ZMQ_PUB.
  int32_t socketType() const override;

 protected:
  /// For create() of subclasses.
  explicit QELNKPublisher(std::shared_ptr<QELNKContext> context);
  std::unique_lock<qelnk::Mutex> lockSocket() override { return std::unique_lock(sending_); }
  friend class QELNKSocket;

 private:
  qelnk::Mutex sending_;  // one thread at a time uses the socket
  bool closeWhenBound_ QELNK_GUARDED_BY(sending_) = false;
  // Nobody does: it is being made, and handed to the host's socket block.
  bool binding_ QELNK_GUARDED_BY(sending_) = false;
  std::atomic<int32_t> port_{0};
};
