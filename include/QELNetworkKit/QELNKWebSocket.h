#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/Value.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace qelnk {
class WebSocketConnection;
}

class QELNKWebSocket;

/// What a WebSocket tells its observer; called on the queue of its options.
class QELNK_EXPORT QELNKWebSocketDelegate {
 public:
  virtual ~QELNKWebSocketDelegate() = default;
  /// The handshake has completed.
  virtual void webSocketDidOpen(const std::shared_ptr<QELNKWebSocket> &webSocket) = 0;
  /// The connection has failed, once for each; the log says why. Where the peer closes it in good order this is not
  /// called.
  virtual void webSocketDidClose(const std::shared_ptr<QELNKWebSocket> &webSocket) = 0;
  /// A text message has arrived.
  virtual void webSocket(const std::shared_ptr<QELNKWebSocket> &webSocket,
                         const std::string &didReceiveMessageWithString) = 0;
};

/// How a WebSocket behaves. What is not set suits a daemon on the local network.
struct QELNKWebSocketOptions {
  /// Told of each end that was not the host's wish, after webSocketDidClose(): the peer's code (1005 where it gave
  /// none), its reason and true, or for a failure 1006, why, and false.
  using ClosedBlock = std::function<void(const std::shared_ptr<QELNKWebSocket> &webSocket, uint16_t code,
                                         const std::string &reason, bool wasClean)>;

  /// Whether a server's certificate has to be valid and to name the host; without, any is accepted.
  bool checksCertificate = false;
  /// The certificates (a PEM file) that a valid one may be signed by; empty for the system's. A file that cannot be
  /// read is a failure of the connection.
  std::string certificateAuthorityFile;
  /// How long looking up, connecting and both handshakes may take together; zero for no limit.
  std::chrono::milliseconds openTimeout = std::chrono::seconds(10);
  /// How long the other side may take to close, and to take in more of what is still to be sent; zero for no limit.
  std::chrono::milliseconds closeTimeout = std::chrono::seconds(5);
  /// Where callbacks are called; null for the main queue.
  std::shared_ptr<qelnk::Queue> queue;
  /// A longer message fails the connection, in bytes; 0 for no limit.
  size_t maximumMessageSize = size_t(64) << 20;
  /// What may wait to be sent, in bytes: a send beyond it fails. One message always may.
  size_t maximumBufferedAmount = size_t(256) << 20;
  /// Called on the queue; none unless set.
  ClosedBlock closedBlock;
};

/// A WebSocket connection to a server, which opens at once.
///
///     auto webSocket = QELNKWebSocket::create("ws://studio-a:8080/updates", observer);
///
/// It ends when the peer closes it, when it fails, or when the last reference goes: what was sent before still goes out
/// then, and the connection is closed in the background. Nothing connects again; make another one.
///
/// Received binary messages are dropped. A connection whose peer is gone without a word fails after about half a
/// minute, and so does one whose peer takes in nothing for as long while something is to be sent.
///
/// A slow observer: while some 4 MiB of text wait for its queue nothing more is read from the peer.
///
/// Threads: every operation may be called from any thread. Callbacks run on the queue of the options, with no lock
/// held; once the host has let go none is called.
class QELNK_EXPORT QELNKWebSocket : public std::enable_shared_from_this<QELNKWebSocket> {
 public:
  /// Where the connection is in its life; `closed` is for good.
  enum ReadyState : int32_t { connecting = 0, open = 1, closing = 2, closed = 3 };

  /// `url` is ws://, wss://, or http:// and https:// for the same. Whatever is wrong with it is told to the observer
  /// later, as any failure. The observer is not kept alive.
  static std::shared_ptr<QELNKWebSocket> create(const std::string &url, std::weak_ptr<QELNKWebSocketDelegate> delegate,
                                                QELNKWebSocketOptions options = {});
  /// Lets the connection close in the background.
  ~QELNKWebSocket();
  QELNKWebSocket(const QELNKWebSocket &) = delete;
  QELNKWebSocket &operator=(const QELNKWebSocket &) = delete;

  /// Sends one text message, which has to be UTF-8. Returns at once. Where the connection is not open, true, and
  /// nothing is sent; false with a line on the log where it cannot be sent (domain "QELNKWebSocket", system error
  /// numbers: EILSEQ, ENOBUFS beyond the limit).
  bool sendString(std::string text, qelnk::Error *error = nullptr);
  /// Sends one binary message, in the same manner. The bytes are shared, not copied.
  bool sendData(qelnk::Data data, qelnk::Error *error = nullptr);

  /// The observer, which is not kept alive; null once it has gone.
  std::shared_ptr<QELNKWebSocketDelegate> delegate() const;
  void setDelegate(std::weak_ptr<QELNKWebSocketDelegate> delegate);

  /// Where it is now: the queue may not have been told yet.
  ReadyState readyState() const;
  /// The bytes of messages that have not been handed over to the system yet.
  size_t bufferedAmount() const;

  /// Waits until each connection that was let go of has sent what it had to and is closed, at most `limit`; for a
  /// program that is about to exit. Returns whether they are.
  static bool waitUntilClosed(std::chrono::milliseconds limit);

 private:
  class Courier;
  QELNKWebSocket(std::weak_ptr<QELNKWebSocketDelegate> delegate, QELNKWebSocketOptions::ClosedBlock closedBlock);

  const QELNKWebSocketOptions::ClosedBlock closedBlock_;
  std::shared_ptr<qelnk::WebSocketConnection> connection_;  // none where not even an attempt could be made
  mutable qelnk::Mutex mutex_;
  std::weak_ptr<QELNKWebSocketDelegate> delegate_ QELNK_GUARDED_BY(mutex_);
};
