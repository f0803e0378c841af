#include <QELNetworkKit/QELNKLegacyClient.h>
#include <fmt/format.h>
#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <utility>

#include "legacy/LegacyStreamState.h"
#include "platform/LogFormat.h"

using qelnk::ByteStream;
using qelnk::Data;
using qelnk::logDefault;
using qelnk::LoopSource;
using qelnk::NetService;
using qelnk::RunLoop;
using qelnk::Value;

namespace {

constexpr std::chrono::seconds resolveTimeout{5};
constexpr std::chrono::seconds heartbeatCheckInterval{1};
// The last check lies so many seconds ahead when the clock was set back.
constexpr double clockSetBack = 2;

double wallTime() { return RunLoop::current()->clock()->wallTime(); }

bool logsHeartbeatMonitor() { return QELNKLegacyStream::loggingMask() & QELNKLegacyStream::logHeartbeatMonitor; }

}  // namespace

// --- The delegate's fallbacks ---

void QELNKLegacyClientDelegate::networkClientIsReady(const Client &client) { networkStreamIsReady(client); }
void QELNKLegacyClientDelegate::networkClient(const Client &client, const std::string &receivedString) {
  networkStream(client, receivedString);
}
void QELNKLegacyClientDelegate::networkClient(const Client &client, const Data &receivedBinaryData,
                                              const std::string &contentType) {
  networkStream(client, receivedBinaryData, contentType);
}
void QELNKLegacyClientDelegate::networkClient(const Client &client,
                                              const QELProjectTimecode &receivedHeartbeatAtTimecode,
                                              const std::optional<std::string> &withExtendedInformation) {
  networkStream(client, receivedHeartbeatAtTimecode, withExtendedInformation);
}
void QELNKLegacyClientDelegate::networkClientWasTerminated(const Client &client, bool) {
  networkStreamWasTerminated(client);
}
void QELNKLegacyClientDelegate::networkStream(const std::shared_ptr<QELNKLegacyStream> &, const std::string &) {}
void QELNKLegacyClientDelegate::networkStream(const std::shared_ptr<QELNKLegacyStream> &, const QELProjectTimecode &,
                                              const std::optional<std::string> &) {}
void QELNKLegacyClientDelegate::networkStreamIsReady(const std::shared_ptr<QELNKLegacyStream> &) {}
void QELNKLegacyClientDelegate::networkStreamWasTerminated(const std::shared_ptr<QELNKLegacyStream> &) {}

// --- State ---

struct QELNK_HIDDEN QELNKLegacyClient::ClientState {
  /// Re-entrant; the stream's own lock may be taken under it. No delegate is called under it.
  mutable qelnk::RecursiveMutex mutex;

  std::shared_ptr<LoopSource> timeoutTimer QELNK_GUARDED_BY(mutex), heartbeatTimer QELNK_GUARDED_BY(mutex);
  std::shared_ptr<LoopSource> delayedConnect QELNK_GUARDED_BY(mutex);
  // Of the one that counts: a timer that has begun to fire may have been cancelled meanwhile.
  uint64_t timeoutNumber QELNK_GUARDED_BY(mutex) = 0, heartbeatNumber QELNK_GUARDED_BY(mutex) = 0;
  uint64_t connectNumber QELNK_GUARDED_BY(mutex) = 0;
  uint64_t timedConnection QELNK_GUARDED_BY(mutex) = 0;  // the stream's, which the timeout is for

