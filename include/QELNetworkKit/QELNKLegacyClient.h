#pragma once

#include <QELNetworkKit/NetService.h>
#include <QELNetworkKit/QELNKLegacyStream.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class QELNKLegacyClient;

/// What a legacy client tells its owner. An operation that is not overridden calls the stream's operation of the same
/// meaning, which may be overridden instead.
///
/// Threads: as for QELNKLegacyStreamDelegate: strings, blocks, heartbeats and TXT records are queued to the main
/// thread, for the others the thread that has them to tell waits; without the option "delegateOnMainThread" all are
/// called on that thread, which is the stream's or the one that called connect().
class QELNK_EXPORT QELNKLegacyClientDelegate : public QELNKLegacyStreamDelegate {
 public:
  /// The client that something is told of.
  using Client = std::shared_ptr<QELNKLegacyClient>;

  /// The connection is ready; after a reconnect once more when the first string or heartbeat has arrived.
  virtual void networkClientIsReady(const Client &client);
  /// A string arrived that is no message of the protocol.
  virtual void networkClient(const Client &client, const std::string &receivedString);
  /// A binary block is complete.
  virtual void networkClient(const Client &client, const qelnk::Data &receivedBinaryData,
                             const std::string &contentType);
  /// A heartbeat arrived.
  virtual void networkClient(const Client &client, const QELProjectTimecode &receivedHeartbeatAtTimecode,
                             const std::optional<std::string> &withExtendedInformation);
  /// The connection has ended.
  virtual void networkClientWasTerminated(const Client &client, bool willReconnect);
  /// An attempt to connect has failed, with one of QELNKLegacyClient::ConnectError.
  virtual void networkClient(const Client &client, int64_t connectError, bool willRetry) = 0;
  /// Heartbeats are missing, or (false) have come back.
  virtual void networkClientHeartbeatNotification(const Client &client, bool lostHeartbeat) = 0;
  /// The service's TXT record has changed, see serviceTXTRecordData().
  virtual void networkClientServiceUpdatedTXTRecordData(const Client &client) = 0;

  using QELNKLegacyStreamDelegate::networkStream;
  void networkStream(const std::shared_ptr<QELNKLegacyStream> &stream, const std::string &receivedString) override;
  void networkStream(const std::shared_ptr<QELNKLegacyStream> &stream,
                     const QELProjectTimecode &receivedHeartbeatAtTimecode,
                     const std::optional<std::string> &withExtendedInformation) override;
  void networkStreamIsReady(const std::shared_ptr<QELNKLegacyStream> &stream) override;
  void networkStreamWasTerminated(const std::shared_ptr<QELNKLegacyStream> &stream) override;
};

/// The connecting side of a legacy connection: connects to a host or a service, gives up after a time, tries again,
/// connects again when the connection was lost, and watches the other side's heartbeats.
///
///     auto client = QELNKLegacyClient::create("studio-a", "studio-a.local", 4711, observer,
///                                             QELNKLegacyClient::defaultConnectOptions());
///     client->connect();
///
/// Options beside the stream's:
///
///     "connectTimeout"              seconds, none if not positive
///     "autoConnectDelay"            seconds from a connection's end to the next attempt
///     "autoRetryInterval"           seconds from a failed attempt to the next
///     "maxRetryAttempts"            integer
///     "attemptReconnect"            boolean
///     "heartbeatProblemTimeout"     seconds, negative: -2.0 warns when the last heartbeat lies two seconds back
///     "heartbeatDisconnectTimeout"  seconds, negative: then the connection is ended. Unless both are negative
///                                   heartbeats are not watched.
///
/// Threads: every operation may be called from any thread. The connect timer and the waits for a retry or reconnect run
/// on the run loop of the thread that began them: the one that called connect(), which has to turn its loop, or the
/// stream's. The age of heartbeats is reckoned by the wall clock of the stream thread's run loop.
class QELNK_EXPORT QELNKLegacyClient : public QELNKLegacyStream, public qelnk::NetServiceDelegate {
 public:
  /// Why an attempt failed: it was connected already, the host or port is none, it took too long, nobody listens there.
  enum ConnectError : int64_t { alreadyConnected = 1, noStreams = 2, timedOut = 3, refused = 4 };

  /// Connects as soon as the service is resolved, which is begun here and given up after 5 s.
  static std::shared_ptr<QELNKLegacyClient> create(std::shared_ptr<qelnk::NetService> netService,
                                                   std::weak_ptr<QELNKLegacyClientDelegate> delegate,
                                                   const qelnk::Value &options);
  /// Does not connect yet.
  static std::shared_ptr<QELNKLegacyClient> create(std::string name, std::string host, uint64_t port,
                                                   std::weak_ptr<QELNKLegacyClientDelegate> delegate,
                                                   const qelnk::Value &options);
  ~QELNKLegacyClient() override;

  /// Delegate on the main thread; one attempt, no reconnect, heartbeats watched (2 s warn, 3 s end). No application ID:
  /// set "appID".
  static qelnk::Value defaultPlayoutOptions();
  /// The same with the connect application's ID, up to 100,000 retries, and reconnecting.
  static qelnk::Value defaultConnectOptions();
  /// A thread of its own, delegate called there; up to 1,000,000 retries, reconnecting, heartbeats not watched.
  static qelnk::Value defaultIngestOptions();
  /// Takes over the keys that are there, see above; the time-outs take effect with their next use.
  void setOptions(const qelnk::Value &options) override;

