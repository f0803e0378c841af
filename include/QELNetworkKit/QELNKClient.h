#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/QELNKMessage.h>
#include <QELNetworkKit/QELNKSocket.h>

#include <chrono>
#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qelnk {
class Semaphore;
}

/// The request side: connects to one host and port, sends requests in the order queued, matches replies to them and
/// hands each to its callback.
///
///     auto client = QELNKClient::create(QELNKContext::contextWithBackgroundQueue());
///     client->connectToHost("localhost", 5555, [](auto &) {});
///     client->sendRequest(Value::map({{"ask", "time"}}), [](auto &, auto &message) {
///       if (message->response()) use(*message->response());
///     });
///
/// ZeroMQ connects in the background: a peer that is not there yet is no failure, requests wait for it. Each message's
/// callback is called exactly once, with its response or with its error, as long as the host holds the client; once the
/// last reference has gone none is called.
///
/// Threads: every public operation may be called from any thread, inside callbacks too. Callbacks run on the context's
/// response queue with no lock held. Hooks run on the io thread and must not wait.
class QELNK_EXPORT QELNKClient : public QELNKSocket {
 public:
  /// Called once it has connected, on the response queue.
  using ConnectedBlock = std::function<void(const std::shared_ptr<QELNKClient> &client)>;
  /// Gets the client and the finished message, on the response queue.
  using ResponseBlock = QELNKMessage::ResponseBlock;

  /// Null, with a line on the log, for no context.
  static std::shared_ptr<QELNKClient> create(std::shared_ptr<QELNKContext> context);
  ~QELNKClient() override;

  /// Starts the io thread, which connects. `onConnected` is called once and may be empty. With syncRequests() it
  /// returns once the callback has run, or the connection has ended. While there is a connection a second call is
  /// refused with a line on the log; after disconnect() the client may connect again, to any host, but not on an io
  /// thread.
  void connectToHost(std::string host, int32_t port, ConnectedBlock onConnected);

  /// Queues a request and returns it. With syncRequests() it returns once the request has finished, serving the calling
  /// thread's run loop meanwhile; on the io thread, and before connectToHost(), it never waits. On a client that has
  /// disconnected the request finishes with its error at once.
  std::shared_ptr<QELNKMessage> sendRequest(qelnk::Value request, ResponseBlock responseBlock,
                                            bool responselessMessage = false);
  /// The same with the longest time that it may take, in place of requestTimeout().
  std::shared_ptr<QELNKMessage> sendRequest(qelnk::Value request, ResponseBlock responseBlock,
                                            std::chrono::nanoseconds timeout);
  /// A plain number is neither a flag nor a duration.
  template <std::integral Number>
  requires(!std::same_as<Number, bool>) std::shared_ptr<QELNKMessage> sendRequest(qelnk::Value, ResponseBlock, Number)
  = delete;

  /// Queues a message as it is, in the order of the calls; never waits for the io thread. One that was queued before is
  /// refused with a line on the log.
  void scheduleMessage(const std::shared_ptr<QELNKMessage> &message);
  /// Queues several with none of another thread's between them.
  void scheduleMessages(const std::vector<std::shared_ptr<QELNKMessage>> &messages);

  /// Ends a message that has not finished: it finishes with an error of code ECANCELED. Whether it was sent meanwhile
  /// is not known; a reply that is sent after this call is discarded. A message that has finished stays as it is.
  void cancelMessage(const std::shared_ptr<QELNKMessage> &message);

  /// Closes the connection. Every message that has not finished finishes with an error of code ENOTCONN, and
  /// whoever waits is released.
  void disconnect() override;

  /// How long a request without a timeout of its own may take; none unless set.
  std::optional<std::chrono::nanoseconds> requestTimeout() const;
  void setRequestTimeout(std::optional<std::chrono::nanoseconds> timeout);