  bool isReconnecting QELNK_GUARDED_BY(mutex) = false, isCancelled QELNK_GUARDED_BY(mutex) = false;
  bool attemptIPv4Fallback QELNK_GUARDED_BY(mutex) = false;
  double lastHeartbeat QELNK_GUARDED_BY(mutex) = 0;
  std::weak_ptr<qelnk::InputStream> heartbeatInput QELNK_GUARDED_BY(mutex);  // whose heartbeats are watched
  std::optional<double> lastHeartbeatCheck QELNK_GUARDED_BY(mutex);
  bool heartbeatNotifiedProblem QELNK_GUARDED_BY(mutex) = false;
  bool attemptReconnect QELNK_GUARDED_BY(mutex) = false, connected QELNK_GUARDED_BY(mutex) = false;
  std::shared_ptr<NetService> netService QELNK_GUARDED_BY(mutex);
  std::string name QELNK_GUARDED_BY(mutex), host QELNK_GUARDED_BY(mutex);
  uint64_t port QELNK_GUARDED_BY(mutex) = 0;
  std::string resolvedHost QELNK_GUARDED_BY(mutex);  // what the service last told
  uint64_t resolvedPort QELNK_GUARDED_BY(mutex) = 0;
  double connectTimeout QELNK_GUARDED_BY(mutex) = 0, autoReconnectDelay QELNK_GUARDED_BY(mutex) = 0;
  double autoRetryInterval QELNK_GUARDED_BY(mutex) = 0;
  int64_t maxRetryAttempts QELNK_GUARDED_BY(mutex) = 0, retryAttempts QELNK_GUARDED_BY(mutex) = 0;
  double heartbeatDisconnectTimeout QELNK_GUARDED_BY(mutex) = 0, heartbeatProblemTimeout QELNK_GUARDED_BY(mutex) = 0;
  Data serviceTXTRecordData QELNK_GUARDED_BY(mutex);
  qelnk::TXTRecordDictionary serviceTXTRecordDictionary QELNK_GUARDED_BY(mutex);

  template <class Field>
  Field get(Field ClientState::*field) const {
    const qelnk::Lock lock(mutex);
    return this->*field;
  }
  template <class Field>
  void set(Field ClientState::*field, Field value) {
    const qelnk::Lock lock(mutex);
    std::swap(this->*field, value);
  }
  using Timer = std::shared_ptr<LoopSource> ClientState::*;
  using Number = uint64_t ClientState::*;
  /// Ends a timer; what it holds goes with the result.
  std::shared_ptr<LoopSource> stop(Timer timer, Number number) {
    const qelnk::Lock lock(mutex);
    ++(this->*number);
    if (this->*timer) (this->*timer)->cancel();
    return std::exchange(this->*timer, nullptr);
  }
  /// Starts a timer on the calling thread's loop in place of the one there was. It calls `work(client, number)` unless
  /// another has taken its place.
  template <class Work>
  void start(Timer timer, Number number, double seconds, std::chrono::nanoseconds interval,
             const std::weak_ptr<QELNKLegacyStream> &client, Work work, const void *target = nullptr) {
    const qelnk::Lock lock(mutex);
    stop(timer, number);
    this->*timer = RunLoop::current()->performAfter(
        qelnk::nanosecondsFrom(seconds),
        [this, client, work, number, mine = this->*number] {
          const auto self = std::static_pointer_cast<QELNKLegacyClient>(client.lock());
          if (self && get(number) == mine) work(*self, mine);
        },
        interval, target);
  }
};

QELNKLegacyClient::QELNKLegacyClient() : clientState_(std::make_unique<ClientState>()) {}
QELNKLegacyClient::~QELNKLegacyClient() = default;

std::shared_ptr<QELNKLegacyClient> QELNKLegacyClient::create(std::shared_ptr<NetService> netService,
                                                             std::weak_ptr<QELNKLegacyClientDelegate> delegate,
                                                             const Value &options) {
  auto client = own(new QELNKLegacyClient);
  client->setOptions(options);
  client->setDelegate(std::move(delegate));
  client->clientState_->set(&ClientState::attemptIPv4Fallback, true);
  client->takeNetService(std::move(netService));
  return client;
}

std::shared_ptr<QELNKLegacyClient> QELNKLegacyClient::create(std::string name, std::string host, uint64_t port,
                                                             std::weak_ptr<QELNKLegacyClientDelegate> delegate,
                                                             const Value &options) {
  auto client = own(new QELNKLegacyClient);
  client->setOptions(options);
  client->setDelegate(std::move(delegate));
  client->setName(std::move(name));
  client->setHost(std::move(host));
  client->setPort(port);
  return client;
}

