#include <QELNetworkKit/QELNKSocket.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>

#include "messaging/ErrorText.h"
#include "messaging/IOThread.h"
#include "messaging/SocketPoll.h"
#include "messaging/zmq/Authenticator.h"
#include "platform/Guard.h"
#include "platform/LogFormat.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

using qelnk::Data;
using qelnk::Error;

struct QELNK_HIDDEN QELNKSocket::Encryption {
  QELNKEncryption settings;
  std::shared_ptr<const qelnk::Authenticator::Admission> admission;  // with allowed keys
  bool isUsable = true;

  /// Throws where a key is none.
  void prepare(QELNKSocket &endpoint, QELNKEncryption own);
  /// Throws where that cannot be: rather no connection than one that anybody can read.
  void applyTo(ZMQSocket &socket) const;
};

QELNKSocket::QELNKSocket(std::shared_ptr<QELNKContext> context)
    : context_(std::move(context)), clock_(qelnk::Clock::system()) {}

QELNKSocket::~QELNKSocket() { closeSocket(); }

void QELNKSocket::Deleter::operator()(QELNKSocket *socket) const {
  auto thread = socket->thread();
  if (!thread || IOThread::end(std::move(thread), socket)) delete socket;
}

bool QELNKSocket::isUsable(const std::shared_ptr<QELNKContext> &context) {
  if (!context) qelnk::logError("QELNKSocket needs a context; the shared one has been terminated");
  return context != nullptr;
}

// The thread.

std::shared_ptr<QELNKSocket::IOThread> QELNKSocket::thread() const {
  const qelnk::Lock lock(mutex_);
  return thread_;
}

void QELNKSocket::startThread(const std::string &name) {
  std::shared_ptr<IOThread> previous;
  // Held while the thread starts: whoever disconnects then waits for the thread that he has to cancel.
  const qelnk::Lock lock(mutex_);
  previous = std::move(thread_);
  thread_ = std::make_shared<IOThread>(name, this);
}

void QELNKSocket::cancelThread(const std::shared_ptr<IOThread> &thread) {
  if (thread && !thread->isFinished())
    thread->cancel();
  else
    close(socketWithoutThread(), {});  // not that of a thread just starting
}

bool QELNKSocket::joinThread(const std::shared_ptr<IOThread> &thread, bool waitsForNobody) {
  return !thread || thread->join(waitsForNobody);
}

bool QELNKSocket::hasThread() const {
  const auto thread = this->thread();
  return thread && !thread->isFinished();
}

bool QELNKSocket::hasLastingThread() const {
  const auto thread = this->thread();
  return thread && !thread->isFinished() && !thread->isCancelled();
}

bool QELNKSocket::onMessageThread() const { return IOThread::currentEndpoint() == this; }
bool QELNKSocket::isCancelled() const { return IOThread::isCurrentCancelled(); }

void QELNKSocket::disconnect() { cancelThread(thread()); }

// The socket.

std::string QELNKSocket::endPointForHost(const std::string &host, int32_t port) {
  return fmt::format("tcp://{}:{}", host, port);
}

std::string QELNKSocket::endPoint() const {
  const qelnk::Lock lock(mutex_);
  return socket_ ? socket_->endpoint() : lastEndPoint_;
}

std::shared_ptr<ZMQSocket> QELNKSocket::socket() const {
  const qelnk::Lock lock(mutex_);
  return socket_;
}

void QELNKSocket::setSocket(std::shared_ptr<ZMQSocket> socket) {
  if (hasThread()) return qelnk::logError("QELNKSocket keeps the socket of its io thread");
  const auto lock = lockSocket();
  replaceSocket(std::move(socket));
}

void QELNKSocket::replaceSocket(std::shared_ptr<ZMQSocket> socket) {
  const qelnk::Lock lock(mutex_);
  if (socket_) lastEndPoint_ = socket_->endpoint();
  socket_.swap(socket);
  owned_ = socket_.get();
}