  /// Whether requests and connecting wait. Set it before connecting.
  bool syncRequests() const;
  void setSyncRequests(bool sync);
  /// A flag for subclasses.
  bool executing() const;
  void setExecuting(bool executing);
  /// The peer, as given to connectToHost().
  std::string host() const;
  /// The peer's port, as given to connectToHost().
  int32_t port() const;
  /// The connected callback until it is called. One that is set after disconnect() is not kept.
  ConnectedBlock connectedBlock() const;
  void setConnectedBlock(ConnectedBlock block);
  /// Number of messages that have not finished.
  size_t pendingMessages() const;

  /// ZMQ_REQ.
  int32_t socketType() const override;

 protected:
  /// For create() of subclasses.
  explicit QELNKClient(std::shared_ptr<QELNKContext> context);
  friend class QELNKSocket;

  /// The socket has connected; calls informConnected(). On the io thread.
  virtual void onConnected();
  /// Has the connected callback called on the response queue, and releases who waits for the connection. On the io
  /// thread.
  void informConnected();
  /// Who hears of a connection: its callback, and whoever waits in connectToHost().
  struct Awaiting {
    ConnectedBlock block;                      ///< The connected callback; may be empty.
    std::shared_ptr<qelnk::Semaphore> waiter;  ///< Of who waits, with syncRequests(); else null.
  };
  /// Takes them, so that the client has no connected callback any more; none where the connection is another one by
  /// now. Any thread; calls nobody.
  std::optional<Awaiting> takeAwaiting(uint64_t connection);
  /// setConnectedBlock() that returns the callback that there was, or `block` where that is not kept. Any thread; calls
  /// nobody.
  ConnectedBlock exchangeConnectedBlock(ConnectedBlock block);
  /// informConnected() for those that were taken. Any thread.
  void informConnected(Awaiting awaiting);
  /// disconnect() where the connection still is this one. Any thread.
  void endConnection(uint64_t connection);
  /// The number of the connection, which the time before the first shares with it, or of the time without one. It never
  /// comes again: a callback that finds another one has nothing to do with the connection that there is. Any thread.
  uint64_t connection() const;
  /// The connection that a message was queued on, and finishes with. In its callback.
  static uint64_t connectionOf(const QELNKMessage &message);
  /// The message that `response` answers, or null. Here the oldest one. On the io thread. What an override posts to the
  /// response queue before it returns null runs between the callbacks of the replies around this one.
  virtual std::shared_ptr<QELNKMessage> messageForResponse(const qelnk::Value &response);
  /// The number that a subclass finds a message by, read once when it is queued; none here. On the queueing thread.
  virtual std::optional<int64_t> identifierForMessage(const QELNKMessage &message) const;
  /// The messages that have not finished, the oldest first. On the io thread.
  std::vector<std::shared_ptr<QELNKMessage>> messages() const;
  /// The first of them with an identifier, or null. On the io thread.
  std::shared_ptr<QELNKMessage> messageWithIdentifier(int64_t identifier) const;
  /// Finishes a message: schedules its callback, releases who waits for it, takes it off the list. On the io thread.
  void finishMessage(const std::shared_ptr<QELNKMessage> &message);
  /// Waits for `semaphore` turning the calling thread's run loop, at most 0.1 s at a time.
  static void waitForSemaphore(qelnk::Semaphore &semaphore);

  void ioThread() override;

 private:
  struct State;
  class Loop;
  std::shared_ptr<QELNKMessage> send(std::shared_ptr<QELNKMessage> message);
  bool prepare(const std::shared_ptr<QELNKMessage> &message);
  void enqueue(std::span<const std::shared_ptr<QELNKMessage>> messages);
  bool handIn(std::span<const std::shared_ptr<QELNKMessage>> messages, bool cancel);
  bool withdraw(const std::shared_ptr<QELNKMessage> &message);
  void complete(std::shared_ptr<QELNKMessage> message);
  void fail(std::shared_ptr<QELNKMessage> message, int32_t code, const char *reason);
  void end(std::optional<uint64_t> connection);
  void endWithoutThread();
  void dropConnectedBlock();
  Loop *currentLoop() const;

  std::unique_ptr<State> state_;
};