void QELNKLegacyClient::dealloc() {
  cleanUp();
  QELNKLegacyStream::dealloc();
}

void QELNKLegacyClient::cleanUp() {
  std::shared_ptr<NetService> service;
  {
    const qelnk::Lock lock(clientState_->mutex);
    service.swap(clientState_->netService);
  }
  disconnect();                                     // behind that: no service that is resolved meanwhile connects again
  if (service) service->stopFor(weak_from_this());  // it may be the next client's by now
  const qelnk::Lock lock(clientState_->mutex);
  clientState_->host.clear();
  clientState_->name.clear();
  clientState_->serviceTXTRecordData.clear();
  clientState_->serviceTXTRecordDictionary.clear();
}

// --- Options ---

namespace {

/// The stream's options with the client's added: how often it tries, and after how many seconds (negative) without a
/// heartbeat it warns and ends the connection.
Value clientOptions(Value options, int64_t maxRetryAttempts, bool attemptReconnect, double problem, double disconnect) {
  options.set("connectTimeout", 10.0);
  options.set("autoConnectDelay", 1.0);
  options.set("autoRetryInterval", 1.0);
  options.set("maxRetryAttempts", maxRetryAttempts);
  options.set("attemptReconnect", attemptReconnect);
  options.set("heartbeatDisconnectTimeout", disconnect);
  options.set("heartbeatProblemTimeout", problem);
  return options;
}

}  // namespace

Value QELNKLegacyClient::defaultPlayoutOptions() {
  return clientOptions(QELNKLegacyStream::defaultPlayoutOptions(), 0, false, -2.0, -3.0);
}

Value QELNKLegacyClient::defaultConnectOptions() {
  return clientOptions(defaultPlayoutOptionsForAppID(connectAppID()), 100000, true, -2.0, -3.0);
}

Value QELNKLegacyClient::defaultIngestOptions() {
  return clientOptions(QELNKLegacyStream::defaultIngestOptions(), 1000000, true, 0.0, 0.0);
}

void QELNKLegacyClient::setOptions(const Value &options) {
  QELNKLegacyStream::setOptions(options);
  const qelnk::Lock lock(clientState_->mutex);
  const auto seconds = [&](std::string_view key, double &field) {
    if (const Value *value = options.find(key); value && value->isNumber()) field = value->doubleValue();
  };
  seconds("connectTimeout", clientState_->connectTimeout);
  seconds("autoConnectDelay", clientState_->autoReconnectDelay);
  seconds("autoRetryInterval", clientState_->autoRetryInterval);
  if (const Value *count = options.find("maxRetryAttempts"); count && count->isInteger())
    clientState_->maxRetryAttempts = count->integerValue();
  if (const Value *flag = options.find("attemptReconnect"); flag && flag->isBool())
    clientState_->attemptReconnect = flag->boolValue();
  seconds("heartbeatDisconnectTimeout", clientState_->heartbeatDisconnectTimeout);
  seconds("heartbeatProblemTimeout", clientState_->heartbeatProblemTimeout);
}

// --- Connecting ---

void QELNKLegacyClient::connect() {
  setConnected(true);
  _connect();
}

void QELNKLegacyClient::connectToHost(const std::string &host) {
  setConnected(true);
  _connectToHost(host);
}

void QELNKLegacyClient::_connect() { _connectToHost(host()); }

void QELNKLegacyClient::_connectToHost(const std::string &host) { attempt(host, false); }

