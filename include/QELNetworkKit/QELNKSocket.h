#pragma once

#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKEncryption.h>
#include <QELNetworkKit/Value.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

class ZMQSocket;
namespace qelnk {
class SocketPoll;
}

/// How the messages of an endpoint travel in frames.
enum QELNKMessageBody : int32_t {
  QELNKMessageBodyJSON = 0,         ///< JSON text of a list or map
  QELNKMessageBodyMessagePack = 1,  ///< MessagePack; received messages are maps
  QELNKMessageBodyXML = 2,          ///< an XML document
  QELNKMessageBodyString = 3,       ///< a string in UTF-8
  QELNKMessageBodyData = 4,         ///< a byte buffer as it is
  QELNKMessageBodyMultipart = 5     ///< a list of byte buffers, one a frame, as it is
};

/// The frames of one message.
using QELNKFrames = std::vector<qelnk::Data>;

/// The base of every messaging endpoint: whole messages of frames out and in, their encoding, and counters of traffic.
///
/// Endpoints that own an io thread are made by a create() of theirs. When the last reference goes the thread is ended
/// first and then the object; where it goes on that very thread, the thread finishes by itself and the object ends
/// after it.
///
/// Threads: the ZeroMQ socket belongs to the endpoint's io thread, and so do the operations that send and receive.
/// disconnect(), logData() and the accessors may be called from any thread.
class QELNK_EXPORT QELNKSocket : public std::enable_shared_from_this<QELNKSocket> {
 public:
  virtual ~QELNKSocket();
  QELNKSocket(const QELNKSocket &) = delete;
  QELNKSocket &operator=(const QELNKSocket &) = delete;

  /// Makes an endpoint of class T, a subclass whose constructor is reachable, with the deleter that ends its thread
  /// first. Null, with a line on the log, when there is no context.
  template <class T, class... Arguments>
  static std::shared_ptr<T> make(std::shared_ptr<QELNKContext> context, Arguments &&...arguments) {
    if (!isUsable(context)) return nullptr;
    return std::shared_ptr<T>(new T(std::move(context), std::forward<Arguments>(arguments)...), Deleter());
  }

  /// Ends the connection: the io thread closes the socket at its next pass, which is at once. Does not wait. Ends what
  /// waits. An endpoint without an io thread closes its socket on the calling thread.
  virtual void disconnect();

  /// The ZeroMQ socket type of the class.
  virtual int32_t socketType() const = 0;

  /// "tcp://HOST:PORT"; endpoints that bind give "*" as host.
  static std::string endPointForHost(const std::string &host, int32_t port);
  /// The endpoint of the ZeroMQ socket, or of the last one; empty when there was none.
  std::string endPoint() const;

  /// Stores the calling thread's ZeroMQ error number and text, domain "ZMQ".
  static void zmqError(qelnk::Error *error);

  /// Sends one frame with ZeroMQ's flags. False, with the error, on failure. On the io thread.
  bool sendData(const qelnk::Data &frame, int32_t flags, qelnk::Error *error);
  /// Sends one message of several frames. After a failure the frames before it stay sent.
  bool sendData(const QELNKFrames &frames, qelnk::Error *error);
  /// Receives the frames of one message, without the empty ones; none on failure.
  std::optional<QELNKFrames> receiveData(int32_t flags, qelnk::Error *error);
  /// Whether the frame just received has more behind it.
  bool multipartMessage() const;

  /// The frame of a message in an encoding of 0 to 4; none with no error for any other, none with an error where it
  /// cannot be encoded.
  static std::optional<qelnk::Data> serializeMessage(const qelnk::Value &message, int32_t type, qelnk::Error *error);
  /// The message of a frame in an encoding of 0 to 4.
  static std::optional<qelnk::Value> deserializeData(const qelnk::Data &frame, int32_t type, qelnk::Error *error);
  /// The frames of a message in this endpoint's encoding.
  std::optional<QELNKFrames> serializeMessage(const qelnk::Value &message, qelnk::Error *error) const;
  /// The message of frames in this endpoint's encoding; none with no error where there is not exactly one frame.
  std::optional<qelnk::Value> deserializeData(const QELNKFrames &frames, qelnk::Error *error) const;

  /// Called with each ZeroMQ socket that the endpoint makes, before it connects or binds, on the thread that is to own
  /// it: the place to set options, and to attach a monitor that sees every event. It must not wait.
  using SocketBlock = std::function<void(const std::shared_ptr<QELNKSocket> &endpoint, ZMQSocket &socket)>;
  /// For the sockets made from now on; none unless set. Any thread.
  void setSocketBlock(SocketBlock block);

