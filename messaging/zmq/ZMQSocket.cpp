#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>

#include "messaging/zmq/SocketRegistry.h"
#include "platform/LogFormat.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <map>
#include <optional>
#include <thread>
#include <utility>

using qelnk::Data;

namespace {

// A ZeroMQ message that closes itself. It is not open when ZeroMQ could not make it.
class Message {
 public:
  Message() : open_(zmq_msg_init(&message_) == 0) {}
  explicit Message(const Data &data) : open_(zmq_msg_init_size(&message_, data.size()) == 0) {
    if (open_ && !data.empty()) std::memcpy(zmq_msg_data(&message_), data.data(), data.size());
  }
  ~Message() { close(); }
  bool isOpen() const { return open_; }
  /// Returns false when ZeroMQ reports a failure.
  bool close() { return !std::exchange(open_, false) || zmq_msg_close(&message_) == 0; }
  zmq_msg_t *get() { return &message_; }

 private:
  zmq_msg_t message_;
  bool open_;
};

using Steady = std::chrono::steady_clock;

/// The port that a TCP endpoint ends with; none where that is no number.
std::optional<int64_t> portOf(std::string_view endpoint) {
  const size_t colon = endpoint.rfind(':');
  if (!endpoint.starts_with("tcp://") || colon == endpoint.npos) return std::nullopt;
  int64_t port = 0;
  const char *end = endpoint.data() + endpoint.size();
  const auto [stop, problem] = std::from_chars(endpoint.data() + colon + 1, end, port);
  return problem == std::errc() && stop == end ? std::optional(port) : std::nullopt;
}

/// ZeroMQ would take 65537 for 1, and -1 for 65535. Sets errno.
bool isPossible(std::optional<int64_t> port) {
  if (!port || (*port >= 0 && *port <= 65535)) return true;
  errno = EINVAL;
  return false;
}

/// The TCP ports of sockets that were closed here within the last second. Threads: any.
class RecentPorts {
 public:
  void add(int64_t port) {
    const auto now = Steady::now();
    const qelnk::Lock lock(mutex_);
    std::erase_if(until_, [&](const auto &entry) { return entry.second < now; });
    until_[port] = now + std::chrono::seconds(1);
  }
  /// Until when it may take ZeroMQ to give the port back.
  Steady::time_point waitUntil(int64_t port) const {
    const qelnk::Lock lock(mutex_);
    const auto found = until_.find(port);
    return found == until_.end() ? Steady::time_point() : found->second;
  }

 private:
  mutable qelnk::Mutex mutex_;
  std::map<int64_t, Steady::time_point> until_ QELNK_GUARDED_BY(mutex_);
};

RecentPorts &recentPorts() {
  static RecentPorts &immortal = *new RecentPorts;
  return immortal;
}

}  // namespace

std::string_view ZMQSocket::nameForSocketType(int32_t type) {
  static constexpr std::array<std::string_view, 9> names{"ZMQ_PAIR", "ZMQ_PUB",  "ZMQ_SUB",  "ZMQ_REQ", "ZMQ_REP",
                                                         "ZMQ_XREQ", "ZMQ_XREP", "ZMQ_PULL", "ZMQ_PUSH"};
  return type >= 0 && size_t(type) < names.size() ? names[size_t(type)] : "UNKNOWN";
}

ZMQSocket::ZMQSocket(ZMQContext *context, int32_t type)
    : context_(context), registry_(context->registry_), type_(type) {
  {
    const qelnk::Lock lock(context->registry_->mutex);
    socket_ = context->registry_->openSocket(context->context(), type);
  }
  if (!socket_) fail("zmq_socket");
}

ZMQSocket::~ZMQSocket() {
  try {
    close();
  } catch (const ZMQException &) {
    // Its log line is written.
  }
}

void ZMQSocket::close() {
  void *socket = socket_.load();
  if (!socket) return;
  boundLinger();
  if (boundPort_ != 0) recentPorts().add(boundPort_);
  qelnk::Lock lock(monitoring_);
  if (!socket_.compare_exchange_strong(socket, nullptr)) return;
  if (zmq_close(socket) != 0) {
    socket_ = socket;
    fail("zmq_close");
  }
  lock.unlock();
  const auto self = weak_from_this().lock();
  if (const auto registry = registry_.lock(); registry && self) {
    const qelnk::Lock lock(registry->mutex);
    registry->sockets.erase(self);
  }
}

// ZeroMQ's own default is to wait for ever.
void ZMQSocket::boundLinger() {
  const int limit = int(longestLinger.count());
  if (linger() < 0) zmq_setsockopt(socket(), ZMQ_LINGER, &limit, sizeof(limit));
}

int ZMQSocket::linger() const {
  int value = 0;
  size_t size = sizeof(value);
  return zmq_getsockopt(socket(), ZMQ_LINGER, &value, &size) == 0 ? value : 0;
}

bool ZMQSocket::setData(const Data &data, int32_t option) {
  if (zmq_setsockopt(socket(), option, data.data(), data.size()) != 0) fail("zmq_setsockopt");
  return true;
}

