#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/QELNKLegacyStream.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QELNKLegacyServer;

/// The domain of the errors of QELNKLegacyServer::start().
QELNK_EXPORT extern const char *const QELNKTCPServerErrorDomain;

/// What a legacy server tells its owner, of the connection concerned.
///
/// Threads: those of QELNKLegacyStreamDelegate, by the server's stream options.
class QELNK_EXPORT QELNKLegacyServerDelegate {
 public:
  /// The server that something is told of.
  using Server = std::shared_ptr<QELNKLegacyServer>;
  /// The connection that something is told of.
  using Stream = std::shared_ptr<QELNKLegacyStream>;

  virtual ~QELNKLegacyServerDelegate() = default;
  /// A string arrived that is no message of the protocol.
  virtual void networkService(const Server &server, const Stream &networkStream, const std::string &receivedString) = 0;
  /// A heartbeat arrived.
  virtual void networkService(const Server &server, const Stream &networkStream,
                              const QELProjectTimecode &receivedHeartbeatAtTimecode,
                              const std::optional<std::string> &withExtendedInformation) = 0;
  /// The connection has shaken hands.
  virtual void networkServiceNetworkStreamIsReady(const Server &server, const Stream &networkStream) = 0;
  /// The connection failed or the other side ended it; after this call it leaves streams().
  virtual void networkServiceNetworkStreamWasTerminated(const Server &server, const Stream &networkStream) = 0;
};

/// The listening side of the legacy protocol: takes connections on one port over IPv4 and IPv6, and writes to all of
/// them. Binary blocks that clients send are not passed on.
///
///     auto server = QELNKLegacyServer::create("Studio A", 0, QELNKLegacyStream::defaultPlayoutOptions());
///     server->setDelegate(observer);
///     qelnk::Error error;
///     if (!server->start(&error)) report(error.description);
///
/// Threads: every operation may be called from any thread. Connections are accepted on the run loop of the thread that
/// called start(), which has to turn it.
class QELNK_EXPORT QELNKLegacyServer : public QELNKLegacyStreamDelegate,
                                       public std::enable_shared_from_this<QELNKLegacyServer> {
 public:
  /// Codes of the errors of start().
  enum StartError : int64_t { ipv4NotBound = 1, ipv6NotBound = 2, noSocket = 3 };

  /// Port 0 lets the system choose one. The options are those of QELNKLegacyStream, for every connection.
  static std::shared_ptr<QELNKLegacyServer> create(std::string name, uint16_t port, const qelnk::Value &streamOptions);
  /// The same as create().
  static std::shared_ptr<QELNKLegacyServer> serverWithName(std::string name, uint16_t port,
                                                           const qelnk::Value &streamOptions) {
    return create(std::move(name), port, streamOptions);
  }
  ~QELNKLegacyServer() override;
  QELNKLegacyServer(const QELNKLegacyServer &) = delete;
  QELNKLegacyServer &operator=(const QELNKLegacyServer &) = delete;

  /// Listens. On failure `error` tells why: QELNKTCPServerErrorDomain and a StartError, the system's reason in its
  /// text.
  virtual bool start(qelnk::Error *error = nullptr);
  /// Ends all connections, listens no more and forgets the name.
  virtual void stop();

  // Writing to every connection that is ready.

  /// Queues bytes as they are, and a zero byte behind them if asked.
  void writeBytes(const void *bytes, size_t length, bool appendingZeroTerminator);
  /// Queues the bytes and a zero byte.
  void writeData(const qelnk::Data &data);
  /// Queues a string; one that holds a zero byte or is not UTF-8 is refused with a line on the log.
  void writeString(const std::string &string);
  /// Fenced: each connection that still has an earlier fenced block to write leaves this one out.
  void writeBinaryData(const qelnk::Data &data, const std::string &contentType, bool fenced);
  /// Queues a heartbeat; the library sends none by itself.
  void sendHeartbeatAtTimecode(const QELProjectTimecode &timecode,
                               const std::optional<std::string> &extendedInformation = std::nullopt);
  /// The string that a heartbeat is sent as.
  static std::string timecodeStringForTimecode(const QELProjectTimecode &timecode,
                                               const std::optional<std::string> &extendedInformation);
  /// The string's bytes, its terminating zero byte included.
  static const char *bytesFromString(const std::string &string, size_t &length);

  /// As given; once listening, the one that it listens on.
  uint16_t port() const;
  /// As given; empty after stop().
  std::string name() const;
  /// The IPv4 address to listen on, in host byte order; 0 for all. For the next start().
  uint32_t bindingIPAddress() const;
  void setBindingIPAddress(uint32_t address);
  /// The options of the connections that are taken from now on.
  qelnk::Value streamOptions() const;
  void setStreamOptions(const qelnk::Value &options);
  /// How many connections there may be at a time, 0 for any; a further one is closed as soon as it comes, with a line
  /// on the log. Those that there are stay.
  size_t maximumConnections() const;
  void setMaximumConnections(size_t count);
  /// The connections, in the order in which they came. One that the host has ended itself leaves the list as others
  /// come, at the latest when there would be twice as many as there are connections, or more than there may be.
  std::vector<std::shared_ptr<QELNKLegacyStream>> streams() const;
  /// The observer, which is not kept alive; null once it has gone.
  std::shared_ptr<QELNKLegacyServerDelegate> delegate() const;
  void setDelegate(std::weak_ptr<QELNKLegacyServerDelegate> delegate);

  void networkStream(const std::shared_ptr<QELNKLegacyStream> &stream, const std::string &receivedString) override;
  void networkStream(const std::shared_ptr<QELNKLegacyStream> &stream,
                     const QELProjectTimecode &receivedHeartbeatAtTimecode,
                     const std::optional<std::string> &withExtendedInformation) override;
  void networkStreamIsReady(const std::shared_ptr<QELNKLegacyStream> &stream) override;
  void networkStreamWasTerminated(const std::shared_ptr<QELNKLegacyStream> &stream) override;

 protected:
  /// For create() of subclasses.
  QELNKLegacyServer(std::string name, uint16_t port, const qelnk::Value &streamOptions);
  /// For create(): hands out `server`. Its delegate is called as long as somebody holds what is handed out; the server
  /// itself, which its events hold as well, is stopped then and ends after that.
  template <class Server>
  static std::shared_ptr<Server> own(Server *server) {
    return std::shared_ptr<Server>(server, [held = hold(server)](Server *ended) mutable {
      ended->stop();
      held.reset();
    });
  }
  /// Gives the sockets up and returns false.
  bool returnWithErrorCode(int64_t code, const std::error_code &reason, qelnk::Error *error);

 private:
  struct State;
  static std::shared_ptr<void> hold(QELNKLegacyServer *server);
  template <class Call>
  void inform(const Call &call);
  int64_t listen(uint16_t port, std::error_code &reason);
  void accept(const qelnk::StreamPair &streams, const std::string &address);
  template <class Write>
  void writeToAll(Write write);

  const std::unique_ptr<State> state_;
};