  /// Bounds each frame that a peer may send, in bytes, for the sockets made from now on; 0, unless set, bounds none. A
  /// frame beyond it is not kept: ZeroMQ ends the connection of who sends it, and one that connects does so anew. Any
  /// thread.
  void setMaximumMessageSize(uint64_t bytes) { maximumMessageSize_ = bytes; }
  /// That bound; 0 for none. Any thread.
  uint64_t maximumMessageSize() const { return maximumMessageSize_; }

  /// Encrypts the connections of the sockets made from now on, so it is called before connecting or binding; none
  /// unless set. False, with a line on the log, where a key is none; then no connection is made at all until it is set
  /// rightly. Subscribers and publishers, clients and servers; a monitor has no connections of its own. Any thread.
  bool setEncryption(QELNKEncryption encryption);

  /// Sets how long a closed socket may go on sending, in milliseconds, as an 8-byte option; ZeroMQ's refusal is told on
  /// the log. Any thread: the io thread does it where there is one.
  void setLinger(int64_t milliseconds);

  /// Logs the traffic since the last call, in KiB a second. The first call starts the meter.
  void logData();
  /// Bytes of frames sent since the last logData().
  uint64_t dataSent() const { return dataSent_.sinceMark(); }
  /// Bytes of frames received since the last logData().
  uint64_t dataReceived() const { return dataReceived_.sinceMark(); }

  /// The ZeroMQ socket, or null before the endpoint has connected or bound and after it has ended.
  std::shared_ptr<ZMQSocket> socket() const;
  /// For endpoints without an io thread: one that has a thread refuses it, with a line on the log.
  void setSocket(std::shared_ptr<ZMQSocket> socket);
  /// The context it was made on, which it holds.
  const std::shared_ptr<QELNKContext> &context() const { return context_; }
  /// The encoding of its messages, QELNKMessageBody; JSON unless set. Takes effect with the next message.
  int32_t messageBody() const { return messageBody_; }
  void setMessageBody(int32_t body) { messageBody_ = body; }

  /// The clock of this endpoint's deadlines and meter; the system's unless set, which is to be done before it starts.
  const std::shared_ptr<qelnk::Clock> &clock() const { return clock_; }
  void setClock(std::shared_ptr<qelnk::Clock> clock) { clock_ = std::move(clock); }

 protected:
  /// For create() of subclasses.
  explicit QELNKSocket(std::shared_ptr<QELNKContext> context);

  class IOThread;
  /// Starts the endpoint's thread, which runs ioThread() and then closes the socket. The endpoint must have been made
  /// by make(). Throws std::system_error when the system gives no thread.
  void startThread(const std::string &name);
  /// The endpoint's thread, or its last one; null before the first. Unless something keeps others from connecting, they
  /// may start the next one at any time: who cancels and then waits has to do both to the same.
  std::shared_ptr<IOThread> thread() const QELNK_EXCLUDES(mutex_);
  /// Has a thread end that may be null; where it has ended already, closes a socket without a thread.
  void cancelThread(const std::shared_ptr<IOThread> &thread);
  /// Waits for the end of a thread, which may be null and else has been cancelled. Returns false on an io thread, where
  /// nobody may wait for another, unless for one that waits for nobody.
  static bool joinThread(const std::shared_ptr<IOThread> &thread, bool waitsForNobody = false);
  /// Whether the endpoint has a thread that has not ended.
  bool hasThread() const;
  /// Whether it has one that has not been cancelled either.
  bool hasLastingThread() const;
  /// The body of the endpoint's thread; returns soon once isCancelled().
  virtual void ioThread() {}
  /// Whether the calling thread is this endpoint's io thread.
  bool onMessageThread() const;
  /// Whether the thread is to end. On the io thread.
  bool isCancelled() const;