std::shared_ptr<ZMQSocket> QELNKSocket::openSocket(const std::string &endpoint, std::chrono::milliseconds linger) {
  auto socket = context_->zmqContext()->makeSocket(socketType(), onMessageThread());
  socket->setInt(int(linger.count()), ZMQ_LINGER);
  // Else connections to machines that were switched off would stay for ever, with a descriptor each.
  if (socketType() != ZMQ_PAIR) socket->setInt(1, ZMQ_TCP_KEEPALIVE);
  socket->setEndpoint(endpoint);
  replaceSocket(socket);
  std::shared_ptr<const SocketBlock> block;
  std::shared_ptr<const Encryption> encryption;
  {
    const qelnk::Lock lock(mutex_);
    block = socketBlock_;
    encryption = encryption_;
  }
  if (encryption) encryption->applyTo(*socket);
  if (const uint64_t limit = maximumMessageSize_) {
    const int64_t bytes = int64_t(std::min(limit, uint64_t(INT64_MAX)));
    const auto *const first = reinterpret_cast<const uint8_t *>(&bytes);
    socket->setData(qelnk::Data(std::span(first, sizeof bytes)), ZMQ_MAXMSGSIZE);
  }
  if (const auto self = weak_from_this().lock(); self && block)
    qelnk::runGuarded("QELNKSocket socket block", [&] { (*block)(self, *socket); });
  return socket;
}

void QELNKSocket::setSocketBlock(SocketBlock block) {
  auto shared = block ? std::make_shared<const SocketBlock>(std::move(block)) : nullptr;
  const qelnk::Lock lock(mutex_);
  socketBlock_.swap(shared);  // the old one goes after the lock
}

bool QELNKSocket::setEncryption(QELNKEncryption encryption) {
  auto next = std::make_shared<Encryption>();
  try {
    next->prepare(*this, std::move(encryption));
  } catch (const std::exception &problem) {
    next->isUsable = false;
    qelnk::logError("QELNKSocket cannot encrypt: {}", problem.what());
  }
  const bool isUsable = next->isUsable;
  std::shared_ptr<const Encryption> shared = std::move(next);
  const qelnk::Lock lock(mutex_);
  encryption_.swap(shared);  // the old one goes after the lock
  return isUsable;
}

void QELNKSocket::Encryption::prepare(QELNKSocket &endpoint, QELNKEncryption own) {
  const auto check = [](const std::string &key) {
    std::array<uint8_t, 32> bytes{};
    if (key.size() != 40 || !zmq_z85_decode(bytes.data(), key.c_str()))
      throw std::invalid_argument(key.empty() ? "a key is missing" : "a key is not one");
  };
  check(own.keys.secretKey);
  if (QELNKKeyPair::pairOfSecretKey(own.keys.secretKey).publicKey != own.keys.publicKey)
    throw std::invalid_argument("the endpoint's keys do not belong together");
  if (!own.serverKey.empty()) check(own.serverKey);
  for (const std::string &key : own.allowedKeys) check(key);
  if (own.serverKey.empty() && !own.allowedKeys.empty())
    admission = endpoint.context_->zmqContext()->authenticator().admit(
        own.allowedKeys, [weak = endpoint.weak_from_this(), queue = endpoint.context_->responseQueue(),
                          block = own.refusedBlock](const std::string &address, const std::string &key) {
          if (!block) return;
          queue->async([weak, block, address, key] {
            if (const auto self = weak.lock())
              qelnk::runGuarded("QELNKSocket refused block", [&] { block(self, address, key); });
          });
        });
  settings = std::move(own);
}

void QELNKSocket::Encryption::applyTo(ZMQSocket &socket) const {
  if (socket.type() == ZMQ_PAIR) return;
  if (!isUsable) throw ZMQException("its keys are not usable", EINVAL);
  const auto set = [&](const std::string &text, int option) { socket.setData(Data(text), option); };
  if (settings.serverKey.empty()) {
    socket.setInt(1, ZMQ_CURVE_SERVER);
    if (admission) set(admission->domain(), ZMQ_ZAP_DOMAIN);
  } else {
    set(settings.serverKey, ZMQ_CURVE_SERVERKEY);
    set(settings.keys.publicKey, ZMQ_CURVE_PUBLICKEY);
  }
  set(settings.keys.secretKey, ZMQ_CURVE_SECRETKEY);
}

void QELNKSocket::closeSocket(std::chrono::milliseconds linger) { close(socket(), linger); }

/// Returns false for none, and for one that has been replaced meanwhile.
bool QELNKSocket::forgetSocket(const std::shared_ptr<ZMQSocket> &socket) {
  const qelnk::Lock lock(mutex_);
  if (!socket || socket_ != socket) return false;
  lastEndPoint_ = socket->endpoint();
  socket_.reset();
  owned_ = nullptr;
  return true;
}