/// One that nobody asked for has nothing to do where there is a connection.
void QELNKLegacyClient::attempt(const std::string &host, bool byItself) {
  std::optional<uint64_t> connection;
  const auto connectError = [&]() -> std::optional<ConnectError> {
    const qelnk::Lock lock(clientState_->mutex);
    if (clientState_->isCancelled) {
      logDefault("{} wants to connect, but cancelled", description());
      return std::nullopt;
    }
    if (!clientState_->connected) return std::nullopt;  // told to disconnect meanwhile
    bool hasStreams = false;
    {
      const qelnk::Lock streams(state_->mutex);
      connection = state_->connections;
      hasStreams = inputStream() || outputStream();
    }
    if (hasStreams) {
      connection.reset();  // this ends whatever there is
      if (byItself) return std::nullopt;
      logDefault("{} attempted to reconnect while already connected", description());
      clientState_->maxRetryAttempts = 0;
      return alreadyConnected;
    }
    logDefault("{} connecting to {}:{}...", description(), host, clientState_->port);
    clientState_->stop(&ClientState::delayedConnect, &ClientState::connectNumber);  // this is it
    if (clientState_->connectTimeout > 0)
      clientState_->start(&ClientState::timeoutTimer, &ClientState::timeoutNumber, clientState_->connectTimeout, {},
                          held(), [](auto &client, uint64_t timer) { client.timeoutReached(timer); });
    const auto streams = streamsToHost(host, clientState_->port);
    if (!streams) return noStreams;
    clientState_->timedConnection = begin(streams.input, streams.output);
    return std::nullopt;
  };
  if (const auto error = connectError()) connectFailed(*error, connection);
}

qelnk::StreamPair QELNKLegacyClient::streamsToHost(const std::string &host, uint64_t port) {
  return qelnk::streamsToHost(host, port);
}

void QELNKLegacyClient::connectFailedWithError(int64_t error) { connectFailed(error, std::nullopt); }

/// Nothing is told and tried where there is another connection meanwhile than the one that failed, if one is given.
void QELNKLegacyClient::connectFailed(int64_t error, std::optional<uint64_t> connection) {
  const auto self = held();
  logDefault("{} connection failed with error: {}, will retry: {:d}", description(), error, willRetryConnect());
  if (!endConnection(connection)) return;
  informClient(false, 0, [error, willRetry = willRetryConnect()](const auto &client, auto *delegate) {
    delegate->networkClient(client, error, willRetry);
  });
  const qelnk::Lock lock(clientState_->mutex);
  if (!inputStream()) retryConnect();  // somebody may have connected while it was told
}

bool QELNKLegacyClient::willRetryConnect() const {
  const qelnk::Lock lock(clientState_->mutex);
  return clientState_->retryAttempts < clientState_->maxRetryAttempts && clientState_->connected;
}

void QELNKLegacyClient::retryConnect() {
  const qelnk::Lock lock(clientState_->mutex);
  if (!willRetryConnect()) return logDefault("{} want to retry connection, but too many attempts", description());
  ++clientState_->retryAttempts;
  connectAfter(clientState_->autoRetryInterval);
}

void QELNKLegacyClient::reconnect() {
  const qelnk::Lock lock(clientState_->mutex);
  if (!clientState_->attemptReconnect || !clientState_->connected) return;
  clientState_->isReconnecting = true;
  connectAfter(clientState_->autoReconnectDelay);
}

/// Has the client connect later, unless it is connected or told to disconnect by then. There is one such wait at a
/// time.
void QELNKLegacyClient::connectAfter(double seconds) {
  clientState_->start(
      &ClientState::delayedConnect, &ClientState::connectNumber, seconds, {}, held(),
      [](auto &client, uint64_t) { client.delayedConnect(); }, static_cast<const QELNKLegacyStream *>(this));
}

void QELNKLegacyClient::delayedConnect() {
  followService();
  attempt(host(), true);
}

/// A service that was resolved may have moved; the owner may have set another host, too.
void QELNKLegacyClient::followService() {
  const qelnk::Lock lock(clientState_->mutex);
  const auto service = clientState_->netService;
  const bool isTheServices =
      clientState_->host == clientState_->resolvedHost && clientState_->port == clientState_->resolvedPort;
  if (service && isTheServices && !service->hostName().empty()) takeAddress(*service);
}

