#include "netutil/WebSocketConnection.h"

#include <QELNetworkKit/Mutex.h>

#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/websocket/error.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <deque>
#include <optional>
#include <system_error>
#include <utility>

#include "netutil/LockedExecutor.h"
#include "netutil/WebSocketTransport.h"
#include "platform/Connector.h"
#include "platform/Guard.h"
#include "platform/LogFormat.h"
#include "platform/RunLoopThread.h"

namespace qelnk {

namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;
using Stream = websocket::stream<WebSocketTransport, false>;  // without compression of messages
using ReadyState = QELNKWebSocket::ReadyState;

/// What may wait for an observer.
constexpr size_t highestUnconsumed = size_t(4) << 20;
/// What a message weighs there beyond its text.
constexpr size_t messageOverhead = 128;
/// Messages are masked on their way out in pieces of so many bytes, which stay in the cache.
constexpr size_t writeBufferSize = size_t(256) << 10;
/// Binary messages are read and forgotten in pieces of so many bytes. Text grows by so many: a length that is announced
/// costs nothing until it arrives.
constexpr size_t droppedPiece = size_t(64) << 10, textPiece = size_t(1) << 20;
/// What stands for a closing without a code.
constexpr uint16_t noCode = 1005;
/// Clocks cannot count further than some centuries.
constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365);
/// The room for a long text is not kept beyond so many bytes.
constexpr size_t keptCapacity = size_t(4) << 20;

/// The io context of all connections, with a thread that serves it from the first reference to the last. Throws
/// std::system_error when there is no thread.
std::shared_ptr<asio::io_context> sharedContext() {
  struct Current {
    Mutex mutex;
    std::weak_ptr<asio::io_context> context QELNK_GUARDED_BY(mutex);
  };
  static auto &current = *new Current;
  struct Running {
    asio::io_context context{1};
    asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(context);
  };
  const Lock lock(current.mutex);
  if (auto context = current.context.lock()) return context;
  auto running = std::make_shared<Running>();
  startThread("qelnk-websocket", [running] {
    while (!runGuarded("The WebSockets' thread", [&] { running->context.run(); })) {
    }
  }).detach();
  // The thread ends by itself once nobody has anything to do for it: nobody waits for it.
  std::shared_ptr<asio::io_context> context(&running->context, [running = std::shared_ptr(running)](auto *) mutable {
    std::exchange(running, nullptr)->work.reset();  // the context goes with its thread, whoever keeps weak references
  });
  current.context = context;
  return context;
}

/// Counts the connections that were let go of and have not closed yet.
class Lingering {
 public:
  Lingering() {
    const Lock lock(all().mutex);
    ++all().count;
  }
  ~Lingering() {
    const Lock lock(all().mutex);
    if (--all().count == 0) all().noneLeft.notifyAll();
  }
  Lingering(const Lingering &) = delete;
  Lingering &operator=(const Lingering &) = delete;

  static bool awaitNone(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + std::min(limit, longest);
    Lock lock(all().mutex);
    while (all().count != 0 && all().noneLeft.waitUntil(lock, deadline)) {
    }
    return all().count == 0;
  }

 private:
  struct All {
    Mutex mutex;
    Condition noneLeft;
    size_t count QELNK_GUARDED_BY(mutex) = 0;
  };
  static All &all() {
    static auto &immortal = *new All;
    return immortal;
  }
};

// --- Encryption ---

std::shared_ptr<asio::ssl::context> makeTLSContext() {
  // What the library keeps may be in use while the process exits: nobody waits for the io thread then.
  OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr);
  auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
  // A peer that ends without a notice is known by the missing closing handshake.
  SSL_CTX_set_options(context->native_handle(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  return context;
}

/// Null for an unencrypted connection. Throws where the certificates cannot be read.
std::shared_ptr<asio::ssl::context> tlsContextFor(const WebSocketURL &url, const QELNKWebSocketOptions &options) {
  if (!url.isSecure) return nullptr;
  if (!options.checksCertificate) {
    static const auto &shared = *new std::shared_ptr<asio::ssl::context>(makeTLSContext());
    return shared;
  }
  auto context = makeTLSContext();
  context->set_verify_mode(asio::ssl::verify_peer);
  error_code error;
  if (options.certificateAuthorityFile.empty())
    context->set_default_verify_paths(error);
  else
    context->load_verify_file(options.certificateAuthorityFile, error);
  if (error)
    throw std::runtime_error(
        fmt::format("the certificates in {} cannot be read: {}",
                    options.certificateAuthorityFile.empty() ? "the system's store" : options.certificateAuthorityFile,
                    error.message()));
  return context;
}

bool isNumeric(const std::string &host) {
  error_code error;
  asio::ip::make_address(host, error);
  return !error;
}

/// Whom the other side has to be.
void setPeerName(SSL *tls, const std::string &host, bool isChecked) {
  bool isSet = true;
  if (!isNumeric(host)) {
    SSL_set_tlsext_host_name(tls, host.c_str());
    if (isChecked) isSet = SSL_set1_host(tls, host.c_str()) == 1;
  } else if (isChecked) {
    isSet = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(tls), host.substr(0, host.find('%')).c_str()) == 1;
  }
  if (!isSet) throw std::runtime_error("the certificate cannot be checked for " + host);
}

