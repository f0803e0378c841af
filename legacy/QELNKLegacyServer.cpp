#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKLegacyServer.h>
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "legacy/LegacyStreamState.h"
#include "platform/Guard.h"
#include "platform/ListeningSocket.h"
#include "platform/LogFormat.h"

using qelnk::Data;
using qelnk::Error;
using qelnk::ListeningSocket;
using qelnk::logDefault;
using qelnk::logError;
using qelnk::Value;

const char *const QELNKTCPServerErrorDomain = "QELNKTCPServerErrorDomain";

namespace {

/// The platform's number for an accepted connection, as log lines have it.
constexpr int acceptEvent = 2;
constexpr int portsTried = 10;

using Streams = std::vector<std::shared_ptr<QELNKLegacyStream>>;

}  // namespace

struct QELNK_HIDDEN QELNKLegacyServer::State {
  std::weak_ptr<QELNKLegacyServer> held;
  /// The server's lock, re-entrant: taken for each write to all, so that all connections get the same order.
  mutable qelnk::RecursiveMutex mutex;
  std::unique_ptr<ListeningSocket> ipv4Socket QELNK_GUARDED_BY(mutex), ipv6Socket QELNK_GUARDED_BY(mutex);
  std::optional<Streams> terminatedStreams QELNK_GUARDED_BY(mutex);  // there while a write to all runs
  uint16_t port QELNK_GUARDED_BY(mutex) = 0;
  uint32_t bindingIPAddress QELNK_GUARDED_BY(mutex) = 0;
  std::weak_ptr<QELNKLegacyServerDelegate> delegate QELNK_GUARDED_BY(mutex);
  Streams streams QELNK_GUARDED_BY(mutex);
  size_t maximumConnections QELNK_GUARDED_BY(mutex) = 0;
  qelnk::Recurrence refused QELNK_GUARDED_BY(mutex);
  size_t tidyFrom QELNK_GUARDED_BY(mutex) = 0;  // the length of `streams` at which those that have ended go
  std::string name QELNK_GUARDED_BY(mutex);
  Value streamOptions QELNK_GUARDED_BY(mutex);

  template <class Field>
  Field locked(Field State::*field) const {
    const qelnk::Lock lock(mutex);
    return this->*field;
  }
};

QELNKLegacyServer::QELNKLegacyServer(std::string name, uint16_t port, const Value &streamOptions)
    : state_(std::make_unique<State>()) {
  state_->name = std::move(name);
  state_->port = port;
  state_->streamOptions = streamOptions;
}

QELNKLegacyServer::~QELNKLegacyServer() = default;

std::shared_ptr<void> QELNKLegacyServer::hold(QELNKLegacyServer *server) {
  std::shared_ptr<void> held(static_cast<void *>(server), [server](void *) { delete server; });
  server->state_->held = std::shared_ptr<QELNKLegacyServer>(held, server);
  return held;
}

std::shared_ptr<QELNKLegacyServer> QELNKLegacyServer::create(std::string name, uint16_t port,
                                                             const Value &streamOptions) {
  return own(new QELNKLegacyServer(std::move(name), port, streamOptions));
}

// --- Listening ---

/// Makes both sockets listen on `port`. Returns 0, or the code of what failed, for `reason`.
int64_t QELNKLegacyServer::listen(uint16_t port, std::error_code &reason) {
  using Family = ListeningSocket::Family;
  const qelnk::Lock lock(state_->mutex);
  state_->ipv4Socket = ListeningSocket::create(Family::ipv4, reason);
  state_->ipv6Socket = state_->ipv4Socket ? ListeningSocket::create(Family::ipv6, reason) : nullptr;
  if (!state_->ipv6Socket) return noSocket;
  state_->ipv4Socket->setReuseAddress();
  state_->ipv6Socket->setReuseAddress();
  if ((reason = state_->ipv4Socket->bind(port, state_->bindingIPAddress))) return ipv4NotBound;
  if (port == 0) port = state_->ipv4Socket->port();
  if ((reason = state_->ipv6Socket->bind(port))) return ipv6NotBound;
  state_->port = port;
  return 0;
}