  /// What has to be held while another thread than the socket's own uses it; nothing here, where there is none. Which
  /// mutex that is the class decides, so the analysis does not know it.
  virtual std::unique_lock<qelnk::Mutex> lockSocket() { return {}; }
  /// Makes the ZeroMQ socket for an endpoint, to which it is yet to connect or bind. What it has not
  /// sent when it closes has `linger` to leave. On the thread that is to own it. Throws ZMQException.
  std::shared_ptr<ZMQSocket> openSocket(const std::string &endpoint, std::chrono::milliseconds linger = {});
  /// Closes the ZeroMQ socket, if there is one, and forgets it. What was sent last may take at least `linger` to leave,
  /// in the background. On the thread that owns it.
  void closeSocket(std::chrono::milliseconds linger = {});
  /// Whether the context asks the io thread to close its socket.
  bool isAskedToClose() const;
  /// The raw socket, or null. On the thread that owns it.
  void *rawSocket() const;
  /// The socket that the host has set, or that belongs to no thread for another reason; else null.
  std::shared_ptr<ZMQSocket> socketWithoutThread() const;
  /// Longest wait of an io thread's pass. It is a bound: whatever there is to do ends the wait.
  static constexpr std::chrono::milliseconds pollInterval{20};
  /// One pass of a thread that only answers or receives: serves its run loop and, while nothing can be received, waits
  /// for either. Returns ZMQ_POLLIN, or 0 for nothing, after `limit` at the latest; -1 with the error number in errno,
  /// ENOTSOCK once the context asks the thread to close the socket.
  int pollSocket(const qelnk::SocketPoll &poll, std::chrono::nanoseconds limit);
  /// receiveData() into frames that are used again, with the empty ones where asked for; 0, or ZeroMQ's error number.
  int receiveFrames(void *rawSocket, QELNKFrames &frames, int32_t flags, bool keepEmpty = false);
  /// Receives a message and decodes it in this endpoint's encoding; `bytes` is the size of its frames. Returns 0, with
  /// none for what cannot be decoded, or ZeroMQ's error number.
  int receiveMessage(int32_t flags, std::optional<qelnk::Value> &message, qelnk::Error &error, size_t &bytes);
  /// A message in this endpoint's encoding: one frame, which is the rule, or several.
  using Encoded = std::variant<qelnk::Data, QELNKFrames>;
  /// None, with the error, for what cannot be encoded, and for a message without frames. Any thread.
  std::optional<Encoded> encodeMessage(const qelnk::Value &message, qelnk::Error &error) const;
  /// Sends a message that was encoded before. On the thread that owns the socket.
  bool sendEncoded(const Encoded &message, qelnk::Error &error);
  /// Sends one frame with ZeroMQ's flags. On the thread that owns the socket.
  bool sendFrame(std::span<const uint8_t> frame, int32_t flags, qelnk::Error *error);
  /// Gives the socket of a monitor to the context, which keeps it until ZeroMQ has no more use for it: its own thread
  /// would wait for ever to hand an event to one that has closed. On the thread that owns it.
  void leaveSocketToContext();

 private:
  struct QELNK_EXPORT Deleter {
    void operator()(QELNKSocket *socket) const;
  };
  static bool isUsable(const std::shared_ptr<QELNKContext> &context);
  static std::optional<qelnk::Value> deserialize(std::span<const uint8_t> frame, int32_t type, qelnk::Error *error);
  struct IncomingFrame;
  int collectFrames(IncomingFrame &first, void *rawSocket, QELNKFrames &frames, int32_t flags, bool keepEmpty);
  void replaceSocket(std::shared_ptr<ZMQSocket> socket) QELNK_EXCLUDES(mutex_);
  bool forgetSocket(const std::shared_ptr<ZMQSocket> &socket) QELNK_EXCLUDES(mutex_);
  void close(const std::shared_ptr<ZMQSocket> &socket, std::chrono::milliseconds linger);

  std::shared_ptr<QELNKContext> context_;
  std::shared_ptr<qelnk::Clock> clock_;
  mutable qelnk::Mutex mutex_;
  std::shared_ptr<const SocketBlock> socketBlock_ QELNK_GUARDED_BY(mutex_);
  struct Encryption;
  std::shared_ptr<const Encryption> encryption_ QELNK_GUARDED_BY(mutex_);
  std::shared_ptr<ZMQSocket> socket_ QELNK_GUARDED_BY(mutex_);
  std::string lastEndPoint_ QELNK_GUARDED_BY(mutex_);
  std::shared_ptr<IOThread> thread_ QELNK_GUARDED_BY(mutex_);
  std::optional<double> dataMark_ QELNK_GUARDED_BY(mutex_);
  std::atomic<ZMQSocket *> owned_{nullptr};  // socket_, for the thread that owns it
  std::atomic<int32_t> messageBody_{QELNKMessageBodyJSON};
  std::atomic<uint64_t> maximumMessageSize_{0};

  /// Bytes of frames. One thread at a time adds, any other looks.
  struct Meter {
    void add(uint64_t bytes) { total.store(total.load(std::memory_order_relaxed) + bytes, std::memory_order_relaxed); }
    uint64_t sinceMark() const {
      const uint64_t from = mark.load(std::memory_order_acquire);  // first: it never exceeds a later total
      return total.load(std::memory_order_relaxed) - from;
    }
    uint64_t takeSinceMark() {
      const uint64_t now = total.load(std::memory_order_relaxed);
      return now - mark.exchange(now, std::memory_order_acq_rel);
    }
    std::atomic<uint64_t> total{0}, mark{0};
  };
  Meter dataSent_, dataReceived_;
};