// --- The connection ---

/// So that a peer that is gone without a word is noticed in half a minute, whether something is to be sent or not.
void watchPeer(int socket) {
  const auto set = [&](int level, int option, int value) { setsockopt(socket, level, option, &value, sizeof value); };
  set(IPPROTO_TCP, TCP_NODELAY, 1);
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, 10);
  set(IPPROTO_TCP, TCP_KEEPINTVL, 5);
  set(IPPROTO_TCP, TCP_KEEPCNT, 4);
  set(IPPROTO_TCP, TCP_USER_TIMEOUT, 30'000);
}

bool isIPv6(int socket) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr *>(&address), &size);
  return address.ss_family == AF_INET6;
}

/// Threads: everything happens under the executor's lock, on the io thread or on one that sends.
class Connection final : public WebSocketConnection, public std::enable_shared_from_this<Connection> {
 public:
  Connection(WebSocketURL url, const QELNKWebSocketOptions &options, std::shared_ptr<WebSocketEvents> events)
      : tlsContext_(tlsContextFor(url, options)),
        context_(sharedContext()),
        executor_(*context_),
        url_(std::move(url)),
        checksCertificate_(options.checksCertificate),
        openTimeout_(options.openTimeout),
        closeTimeout_(options.closeTimeout),
        maximumMessageSize_(options.maximumMessageSize),
        maximumBufferedAmount_(options.maximumBufferedAmount),
        deadline_(*context_),
        events_(std::move(events)) {}

  void open() override {
    post([](Connection &self) { self.lookUp(); });
  }
  bool send(Payload payload, Error &error) override;
  void consumed(size_t bytes) override;
  void letGo() override;
  ReadyState readyState() const override { return state_; }
  size_t bufferedAmount() const override { return buffered_; }

 private:
  /// Has a step done on the io thread. Needs no lock.
  void post(std::function<void(Connection &)> step) {
    asio::post(executor_, [self = shared_from_this(), step = std::move(step)] { self->attempt([&] { step(*self); }); });
  }
  /// Tells something, on the io thread in order, without the lock: who is told may have locks of its own.
  template <class Call>
  void tell(Call call) {
    if (events_) executor_.afterwards([events = events_, own = std::move(call)]() mutable { own(*events); });
  }
  /// The handler of an operation, which is called under the lock, as are those between.
  template <class... Arguments>
  auto then(void (Connection::*step)(Arguments...)) {
    return asio::bind_executor(executor_, [self = shared_from_this(), step](auto... arguments) {
      self->attempt([&] { (*self.*step)(arguments...); });
    });
  }
  /// A step that cannot be done ends the connection: nothing would go on.
  template <class Step>
  void attempt(const Step &step) {
    try {
      step();
    } catch (const std::exception &problem) {
      fail(problem.what());
    }
  }

  // Opening.
  void lookUp();
  void connected(int socket, std::error_code error);
  void encrypt();
  void encrypted(error_code error);
  void shakeHands();
  void handshakeDone(error_code error);
  std::optional<std::string> refusal() const;

  // Open.
  bool queue(Payload &&payload, Error &error);
  void read();
  void readDone(error_code error, size_t);
  void messageDone();
  void controlFrameCame(websocket::frame_type kind);
  void writeNext();
  void written(error_code error, size_t);

  // The end.
  void release(std::shared_ptr<Lingering> lingering);
  void closeWhenSent();
  void readEnded(const error_code &error);
  void closed(error_code) { finish(); }
  void fail(const std::string &why);
  void finish();
  void setDeadline(std::chrono::milliseconds limit);
  void deadlinePassed();
  std::string reasonOf(const error_code &error) const;
  bool isOver() const { return state_ == ReadyState::closed; }