void QELNKLegacyClient::takeAddress(const NetService &service) {
  const qelnk::Lock lock(clientState_->mutex);
  clientState_->host = clientState_->resolvedHost = service.hostName();
  clientState_->port = clientState_->resolvedPort = service.port();
}

void QELNKLegacyClient::timeoutReached(uint64_t timer) {
  uint64_t connection = 0;
  {
    const qelnk::Lock lock(clientState_->mutex);
    if (clientState_->timeoutNumber != timer) return;  // another thread has begun another attempt meanwhile
    cancelTimeoutTimer();
    connection = clientState_->timedConnection;
  }
  if (isReady() || !inputStream() || state_->connections != connection) return;  // while this was about to run
  connectFailed(timedOut, connection);
}

void QELNKLegacyClient::cancelTimeoutTimer() {
  clientState_->stop(&ClientState::timeoutTimer, &ClientState::timeoutNumber);
}

void QELNKLegacyClient::cancelConnectAttempt() {
  const auto self = held();
  clientState_->set(&ClientState::isCancelled, true);
  _disconnect();
}

void QELNKLegacyClient::disconnect() {
  const auto self = held();  // a delegate that is called while this waits may drop the last reference
  const auto stop = [this](bool isOver) {
    const qelnk::Lock lock(clientState_->mutex);
    if (isOver && inputStream()) return;
    clientState_->connected = false;
    clientState_->isReconnecting = false;
    clientState_->stop(&ClientState::delayedConnect, &ClientState::connectNumber);
  };
  stop(false);
  QELNKLegacyStream::disconnect();
  stop(true);  // another thread's connect() in between: what has come to nothing does not go on by itself
}

bool QELNKLegacyClient::endConnection(std::optional<uint64_t> connection) {
  State::Connection ended;
  {
    const qelnk::Lock lock(clientState_->mutex);
    const qelnk::Lock streams(state_->mutex);
    if (connection && *connection != state_->connections) return false;
    cancelTimeoutTimer();  // with that: another thread's next attempt has timers of its own
    cancelHeartbeatMonitor();
    ended = state_->takeConnection();
  }
  state_->close(ended);
  return true;
}

// --- What the stream has to tell ---

template <class Call, class... Arguments>
void QELNKLegacyClient::informClient(bool queued, uint64_t bytes, Call call, const Arguments &...arguments) {
  State::inform(
      *this, queued, bytes,
      [call](const auto &stream, const auto &delegate, const auto &...told) {
        if (auto *own = dynamic_cast<QELNKLegacyClientDelegate *>(delegate.get()))
          call(std::static_pointer_cast<QELNKLegacyClient>(stream), own, told...);
      },
      arguments...);
}

void QELNKLegacyClient::informClientIsReady() {
  informClient(false, 0, [](const auto &client, auto *delegate) {
    if (client->isReady()) delegate->networkClientIsReady(client);  // it may have been disconnected meanwhile
  });
}

void QELNKLegacyClient::informDelegateStreamIsReady() {
  {
    const qelnk::Lock lock(clientState_->mutex);
    if (isReady()) {  // else these are another thread's next attempt's
      cancelTimeoutTimer();
      startHeartbeatMonitor();
    }
  }
  informClientIsReady();
  clientState_->set(&ClientState::retryAttempts, int64_t(0));
}

void QELNKLegacyClient::informDelegateStreamWasTerminated() {
  if (!endConnection(State::Ending::of(*this))) return;
  if (!clientState_->get(&ClientState::isReconnecting))
    informClient(false, 0, [willReconnect = attemptReconnect()](const auto &client, auto *delegate) {
      delegate->networkClientWasTerminated(client, willReconnect);
    });
  const qelnk::Lock lock(clientState_->mutex);
  if (!inputStream()) reconnect();  // somebody may have connected while it was told
}