void QELNKSocket::close(const std::shared_ptr<ZMQSocket> &socket, std::chrono::milliseconds linger) {
  if (!forgetSocket(socket)) return;
  try {
    if (const int limit = int(linger.count()); limit > 0 && socket->linger() >= 0 && socket->linger() < limit)
      socket->setInt(limit, ZMQ_LINGER);
    socket->close();
  } catch (const ZMQException &) {
    // Its log line is written.
  }
}

std::shared_ptr<ZMQSocket> QELNKSocket::socketWithoutThread() const {
  auto socket = this->socket();
  return socket && !socket->ownedByThread_ ? socket : nullptr;
}

void QELNKSocket::leaveSocketToContext() {
  const auto socket = this->socket();
  if (forgetSocket(socket)) context_->zmqContext()->keepMonitor(socket);
}

bool QELNKSocket::isAskedToClose() const {
  const ZMQSocket *socket = owned_.load(std::memory_order_relaxed);
  return socket && socket->askedToClose_.load(std::memory_order_relaxed);
}

void *QELNKSocket::rawSocket() const {
  const ZMQSocket *socket = owned_.load(std::memory_order_relaxed);
  return socket ? socket->socket() : nullptr;
}

void QELNKSocket::setLinger(int64_t milliseconds) {
  const auto thread = this->thread();
  if (thread && !onMessageThread()) {
    thread->runLoop()->perform([weak = weak_from_this(), milliseconds] {
      if (const auto self = weak.lock()) self->setLinger(milliseconds);
    });
  } else if (const auto socket = this->socket()) {
    const auto lock = lockSocket();
    try {
      socket->setData(Data(std::span(reinterpret_cast<const uint8_t *>(&milliseconds), sizeof(milliseconds))),
                      ZMQ_LINGER);
    } catch (const ZMQException &) {
      // Its log line is written.
    }
  }
}

void QELNKSocket::zmqError(Error *error) {
  if (!error) return;
  const int number = zmq_errno();
  *error = {.domain = "ZMQ", .code = number, .description = zmq_strerror(number), .userInfo = {}};
}

// Sending and receiving.

bool QELNKSocket::sendData(const Data &frame, int32_t flags, Error *error) {
  return sendFrame(frame.span(), flags, error);
}

bool QELNKSocket::sendFrame(std::span<const uint8_t> frame, int32_t flags, Error *error) {
  zmq_msg_t message;
  if (zmq_msg_init_size(&message, frame.size()) != 0) {
    zmqError(error);
    return false;
  }
  if (!frame.empty()) std::memcpy(zmq_msg_data(&message), frame.data(), frame.size());
  const bool sent = zmq_msg_send(&message, rawSocket(), flags) >= 0;
  if (sent)
    dataSent_.add(frame.size());
  else
    zmqError(error);
  if (zmq_msg_close(&message) != 0) zmqError(error);
  return sent;
}

bool QELNKSocket::sendData(const QELNKFrames &frames, Error *error) {
  for (size_t i = 0; i < frames.size(); i++)
    if (!sendData(frames[i], i + 1 < frames.size() ? ZMQ_SNDMORE : 0, error)) return false;
  return true;
}

int QELNKSocket::pollSocket(const qelnk::SocketPoll &poll, std::chrono::nanoseconds limit) {
  const auto loop = qelnk::RunLoop::current();
  const auto ready = [&] {
    loop->runOnce(std::chrono::nanoseconds::zero());
    const int events = poll.events();
    if (!isAskedToClose()) return events < 0 ? events : events & ~ZMQ_POLLOUT;
    errno = ENOTSOCK;
    return -1;
  };
  const int events = ready();
  if (events != 0 || isCancelled()) return events;
  return poll.wait(loop->untilNextTimer(limit)) < 0 ? -1 : ready();
}

/// A frame as ZeroMQ hands it out.
struct QELNK_HIDDEN QELNKSocket::IncomingFrame {
  IncomingFrame() { zmq_msg_init(&message); }
  ~IncomingFrame() { zmq_msg_close(&message); }
  IncomingFrame(const IncomingFrame &) = delete;
  IncomingFrame &operator=(const IncomingFrame &) = delete;