  const std::shared_ptr<asio::ssl::context> tlsContext_;
  const std::shared_ptr<asio::io_context> context_;  // goes after all that uses it
  const LockedExecutor executor_;
  const WebSocketURL url_;
  const bool checksCertificate_;
  const std::chrono::milliseconds openTimeout_, closeTimeout_;
  const size_t maximumMessageSize_, maximumBufferedAmount_;

  std::atomic<ReadyState> state_ = ReadyState::connecting;
  asio::steady_timer deadline_;
  uint64_t deadlineNumber_ = 0;
  std::shared_ptr<WebSocketEvents> events_;  // none once let go of
  std::shared_ptr<Lingering> lingering_;     // once let go of
  std::shared_ptr<Connector> connector_;
  std::unique_ptr<Stream> stream_;
  websocket::response_type response_;
  beast::flat_buffer message_;
  bool peerCloses_ = false;
  bool closeBegun_ = false;
  uint64_t writesSeen_ = 0;

  std::atomic<size_t> unconsumed_ = 0;  // bytes told to the observer and not dealt with
  std::atomic<bool> isPaused_ = false;  // nothing is being read, for there is too much of that

  std::deque<Payload> queued_;  // the first one is being written
  bool isWriting_ = false;
  std::atomic<size_t> buffered_ = 0;
};

size_t sizeOf(const WebSocketConnection::Payload &payload) {
  return std::visit([](const auto &bytes) { return bytes.size(); }, payload);
}

// --- Opening ---

void Connection::lookUp() {
  if (isOver()) return;
  setDeadline(openTimeout_);
  try {
    connector_ = Connector::start(url_.host, url_.port, serviceLoop(),
                                  [self = shared_from_this()](int socket, std::error_code error) {
                                    self->post([socket, error](Connection &it) { it.connected(socket, error); });
                                  });
  } catch (const std::exception &problem) {  // no thread left
    fail(problem.what());
  }
}

void Connection::connected(int socket, std::error_code error) {
  connector_ = nullptr;
  if (isOver()) {
    if (socket >= 0) close(socket);
    return;
  }
  if (error) {
    const bool isUnknown = error.category() == addressInfoCategory();
    return fail(isUnknown ? fmt::format("the host {} is not known: {}", url_.host, error.message()) : error.message());
  }
  watchPeer(socket);
  WebSocketTransport::Socket own(*context_);
  error_code problem;
  own.assign(isIPv6(socket) ? asio::ip::tcp::v6() : asio::ip::tcp::v4(), socket, problem);
  if (problem) {
    close(socket);
    return fail(problem.message());
  }
  stream_ = std::make_unique<Stream>(std::move(own), tlsContext_.get());
  tlsContext_ ? encrypt() : shakeHands();
}

void Connection::encrypt() {
  auto &tls = *stream_->next_layer().tls();
  setPeerName(tls.native_handle(), url_.host, checksCertificate_);
  tls.async_handshake(asio::ssl::stream_base::client, then(&Connection::encrypted));
}

void Connection::encrypted(error_code error) {
  if (isOver()) return;
  if (!error) return shakeHands();
  const long verdict = SSL_get_verify_result(stream_->next_layer().tls()->native_handle());
  const bool isRefused = checksCertificate_ && verdict != X509_V_OK;
  fail(isRefused ? fmt::format("the certificate is not accepted: {}", X509_verify_cert_error_string(verdict))
                 : "encryption: " + reasonOf(error));
}

void Connection::shakeHands() {
  stream_->auto_fragment(false);
  stream_->write_buffer_bytes(writeBufferSize);
  stream_->read_message_max(maximumMessageSize_);
  stream_->control_callback([this](websocket::frame_type kind, beast::string_view) { controlFrameCame(kind); });
  stream_->next_layer().setAnswerAwaited(true);
  stream_->async_handshake(response_, url_.authority, url_.target, then(&Connection::handshakeDone));
}

void Connection::handshakeDone(error_code error) {
  if (isOver()) return;
  stream_->next_layer().setAnswerAwaited(false);
  if (error == websocket::error::upgrade_declined) {
    std::string why = fmt::format("the server answered HTTP {}", response_.result_int());
    if (!response_.reason().empty())
      why += fmt::format(" {}", std::string_view(response_.reason().data(), response_.reason().size()));
    if (const auto place = response_.find(http::field::location); place != response_.end())
      why += fmt::format(", which points to {}", std::string_view(place->value().data(), place->value().size()));
    return fail(why);
  }
  if (error) return fail(refusal().value_or(reasonOf(error)));
  response_ = {};
  setDeadline({});
  state_ = ReadyState::open;
  tell([](WebSocketEvents &events) { events.opened(); });
  read();
}