/// The first sign of life after a reconnect, which may come before the handshake is complete.
void QELNKLegacyClient::informReconnected() {
  {
    const qelnk::Lock lock(clientState_->mutex);
    if (!std::exchange(clientState_->isReconnecting, false)) return;
  }
  informClient(false, 0, [](const auto &client, auto *delegate) {
    if (client->inputStream()) delegate->networkClientIsReady(client);
  });
}

void QELNKLegacyClient::informDelegateOfReceivedString(const std::string &string) {
  informReconnected();
  informClient(
      true, string.size(),
      [](const auto &client, auto *delegate, const auto &text) { delegate->networkClient(client, text); }, string);
}

void QELNKLegacyClient::informDelegateOfReceivedBinaryData(const Data &data, const std::string &contentType) {
  informClient(
      true, data.size() + contentType.size(),
      [](const auto &client, auto *delegate, const Data &block, const auto &type) {
        delegate->networkClient(client, block, type);
      },
      data, contentType);
}

void QELNKLegacyClient::informDelegateOfHeartbeatAtTimecode(const QELProjectTimecode &timecode,
                                                            const std::optional<std::string> &extendedInformation) {
  informReconnected();
  bool cameBack = false;
  {
    const qelnk::Lock lock(clientState_->mutex);
    clientState_->lastHeartbeat = wallTime();
    cameBack = std::exchange(clientState_->heartbeatNotifiedProblem, false);
  }
  if (cameBack) {
    logDefault("Connection Reestablished");
    informClient(false, 0, [](const auto &client, auto *delegate) {
      delegate->networkClientHeartbeatNotification(client, false);
    });
  }
  informClient(
      true, timecode.XMLRepresentation().size() + (extendedInformation ? extendedInformation->size() : 0),
      [](const auto &client, auto *delegate, const auto &at, const auto &information) {
        delegate->networkClient(client, at, information);
      },
      timecode, extendedInformation);
}

void QELNKLegacyClient::informDelegateConnectionRefused() { connectFailed(refused, State::Ending::of(*this)); }

void QELNKLegacyClient::handleAddressNotAvailableForStream(const std::shared_ptr<ByteStream> &stream) {
  std::shared_ptr<NetService> service;
  {
    const qelnk::Lock lock(clientState_->mutex);
    if (std::exchange(clientState_->attemptIPv4Fallback, false)) service = clientState_->netService;
  }
  if (service) {
    logDefault("Address not available, attempting IPv4 fallback");
    for (const std::string &bytes : service->addresses()) {
      sockaddr_in address{};
      if (bytes.size() != sizeof address) continue;
      std::memcpy(&address, bytes.data(), sizeof address);
      if (endConnection(State::Ending::of(*this))) return attempt(stringFromIPv4Address(address.sin_addr.s_addr), true);
      return clientState_->set(&ClientState::attemptIPv4Fallback, true);  // for the connection that is there by now
    }
  }
  QELNKLegacyStream::handleAddressNotAvailableForStream(stream);
}

// --- Heartbeats ---

void QELNKLegacyClient::startHeartbeatMonitor() {
  cancelHeartbeatMonitor();
  const qelnk::Lock lock(clientState_->mutex);
  if (!(clientState_->heartbeatDisconnectTimeout < 0 && clientState_->heartbeatProblemTimeout < 0)) return;
  const auto input = inputStream();
  if (!input) return;  // disconnected meanwhile
  if (logsHeartbeatMonitor()) logDefault("Starting heartbeat monitor");
  clientState_->heartbeatInput = input;
  clientState_->lastHeartbeat = wallTime();
  clientState_->heartbeatNotifiedProblem = false;
  clientState_->start(&ClientState::heartbeatTimer, &ClientState::heartbeatNumber,
                      std::chrono::duration<double>(heartbeatCheckInterval).count(), heartbeatCheckInterval, held(),
                      [](auto &client, uint64_t) { client.heartbeatMonitorTask(); });
}

