#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/QELNKSocket.h>
#include <QELNetworkKit/Value.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Receives what a QELNKPublisher, or any other publishing socket, broadcasts.
///
///     auto subscriber = QELNKSubscriber::create(QELNKContext::sharedContext());
///     subscriber->setMessageBlock([](auto &, const qelnk::Value &message) { show(message); });
///     subscriber->connectToHost("studio-a", 5556, [](auto &) {});
///
/// ZeroMQ connects in the background, and again when the publisher comes back. After 5 s without a message the
/// subscriber makes a new connection besides, once: the next message arms that again.
///
/// A callback that is slower than the publisher: messages wait, in order, up to pendingLimit(); beyond it the oldest
/// ones are dropped, so that the newest always arrives, and counted in droppedMessages().
///
/// Threads: every operation may be called from any thread, but for disconnect(). Callbacks run on the context's
/// response queue with no lock held; once the host has let go of the subscriber none is called.
class QELNK_EXPORT QELNKSubscriber : public QELNKSocket {
 public:
  /// Called after each connecting, on the response queue.
  using ConnectedBlock = std::function<void(const std::shared_ptr<QELNKSubscriber> &subscriber)>;
  /// Gets one message, on the response queue.
  using MessageBlock =
      std::function<void(const std::shared_ptr<QELNKSubscriber> &subscriber, const qelnk::Value &message)>;
  /// How long a publisher may be silent.
  static constexpr std::chrono::seconds silenceLimit{5};

  /// Null, with a line on the log, for no context.
  static std::shared_ptr<QELNKSubscriber> create(std::shared_ptr<QELNKContext> context);
  ~QELNKSubscriber() override;

  /// Asks for the messages whose first frame begins with `prefix`; without any filter all are received. Filters take
  /// effect when it connects, or connects again.
  void addFilter(qelnk::Data prefix);
  /// The same with the 4 bytes of an integer in the machine's order.
  void addFilterWithInt(int32_t prefix);
  /// The prefixes that were added, in order.
  std::vector<qelnk::Data> filters() const;

  /// Starts the io thread, which connects. `onConnected` is called after each connecting, the first and those after a
  /// silence; it may be empty. While there is a connection a second call is refused with a line on the log; once it has
  /// ended, by disconnect() or because it could not connect, the subscriber may connect again, but not on an io thread.
  void connectToHost(std::string host, int32_t port, ConnectedBlock onConnected);

  /// Ends the connection, returns once the io thread has ended, and clears the message callback; none is called after
  /// it. The io thread writes its last line on the response queue and waits for that, so this must not be called on the
  /// thread that serves the queue (a callback, or the main thread for the shared context). Done there all the same, it
  /// says so on the log's error level and does not wait for the thread. To let go of the subscriber needs no
  /// disconnect() and may be done anywhere.
  void disconnect() override;

  /// The connected callback; the one that is set when the call's turn comes.
  ConnectedBlock connectedBlock() const;
  void setConnectedBlock(ConnectedBlock block);
  /// Called for each message; the one that is set when the call's turn comes.
  MessageBlock messageBlock() const;
  void setMessageBlock(MessageBlock block);
  /// The publisher, as given to connectToHost().
  std::string host() const;
  /// The publisher's port, as given to connectToHost().
  int32_t port() const;

  /// What may wait for the message callback: so many messages, and so many bytes of frames. One message always may.
  struct PendingLimit {
    /// Number of messages.
    size_t messages = 65536;
    /// Bytes of their frames.
    size_t bytes = size_t(64) << 20;
    /// Equal when both are.
    bool operator==(const PendingLimit &) const = default;
  };
  /// The limit in force; takes effect with the next message.
  PendingLimit pendingLimit() const;
  void setPendingLimit(PendingLimit limit);
  /// How many messages wait.
  size_t pendingMessages() const;
  /// How many were dropped since the subscriber was made because they exceeded the limit. Each time it begins to drop
  /// there is a line on the log.
  uint64_t droppedMessages() const;

  /// ZMQ_SUB.
  int32_t socketType() const override;

 protected:
  /// For create() of subclasses.
  explicit QELNKSubscriber(std::shared_ptr<QELNKContext> context);
  friend class QELNKSocket;

  /// Asks the socket for what the filters say. On the io thread, before each connecting.
  virtual void subscribe();
  void ioThread() override;

 private:
  struct State;
  class Loop;
  void informConnected();

  std::unique_ptr<State> state_;
};