/// What a server answered whose answer has not come whole; none where that is no refusal.
std::optional<std::string> Connection::refusal() const {
  const std::string &answer = stream_->next_layer().answer();
  const std::string line = answer.substr(0, answer.find_first_of("\r\n"));
  const size_t code = line.find(' ');
  if (!line.starts_with("HTTP/") || code == std::string::npos) return std::nullopt;
  const std::string digits = line.substr(code + 1, 3);
  if (digits.size() < 3 || digits == "101") return std::nullopt;
  return "the server answered HTTP" + printable(line.substr(code));
}

// --- Receiving ---

void Connection::read() {
  const bool isDropped = !stream_->is_message_done() && stream_->got_binary();
  stream_->async_read_some(message_, isDropped ? droppedPiece : textPiece, then(&Connection::readDone));
}

void Connection::readDone(error_code error, size_t) {
  if (isOver()) return;
  if (error) return readEnded(error);
  if (stream_->got_binary() || !events_) message_.clear();
  if (stream_->is_message_done()) messageDone();
  if (!isPaused_) read();
}

void Connection::messageDone() {
  if (!events_) return;
  if (stream_->got_binary()) return tell([](WebSocketEvents &) { logDefault("webSocket:didReceiveMessageWithData"); });
  const auto bytes = message_.cdata();
  std::string text(static_cast<const char *>(bytes.data()), bytes.size());
  message_.clear();
  if (message_.capacity() > keptCapacity) message_.shrink_to_fit();
  const size_t weight = text.size() + messageOverhead;
  const size_t before = unconsumed_.fetch_add(weight);
  tell([own = std::move(text)](WebSocketEvents &events) mutable { events.received(std::move(own)); });
  if (before + weight <= highestUnconsumed) return;
  isPaused_ = true;
  // The observer may have done with all of it just before that.
  if (unconsumed_ <= highestUnconsumed / 2) isPaused_ = false;
}

void Connection::consumed(size_t bytes) {
  const size_t weight = bytes + messageOverhead;
  const size_t left = unconsumed_.fetch_sub(weight) - weight;
  if (left > highestUnconsumed / 2 || !isPaused_) return;
  post([](Connection &self) {
    if (!self.isOver() && self.isPaused_.exchange(false)) self.read();
  });
}

void Connection::controlFrameCame(websocket::frame_type kind) {
  if (isOver()) return;
  switch (kind) {
    case websocket::frame_type::ping:
      tell([](WebSocketEvents &) { logDefault("webSocket:didReceivePingWithData"); });
      break;
    case websocket::frame_type::pong:
      tell([](WebSocketEvents &) { logDefault("webSocket:didReceivePong"); });
      break;
    case websocket::frame_type::close:  // is being answered
      peerCloses_ = true;
      state_ = ReadyState::closing;
      stream_->next_layer().setClosing();
      setDeadline(closeTimeout_);
      break;
  }
}

// --- Sending ---

bool Connection::send(Payload payload, Error &error) {
  return executor_.locked([&] { return queue(std::move(payload), error); });
}

bool Connection::queue(Payload &&payload, Error &error) {
  const size_t size = sizeOf(payload);
  if (state_ != ReadyState::open) return true;
  if (buffered_ > 0 && buffered_ + size > maximumBufferedAmount_) {
    error = {
        "QELNKWebSocket",
        ENOBUFS,
        fmt::format("{} bytes wait to be sent already, and {} are the most", buffered_.load(), maximumBufferedAmount_),
        {}};
    return false;
  }
  buffered_ += size;
  queued_.push_back(std::move(payload));
  if (!isWriting_) writeNext();
  return true;
}

void Connection::writeNext() {
  isWriting_ = !queued_.empty() && !peerCloses_;
  if (!isWriting_) return closeWhenSent();
  const Payload &payload = queued_.front();
  stream_->text(std::holds_alternative<std::string>(payload));
  const auto bytes = std::visit([](const auto &it) { return asio::buffer(it.data(), it.size()); }, payload);
  stream_->next_layer().beginMessage(bytes.size());
  stream_->async_write(bytes, then(&Connection::written));
}

void Connection::written(error_code error, size_t) {
  if (isOver()) return queued_.clear();
  if (error && peerCloses_) {  // it takes no more, which is told once it has closed
    isWriting_ = false;
    return;
  }
  if (error) return fail(reasonOf(error));
  buffered_ -= sizeOf(queued_.front());
  queued_.pop_front();
  writeNext();
}

// --- The end ---

void Connection::letGo() {
  post([lingering = std::make_shared<Lingering>()](Connection &self) { self.release(lingering); });
}