void QELNKLegacyClient::cancelHeartbeatMonitor() {
  if (logsHeartbeatMonitor()) logDefault("Cancelling heartbeat monitor");
  const qelnk::Lock lock(clientState_->mutex);
  clientState_->stop(&ClientState::heartbeatTimer, &ClientState::heartbeatNumber);
  clientState_->lastHeartbeatCheck.reset();
}

void QELNKLegacyClient::heartbeatMonitorTask() {
  if (logsHeartbeatMonitor()) logDefault("Heartbeat monitor");
  const auto input = inputStream();
  // Disconnected while it was being started.
  if (!input || input != clientState_->get(&ClientState::heartbeatInput).lock()) return cancelHeartbeatMonitor();
  if (input->hasBytesAvailable()) return;  // the heartbeat may be among them
  const double now = wallTime();
  bool isLost = false, isOver = false;
  {
    const qelnk::Lock lock(clientState_->mutex);
    const auto previous = std::exchange(clientState_->lastHeartbeatCheck, now);
    if (previous && logsHeartbeatMonitor()) logDefault("Heartbeat last check at {}", *previous);
    if (previous && *previous - now > clockSetBack) return;
    const double age = clientState_->lastHeartbeat - now;  // negative, as the limits are
    if (clientState_->heartbeatProblemTimeout > age) {
      isLost = !std::exchange(clientState_->heartbeatNotifiedProblem, true);
      isOver = clientState_->heartbeatDisconnectTimeout > age;
    }
  }
  if (isLost) {
    logDefault("Connection Possibly Lost");
    informClient(false, 0, [](const auto &client, auto *delegate) {
      delegate->networkClientHeartbeatNotification(client, true);
    });
  }
  if (isOver) stream(input, qelnk::StreamEvent::end);
}

// --- The service ---

void QELNKLegacyClient::setNetService(std::shared_ptr<NetService> netService) {
  if (!netService) logDefault("NetService is nil!");
  takeNetService(std::move(netService));
}

void QELNKLegacyClient::takeNetService(std::shared_ptr<NetService> netService) {
  const auto before = clientState_->get(&ClientState::netService);
  if (before && before != netService) before->stopFor(weak_from_this());
  {
    const qelnk::Lock lock(clientState_->mutex);
    clientState_->netService = netService;
    clientState_->name = netService ? netService->name() : "";
  }
  if (!netService) return;
  netService->setDelegate(std::static_pointer_cast<QELNKLegacyClient>(shared_from_this()));
  if (!netService->addresses().empty()) return netServiceDidResolveAddress(netService);
  logDefault("Trying to resolve net service {}", netService->name());
  netService->resolveWithTimeout(resolveTimeout);
}

void QELNKLegacyClient::netServiceDidResolveAddress(const std::shared_ptr<NetService> &service) {
  {
    const qelnk::Lock lock(clientState_->mutex);
    if (service != clientState_->netService) return;
    logDefault("Resolved net service {}", service->name());
    if (isReady() && service->hostName() == clientState_->host && service->port() == clientState_->port) return;
    takeAddress(*service);
    clientState_->connected = true;
  }
  _connect();
}

void QELNKLegacyClient::netServiceDidNotResolve(const std::shared_ptr<NetService> &, std::error_code error) {
  logDefault("Could not resolve: {}", error.message());
}

void QELNKLegacyClient::netServiceDidUpdateTXTRecordData(const std::shared_ptr<NetService> &service,
                                                         const std::string &data) {
  {
    const qelnk::Lock lock(clientState_->mutex);
    if (service != clientState_->netService) return;
    clientState_->serviceTXTRecordData = Data(data);
    clientState_->serviceTXTRecordDictionary = NetService::dictionaryFromTXTRecordData(data);
  }
  informClient(true, data.size(),
               [](const auto &client, auto *delegate) { delegate->networkClientServiceUpdatedTXTRecordData(client); });
}

// --- Properties ---