bool QELNKLegacyServer::start(Error *error) {
  const qelnk::Lock lock(state_->mutex);
  if (state_->ipv4Socket) {
    logError("QELNKLegacyServer listens already, on port {}", state_->port);
    return true;
  }
  std::error_code reason;
  const uint16_t port = state_->port;
  if (state_->bindingIPAddress != 0) logDefault("*** Binding custom IP Address.");
  int64_t code = listen(port, reason);
  // What the system chose for IPv4 may be taken for IPv6: it chooses again.
  for (int attempt = 1; code == ipv6NotBound && port == 0 && attempt < portsTried; ++attempt)
    code = listen(port, reason);
  if (code != 0) return returnWithErrorCode(code, reason, error);
  for (auto *socket : {&state_->ipv4Socket, &state_->ipv6Socket}) {
    reason = (*socket)->accept(qelnk::RunLoop::current(), [weak = state_->held](int connection, auto &address) {
      const auto streams = qelnk::streamsWithSocket(connection);  // closed with the last of them
      if (const auto self = weak.lock()) self->accept(streams, address);
    });
    if (!reason) continue;
    state_->port = port;  // as given: the next start() may choose again
    return returnWithErrorCode(noSocket, reason, error);
  }
  return true;
}

bool QELNKLegacyServer::returnWithErrorCode(int64_t code, const std::error_code &reason, Error *error) {
  if (error) *error = {QELNKTCPServerErrorDomain, code, reason.message(), {}};
  const qelnk::Lock lock(state_->mutex);
  state_->ipv4Socket.reset();
  state_->ipv6Socket.reset();
  return false;
}

void QELNKLegacyServer::accept(const qelnk::StreamPair &streams, const std::string &address) {
  logDefault("TCPServerAcceptCallBack type: {}", acceptEvent);
  if (!streams) return;
  logDefault("Got streams");
  Streams ended;  // goes after the lock
  // Under the lock throughout: the connection may end, and is to be taken off the list, before it is on it.
  const qelnk::Lock lock(state_->mutex);
  if (!state_->ipv4Socket) return;  // stopped meanwhile
  auto &all = state_->streams;
  const auto isFull = [most = state_->maximumConnections](size_t count) { return most != 0 && count >= most; };
  // Those that the host has ended go when the list is full, or twice as long as after the last time: looking at all of
  // them for each that comes would make many cost their square.
  if (isFull(all.size()) || all.size() >= state_->tidyFrom) {
    const auto firstEnded = std::stable_partition(all.begin(), all.end(),
                                                  [](const auto &stream) { return stream->inputStream() != nullptr; });
    ended.assign(firstEnded, all.end());
    all.erase(firstEnded, all.end());
    state_->tidyFrom = std::max<size_t>(2 * all.size(), 16);
  }
  if (isFull(all.size())) {
    if (state_->refused.again())
      logError("QELNKLegacyServer refuses a connection, for {} are there already ({} so far)", all.size(),
               state_->refused.count());
    return;
  }
  const auto stream = QELNKLegacyStream::create(state_->streamOptions);
  const Value *own = state_->streamOptions.find("multiThreaded");
  if (own && own->isBool() && !stream->thread()) return;  // there was none to be had, and the log has it
  stream->setDelegate(state_->held);
  stream->setPeerAddressFromData(Data(address));
  state_->streams.push_back(stream);
  stream->setInputStream(streams.input, streams.output);
}

void QELNKLegacyServer::stop() {
  Streams streams;  // these go after the lock: that waits for their threads
  std::unique_ptr<ListeningSocket> ipv4Socket, ipv6Socket;
  const qelnk::Lock lock(state_->mutex);
  streams.swap(state_->streams);
  state_->terminatedStreams.reset();
  state_->name.clear();
  ipv4Socket.swap(state_->ipv4Socket);
  ipv6Socket.swap(state_->ipv6Socket);
}

// --- Writing ---

template <class Write>
void QELNKLegacyServer::writeToAll(Write write) {
  Streams terminated;  // goes after the lock
  const qelnk::Lock lock(state_->mutex);
  // Also where one cannot be written to for want of memory.
  const std::shared_ptr<void> afterwards(nullptr, [&](void *) QELNK_REQUIRES(state_->mutex) {
    if (state_->terminatedStreams) terminated.swap(*state_->terminatedStreams);
    state_->terminatedStreams.reset();
    for (const auto &stream : terminated) std::erase(state_->streams, stream);
  });
  state_->terminatedStreams.emplace();
  const QELNKLegacyStream::State::FlushesTogether flushes;
  for (const auto &stream : state_->streams) write(*stream);
}

void QELNKLegacyServer::writeBytes(const void *bytes, size_t length, bool appendingZeroTerminator) {
  writeToAll([&](QELNKLegacyStream &stream) { stream.writeBytes(bytes, length, appendingZeroTerminator, false); });
}

