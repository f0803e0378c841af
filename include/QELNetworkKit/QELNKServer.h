#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/QELNKMessage.h>
#include <QELNetworkKit/QELNKSocket.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

/// The reply side: answers requests, one after the other. The peer of QELNKClient.
///
///     auto server = QELNKServer::create(QELNKContext::sharedContext());
///     server->bindToPort(5555, [](auto &, auto &message) { message->setResponse(answer(*message->request())); });
///
/// Every request must be answered, for a reply socket takes the next one only then. What leaves one unanswered
/// therefore silences the server until it is bound anew: a handler that sets no response, a response that the encoding
/// cannot carry, and a request that cannot be decoded, which any peer can send. Of a request that is not decoded or not
/// answered nothing is logged; isSilent() tells. A host that wants the server to go on sets a fallbackResponse().
///
/// Threads: every operation may be called from any thread, in the handler too. The handler runs on the io thread, with
/// no lock held; other requests wait until it returns.
class QELNK_EXPORT QELNKServer : public QELNKSocket {
 public:
  /// Gets a message that has its request, and answers by setting its response before it returns.
  using MessageBlock =
      std::function<void(const std::shared_ptr<QELNKServer> &server, const std::shared_ptr<QELNKMessage> &message)>;

  /// Null, with a line on the log, for no context.
  static std::shared_ptr<QELNKServer> create(std::shared_ptr<QELNKContext> context);
  ~QELNKServer() override;

  /// Starts the io thread, which binds to the port on all interfaces; 0 lets the system choose one. Returns, once that
  /// is done, whether it succeeded; a failure is also told on the log. While it is bound a second call is refused;
  /// after disconnect() the server may bind again, but not on an io thread.
  bool bindToPort(int32_t port, MessageBlock messageReceived, qelnk::Error *error = nullptr);
  /// The port to which it is bound, also after it has ended; 0 before.
  int32_t port() const;

  /// Stops taking requests and returns; a request that is being handled is still answered.
  void disconnect() override;

  /// The handler.
  MessageBlock messageBlock() const;
  /// Takes effect with the next request.
  void setMessageBlock(MessageBlock block);

  /// Whether a request was left unanswered, so that no other can be taken.
  bool isSilent() const;
  /// What is sent where there is no response that could be; none unless set, and then the server falls silent.
  std::optional<qelnk::Value> fallbackResponse() const;
  void setFallbackResponse(std::optional<qelnk::Value> response);

  /// ZMQ_REP.
  int32_t socketType() const override;

 protected:
  /// For create() of subclasses.
  explicit QELNKServer(std::shared_ptr<QELNKContext> context);
  friend class QELNKSocket;

  void ioThread() override;

 private:
  struct State;
  void serve();
  bool answer();
  bool handle(qelnk::Value request);
  bool reply(const qelnk::Value &response);

  std::unique_ptr<State> state_;
};