  /// Begins an attempt to connect to host() and port(), and returns at once. What becomes of it is told to the
  /// delegate. Connected already, it fails with alreadyConnected, and nothing is tried again.
  void connect();
  /// The same to another host, for this attempt alone.
  void connectToHost(const std::string &host);
  /// Has it connect after autoReconnectDelay(), if attemptReconnect() and it was told to connect.
  void reconnect();
  /// Has it connect after autoRetryInterval(), if retries are left.
  void retryConnect();
  /// Whether a failed attempt is followed by another.
  bool willRetryConnect() const;
  /// Ends the attempt, tells the delegate, and retries.
  void connectFailedWithError(int64_t error);
  /// Lets the attempt under way take as long as it likes.
  void cancelTimeoutTimer();
  /// Ends the connection, or the attempt, for good: nothing connects this client any more.
  void cancelConnectAttempt();
  /// Ends the connection; nothing is tried again until connect().
  void disconnect() override;
  /// The same, and lets go of the service and of where to connect to.
  void cleanUp();

  /// Whether it was told to connect and not to disconnect: that it wants a connection, not that there is one, see
  /// isReady().
  bool isConnected() const;
  /// Changes that and does nothing else.
  void setConnected(bool connected);
  /// The service that it follows, or null. A new one is resolved at once, as by create().
  std::shared_ptr<qelnk::NetService> netService() const;
  void setNetService(std::shared_ptr<qelnk::NetService> netService);
  /// For the log; a service's name where it was made with one.
  std::string name() const;
  void setName(std::string name);
  /// Where the next attempt connects to.
  std::string host() const;
  void setHost(std::string host);
  /// The port of the next attempt, in host byte order.
  uint64_t port() const;
  void setPort(uint64_t port);
  /// Seconds. A negative value sets 10.
  double connectTimeout() const;
  void setConnectTimeout(double seconds);
  /// Whether it connects again when the connection was lost.
  bool attemptReconnect() const;
  void setAttemptReconnect(bool flag);
  /// Seconds from a connection's end to the next attempt.
  double autoReconnectDelay() const;
  void setAutoReconnectDelay(double seconds);
  /// Seconds. A negative value sets 1.
  double autoRetryInterval() const;
  void setAutoRetryInterval(double seconds);
  /// How many failed attempts in a row are followed by another.
  int64_t maxRetryAttempts() const;
  void setMaxRetryAttempts(int64_t count);
  /// Retries since the connection was last ready.
  int64_t retryAttempts() const;
  /// Seconds, negative: after so long without a heartbeat the connection is ended.
  double heartbeatDisconnectTimeout() const;
  void setHeartbeatDisconnectTimeout(double seconds);
  /// Seconds, negative: after so long without a heartbeat the delegate is warned.
  double heartbeatProblemTimeout() const;
  void setHeartbeatProblemTimeout(double seconds);
  /// The service's TXT record in its wire form; empty before one was found.
  qelnk::Data serviceTXTRecordData() const;
  /// The same as keys and values.
  qelnk::TXTRecordDictionary serviceTXTRecordDictionary() const;
  /// The observer, which is not kept alive; null once it has gone.
  std::shared_ptr<QELNKLegacyClientDelegate> delegate() const;
  void setDelegate(std::weak_ptr<QELNKLegacyClientDelegate> delegate);

  /// Takes over host and port, and connects.
  void netServiceDidResolveAddress(const std::shared_ptr<qelnk::NetService> &service) override;
  /// Says so on the log; nothing is tried again.
  void netServiceDidNotResolve(const std::shared_ptr<qelnk::NetService> &service, std::error_code error) override;
  /// Keeps the record and tells the delegate.
  void netServiceDidUpdateTXTRecordData(const std::shared_ptr<qelnk::NetService> &service,
                                        const std::string &data) override;

  std::string description() const override;

 protected:
  QELNKLegacyClient();
  void dealloc() override;
  /// An attempt to connect to host().
  void _connect();
  /// An attempt to connect; nothing happens once it was told to disconnect.
  void _connectToHost(const std::string &host);
  /// Ends the connection and its timers; does not change whether one is wanted.
  bool endConnection(std::optional<uint64_t> connection) override;
  /// Makes the streams of a connection; empty when they cannot be made.
  virtual qelnk::StreamPair streamsToHost(const std::string &host, uint64_t port);
  /// Watches heartbeats from now on, if both limits are negative.
  void startHeartbeatMonitor();
  /// Watches them no more.
  void cancelHeartbeatMonitor();
  /// Looks at the age of the last heartbeat, and warns or ends the connection.
  void heartbeatMonitorTask();

  void informDelegateOfReceivedString(const std::string &string) override;
  void informDelegateOfReceivedBinaryData(const qelnk::Data &data, const std::string &contentType) override;
  void informDelegateOfHeartbeatAtTimecode(const QELProjectTimecode &timecode,
                                           const std::optional<std::string> &extendedInformation) override;
  void informDelegateStreamIsReady() override;
  void informDelegateStreamWasTerminated() override;
  void informDelegateConnectionRefused() override;
  void handleAddressNotAvailableForStream(const std::shared_ptr<qelnk::ByteStream> &stream) override;

 private:
  struct ClientState;
  void attempt(const std::string &host, bool byItself);
  void connectFailed(int64_t error, std::optional<uint64_t> connection);
  void timeoutReached(uint64_t timer);
  void connectAfter(double seconds);
  void delayedConnect();
  void followService();
  void takeAddress(const qelnk::NetService &service);
  void takeNetService(std::shared_ptr<qelnk::NetService> netService);
  void informReconnected();
  void informClientIsReady();
  template <class Call, class... Arguments>
  void informClient(bool queued, uint64_t bytes, Call call, const Arguments &...arguments);

  const std::unique_ptr<ClientState> clientState_;
};