  /// 0, or ZeroMQ's error number.
  int receive(void *socket, int32_t flags) { return zmq_msg_recv(&message, socket, flags) < 0 ? zmq_errno() : 0; }
  bool hasMore() const { return zmq_msg_more(&message) != 0; }
  std::span<const uint8_t> bytes() const {
    return {static_cast<const uint8_t *>(zmq_msg_data(&message)), zmq_msg_size(&message)};
  }

  mutable zmq_msg_t message;
};

int QELNKSocket::receiveFrames(void *rawSocket, QELNKFrames &frames, int32_t flags, bool keepEmpty) {
  IncomingFrame first;
  const int error = first.receive(rawSocket, flags);
  return error == 0 ? collectFrames(first, rawSocket, frames, flags, keepEmpty) : error;
}

// The frames of a message whose first has been received.
int QELNKSocket::collectFrames(IncomingFrame &frame, void *rawSocket, QELNKFrames &frames, int32_t flags,
                               bool keepEmpty) {
  frames.clear();
  for (int error = 0; error == 0; error = frame.receive(rawSocket, flags)) {
    // Empty frames are, as a rule, delimiters that peers put before the body.
    const auto bytes = frame.bytes();
    if (!bytes.empty() || keepEmpty) frames.emplace_back(bytes);
    dataReceived_.add(bytes.size());
    if (!frame.hasMore()) return 0;
  }
  return zmq_errno();
}

int QELNKSocket::receiveMessage(int32_t flags, std::optional<qelnk::Value> &message, Error &error, size_t &bytes) {
  IncomingFrame frame;
  if (const int number = frame.receive(rawSocket(), flags); number != 0) return number;
  bytes = frame.bytes().size();
  if (const int32_t body = messageBody(); bytes != 0 && !frame.hasMore() && body != QELNKMessageBodyMultipart) {
    dataReceived_.add(bytes);
    message = deserialize(frame.bytes(), body, &error);
    return 0;
  }
  QELNKFrames frames;
  if (const int number = collectFrames(frame, rawSocket(), frames, flags, false); number != 0) return number;
  bytes = 0;
  for (const Data &each : frames) bytes += each.size();
  message = deserializeData(frames, &error);
  return 0;
}

std::optional<QELNKSocket::Encoded> QELNKSocket::encodeMessage(const qelnk::Value &message, Error &error) const {
  if (const int32_t body = messageBody(); body != QELNKMessageBodyMultipart) {
    auto frame = serializeMessage(message, body, &error);
    return frame ? std::optional<Encoded>(std::move(*frame)) : std::nullopt;
  }
  auto frames = serializeMessage(message, &error);
  if (frames && !frames->empty()) return std::move(*frames);
  if (frames) error = qelnk::zmqError(EINVAL);  // nothing would be sent
  return std::nullopt;
}

bool QELNKSocket::sendEncoded(const Encoded &message, Error &error) {
  if (const Data *frame = std::get_if<Data>(&message)) return sendData(*frame, 0, &error);
  return sendData(std::get<QELNKFrames>(message), &error);
}

std::optional<QELNKFrames> QELNKSocket::receiveData(int32_t flags, Error *error) {
  QELNKFrames frames;
  const int number = receiveFrames(rawSocket(), frames, flags);
  if (number == 0) return frames;
  errno = number;
  zmqError(error);
  return std::nullopt;
}

bool QELNKSocket::multipartMessage() const {
  int more = 0;
  size_t size = sizeof(more);
  return zmq_getsockopt(rawSocket(), ZMQ_RCVMORE, &more, &size) == 0 && more != 0;
}

// Traffic.

static int32_t kibibytesPerSecond(uint64_t bytes, double seconds) {
  return int32_t(std::min(double(bytes) / (seconds * 1024), double(std::numeric_limits<int32_t>::max())));
}

void QELNKSocket::logData() {
  const double now = clock_->wallTime();
  qelnk::Lock lock(mutex_);
  const double seconds = now - std::exchange(dataMark_, now).value_or(now);
  const uint64_t sent = dataSent_.takeSinceMark(), received = dataReceived_.takeSinceMark();
  lock.unlock();
  if (seconds > 0)
    qelnk::logDefault("QELNKSocket sent {}KB/s and received {}KB/s", kibibytesPerSecond(sent, seconds),
                      kibibytesPerSecond(received, seconds));
}