bool QELNKLegacyClient::isConnected() const { return clientState_->get(&ClientState::connected); }
void QELNKLegacyClient::setConnected(bool connected) { clientState_->set(&ClientState::connected, connected); }
std::shared_ptr<NetService> QELNKLegacyClient::netService() const {
  return clientState_->get(&ClientState::netService);
}
std::string QELNKLegacyClient::name() const { return clientState_->get(&ClientState::name); }
void QELNKLegacyClient::setName(std::string name) { clientState_->set(&ClientState::name, std::move(name)); }
std::string QELNKLegacyClient::host() const { return clientState_->get(&ClientState::host); }
void QELNKLegacyClient::setHost(std::string host) { clientState_->set(&ClientState::host, std::move(host)); }
uint64_t QELNKLegacyClient::port() const { return clientState_->get(&ClientState::port); }
void QELNKLegacyClient::setPort(uint64_t port) { clientState_->set(&ClientState::port, port); }
double QELNKLegacyClient::connectTimeout() const { return clientState_->get(&ClientState::connectTimeout); }
void QELNKLegacyClient::setConnectTimeout(double seconds) {
  clientState_->set(&ClientState::connectTimeout, seconds < 0 ? 10.0 : seconds);
}
bool QELNKLegacyClient::attemptReconnect() const { return clientState_->get(&ClientState::attemptReconnect); }
void QELNKLegacyClient::setAttemptReconnect(bool flag) { clientState_->set(&ClientState::attemptReconnect, flag); }
double QELNKLegacyClient::autoReconnectDelay() const { return clientState_->get(&ClientState::autoReconnectDelay); }
void QELNKLegacyClient::setAutoReconnectDelay(double seconds) {
  clientState_->set(&ClientState::autoReconnectDelay, seconds);
}
double QELNKLegacyClient::autoRetryInterval() const { return clientState_->get(&ClientState::autoRetryInterval); }
void QELNKLegacyClient::setAutoRetryInterval(double seconds) {
  clientState_->set(&ClientState::autoRetryInterval, seconds < 0 ? 1.0 : seconds);
}
int64_t QELNKLegacyClient::maxRetryAttempts() const { return clientState_->get(&ClientState::maxRetryAttempts); }
void QELNKLegacyClient::setMaxRetryAttempts(int64_t count) { clientState_->set(&ClientState::maxRetryAttempts, count); }
int64_t QELNKLegacyClient::retryAttempts() const { return clientState_->get(&ClientState::retryAttempts); }
double QELNKLegacyClient::heartbeatDisconnectTimeout() const {
  return clientState_->get(&ClientState::heartbeatDisconnectTimeout);
}
void QELNKLegacyClient::setHeartbeatDisconnectTimeout(double seconds) {
  clientState_->set(&ClientState::heartbeatDisconnectTimeout, seconds);
}
double QELNKLegacyClient::heartbeatProblemTimeout() const {
  return clientState_->get(&ClientState::heartbeatProblemTimeout);
}
void QELNKLegacyClient::setHeartbeatProblemTimeout(double seconds) {
  clientState_->set(&ClientState::heartbeatProblemTimeout, seconds);
}
Data QELNKLegacyClient::serviceTXTRecordData() const { return clientState_->get(&ClientState::serviceTXTRecordData); }
qelnk::TXTRecordDictionary QELNKLegacyClient::serviceTXTRecordDictionary() const {
  return clientState_->get(&ClientState::serviceTXTRecordDictionary);
}
std::shared_ptr<QELNKLegacyClientDelegate> QELNKLegacyClient::delegate() const {
  return std::dynamic_pointer_cast<QELNKLegacyClientDelegate>(QELNKLegacyStream::delegate());
}
void QELNKLegacyClient::setDelegate(std::weak_ptr<QELNKLegacyClientDelegate> delegate) {
  QELNKLegacyStream::setDelegate(std::move(delegate));
}

std::string QELNKLegacyClient::description() const { return fmt::format("QELNKLegacyClient {}", name()); }