void Connection::release(std::shared_ptr<Lingering> lingering) {
  if (isOver()) return;
  lingering_ = std::move(lingering);
  events_ = nullptr;
  if (state_ == ReadyState::connecting) return finish();
  state_ = ReadyState::closing;
  if (isPaused_.exchange(false)) read();
  if (peerCloses_) return;
  setDeadline(closeTimeout_);
  closeWhenSent();
}

/// Begins the closing handshake where the connection was let go of and nothing is left to send.
void Connection::closeWhenSent() {
  if (!lingering_ || isWriting_ || peerCloses_ || closeBegun_) return;
  closeBegun_ = true;
  setDeadline(closeTimeout_);
  stream_->next_layer().setClosing();
  stream_->async_close(websocket::close_code::normal, then(&Connection::closed));
}

void Connection::readEnded(const error_code &error) {
  if (closeBegun_ && error == asio::error::operation_aborted) return;  // the closing goes on
  if (!peerCloses_) return fail(reasonOf(error));
  const auto reason = stream_->reason();
  const uint16_t code = reason.code == websocket::close_code::none ? noCode : reason.code;
  tell([code, text = std::string(reason.reason.data(), reason.reason.size())](WebSocketEvents &events) {
    events.closed(code, text);
  });
  finish();
}

void Connection::fail(const std::string &why) {
  if (isOver()) return;
  if (const size_t unsent = buffered_; !events_ && unsent > 0)
    logError("QELNKWebSocket {} has not sent its last {} bytes: {}", url_.description(), unsent, why);
  else if (!events_)
    logDefault("QELNKWebSocket {} has not closed in good order: {}", url_.description(), why);
  tell([why](WebSocketEvents &events) { events.failed(why); });
  finish();
}

/// Nothing happens any more.
void Connection::finish() {
  if (isOver()) return;
  state_ = ReadyState::closed;
  buffered_ = 0;
  if (!isWriting_) queued_.clear();
  ++deadlineNumber_;
  deadline_.cancel();
  if (const auto connector = std::exchange(connector_, nullptr)) connector->cancel();
  if (stream_) beast_close_socket(stream_->next_layer());
  events_ = nullptr;
  lingering_ = nullptr;
}

/// None for zero.
void Connection::setDeadline(std::chrono::milliseconds limit) {
  const uint64_t number = ++deadlineNumber_;
  deadline_.cancel();
  if (limit.count() == 0) return;
  deadline_.expires_after(std::min(limit, longest));
  deadline_.async_wait(asio::bind_executor(executor_, [self = shared_from_this(), number](error_code) {
    if (number == self->deadlineNumber_) self->deadlinePassed();
  }));
}

void Connection::deadlinePassed() {
  if (state_ == ReadyState::connecting) {
    const auto answer = stream_ ? refusal() : std::nullopt;
    return fail(answer.value_or(fmt::format("it was not open within {} ms", openTimeout_.count())));
  }
  if (peerCloses_) return readEnded(asio::error::timed_out);  // it has said that it closes, and does not
  if (!closeBegun_ && std::exchange(writesSeen_, stream_->next_layer().writes()) != stream_->next_layer().writes())
    return setDeadline(closeTimeout_);
  fail(fmt::format("the other side has taken in nothing for {} ms", closeTimeout_.count()));
}

std::string Connection::reasonOf(const error_code &error) const {
  if (error == asio::error::eof || error == asio::ssl::error::stream_truncated || error == http::error::end_of_stream ||
      error == http::error::partial_message)
    return "the other side has ended the connection without closing it";
  if (error == websocket::error::message_too_big)
    return fmt::format("a message is longer than the {} bytes allowed", maximumMessageSize_);
  if (error.category() == make_error_code(websocket::error::closed).category()) {
    return (state_ == ReadyState::connecting ? "the answer is none of a WebSocket: "
                                             : "the other side breaks the protocol: ") +
           error.message();
  }
  if (error.category() == make_error_code(http::error::bad_version).category())
    return "the answer is none of a WebSocket: " + error.message();
  return error.message();
}

}  // namespace

std::shared_ptr<WebSocketConnection> WebSocketConnection::make(const WebSocketURL &url,
                                                               const QELNKWebSocketOptions &options,
                                                               std::shared_ptr<WebSocketEvents> events) {
  return std::make_shared<Connection>(url, options, std::move(events));
}

bool WebSocketConnection::waitUntilClosed(std::chrono::milliseconds limit) { return Lingering::awaitNone(limit); }

}  // namespace qelnk