bool ZMQSocket::setInt(int value, int32_t option) {
  if (zmq_setsockopt(socket(), option, &value, sizeof(value)) != 0) fail("zmq_setsockopt");
  return true;
}

std::optional<Data> ZMQSocket::dataForOption(int32_t option) const {
  // An option of fixed size is given only into a buffer of exactly that size: an int, a 64-bit number, a key as bytes
  // and as text. The last is for texts that do not fit the first.
  for (const size_t capacity : {255, 4, 8, 32, 41, 4096}) {
    Data data = Data::uninitialized(capacity);
    size_t size = capacity;
    if (zmq_getsockopt(socket(), option, data.mutableData(), &size) == 0) {
      data.resize(size);
      return data;
    }
    if (zmq_errno() != EINVAL) break;
  }
  fail("zmq_getsockopt");
}

bool ZMQSocket::bindToEndpoint(const std::string &endpoint) {
  setEndpoint(endpoint);
  const auto port = portOf(endpoint);
  const auto patience = port ? recentPorts().waitUntil(*port) : Steady::time_point();
  std::chrono::milliseconds pause(1);
  while (!isPossible(port) || zmq_bind(socket(), endpoint.c_str()) != 0) {
    if (zmq_errno() != EADDRINUSE || Steady::now() >= patience) fail("zmq_bind");
    std::this_thread::sleep_for(pause);
    pause = std::min(2 * pause, std::chrono::milliseconds(50));  // a monitor sees each attempt
  }
  char text[256] = "";
  size_t size = sizeof(text);
  if (zmq_getsockopt(socket(), ZMQ_LAST_ENDPOINT, text, &size) == 0) boundPort_ = int32_t(portOf(text).value_or(0));
  return true;
}

bool ZMQSocket::connectToEndpoint(const std::string &endpoint) {
  setEndpoint(endpoint);
  if (!isPossible(portOf(endpoint)) || zmq_connect(socket(), endpoint.c_str()) != 0) fail("zmq_connect");
  return true;
}

bool ZMQSocket::sendData(const Data &data, int32_t flags) {
  Message message(data);
  if (!message.isOpen()) fail("zmq_msg_init_size");
  const bool sent = zmq_msg_send(message.get(), socket(), flags) >= 0;
  if (!sent) logError("zmq_sendmsg");
  if (!message.close()) logError("zmq_msg_close");
  return sent;
}

int ZMQSocket::receive(void *buffer, size_t length, int32_t flags) {
  const int size = zmq_recv(socket(), buffer, length, flags);
  if (size < 0) logError("zmq_recv");
  return size;
}

Data ZMQSocket::receiveData(int32_t flags) {
  Message message;
  if (!message.isOpen()) fail("zmq_msg_init");
  if (zmq_msg_recv(message.get(), socket(), flags) < 0) {
    const int error = zmq_errno();
    logError("zmq_recv");
    if (!message.close()) logError("zmq_msg_close");
    throw ZMQException(zmq_strerror(error), error);
  }
  Data data(std::span(static_cast<const uint8_t *>(zmq_msg_data(message.get())), zmq_msg_size(message.get())));
  if (!message.close()) logError("zmq_msg_close");
  return data;
}

bool ZMQSocket::subscribe(std::string_view prefix) {
  return zmq_setsockopt(socket(), ZMQ_SUBSCRIBE, prefix.data(), prefix.size()) == 0;
}

int ZMQSocket::monitor(const std::string &endpoint, uint32_t events) {
  const qelnk::Lock lock(monitoring_);
  const int result = zmq_socket_monitor(socket(), endpoint.c_str(), int(events));
  if (result == 0) monitorEndpoint_ = endpoint;
  return result;
}

void ZMQSocket::stopMonitor(const std::string &endpoint) {
  const qelnk::Lock lock(monitoring_);
  if (monitorEndpoint_ != endpoint) return;
  monitorEndpoint_.clear();
  if (socket()) zmq_socket_monitor(socket(), nullptr, 0);
}

void ZMQSocket::getPollItem(zmq_pollitem_t &item, int16_t events) const {
  item = {.socket = socket(), .fd = 0, .events = events, .revents = 0};
}

std::string ZMQSocket::endpoint() const {
  const qelnk::Lock lock(mutex_);
  return endpoint_;
}

void ZMQSocket::setEndpoint(std::string endpoint) {
  const qelnk::Lock lock(mutex_);
  endpoint_ = std::move(endpoint);
}

std::string ZMQSocket::description() const {
  const std::string endpoint = this->endpoint();
  return fmt::format("<ZMQSocket: {} (ctx={}, type={}, endpoint={}, closed={})>", fmt::ptr(this), fmt::ptr(context()),
                     nameForSocketType(type()), endpoint.empty() ? "(null)" : endpoint, isClosed() ? 1 : 0);
}

void ZMQSocket::logError(const char *function) const {
  const int error = zmq_errno();
  qelnk::logError("{}: *** {}: {}: {}", "ZMQLogError", description(), function, zmq_strerror(error));
  errno = error;  // for callers that are told of the failure by a result
}

void ZMQSocket::fail(const char *function) const {
  const int error = zmq_errno();
  logError(function);
  throw ZMQException(zmq_strerror(error), error);
}