void QELNKLegacyServer::writeData(const Data &data) {
  writeToAll([&](QELNKLegacyStream &stream) { stream.writeData(data); });
}

void QELNKLegacyServer::writeString(const std::string &string) {
  if (!QELNKLegacyStream::isWritable(string)) return;
  size_t length = 0;
  const char *const bytes = bytesFromString(string, length);
  writeBytes(bytes, length, false);
}

const char *QELNKLegacyServer::bytesFromString(const std::string &string, size_t &length) {
  length = string.size() + 1;
  return string.c_str();
}

void QELNKLegacyServer::writeBinaryData(const Data &data, const std::string &contentType, bool fenced) {
  writeToAll([&](QELNKLegacyStream &stream) { stream.writeBinaryData(data, contentType, fenced); });
}

std::string QELNKLegacyServer::timecodeStringForTimecode(const QELProjectTimecode &timecode,
                                                         const std::optional<std::string> &extendedInformation) {
  return extendedInformation ? fmt::format("heartbeat {} {}", timecode.XMLRepresentation(), *extendedInformation)
                             : fmt::format("heartbeat {}", timecode.XMLRepresentation());
}

void QELNKLegacyServer::sendHeartbeatAtTimecode(const QELProjectTimecode &timecode,
                                                const std::optional<std::string> &extendedInformation) {
  writeString(timecodeStringForTimecode(timecode, extendedInformation));
}

// --- What the connections tell ---

template <class Call>
void QELNKLegacyServer::inform(const Call &call) {
  const auto self = weak_from_this().lock();
  const auto observer = delegate();
  if (self && observer) qelnk::runGuarded("QELNKLegacyServer delegate", [&] { call(*observer, self); });
}

void QELNKLegacyServer::networkStream(const std::shared_ptr<QELNKLegacyStream> &stream,
                                      const std::string &receivedString) {
  inform([&](auto &observer, const auto &self) { observer.networkService(self, stream, receivedString); });
}

void QELNKLegacyServer::networkStream(const std::shared_ptr<QELNKLegacyStream> &stream,
                                      const QELProjectTimecode &receivedHeartbeatAtTimecode,
                                      const std::optional<std::string> &withExtendedInformation) {
  inform([&](auto &observer, const auto &self) {
    observer.networkService(self, stream, receivedHeartbeatAtTimecode, withExtendedInformation);
  });
}

void QELNKLegacyServer::networkStreamIsReady(const std::shared_ptr<QELNKLegacyStream> &stream) {
  inform([&](auto &observer, const auto &self) { observer.networkServiceNetworkStreamIsReady(self, stream); });
}

void QELNKLegacyServer::networkStreamWasTerminated(const std::shared_ptr<QELNKLegacyStream> &stream) {
  inform([&](auto &observer, const auto &self) { observer.networkServiceNetworkStreamWasTerminated(self, stream); });
  const qelnk::Lock lock(state_->mutex);
  if (state_->terminatedStreams)
    state_->terminatedStreams->push_back(stream);
  else
    std::erase(state_->streams, stream);
}

// --- Properties ---

uint16_t QELNKLegacyServer::port() const { return state_->locked(&State::port); }
std::string QELNKLegacyServer::name() const { return state_->locked(&State::name); }
uint32_t QELNKLegacyServer::bindingIPAddress() const { return state_->locked(&State::bindingIPAddress); }

void QELNKLegacyServer::setBindingIPAddress(uint32_t address) {
  const qelnk::Lock lock(state_->mutex);
  state_->bindingIPAddress = address;
}

Value QELNKLegacyServer::streamOptions() const { return state_->locked(&State::streamOptions); }

void QELNKLegacyServer::setStreamOptions(const Value &options) {
  const qelnk::Lock lock(state_->mutex);
  state_->streamOptions = options;
}

size_t QELNKLegacyServer::maximumConnections() const { return state_->locked(&State::maximumConnections); }

void QELNKLegacyServer::setMaximumConnections(size_t count) {
  const qelnk::Lock lock(state_->mutex);
  state_->maximumConnections = count;
}

std::vector<std::shared_ptr<QELNKLegacyStream>> QELNKLegacyServer::streams() const {
  return state_->locked(&State::streams);
}

std::shared_ptr<QELNKLegacyServerDelegate> QELNKLegacyServer::delegate() const {
  return state_->locked(&State::delegate).lock();
}

void QELNKLegacyServer::setDelegate(std::weak_ptr<QELNKLegacyServerDelegate> delegate) {
  const qelnk::Lock lock(state_->mutex);
  state_->delegate.swap(delegate);
}
