#include "WebServer.h"

#include <QELNetworkKit/Mutex.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <cstdio>
#include <deque>
#include <map>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Page.h"

namespace sim {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using boost::system::error_code;
using tcp = asio::ip::tcp;
using Text = std::shared_ptr<const std::string>;

/// What may wait for a client behind the text that is being sent, unless it is a single text.
constexpr size_t longestQueue = 10'000;
constexpr size_t largestQueue = size_t(16) << 20;
constexpr size_t largestRequest = size_t(1) << 20;
constexpr uint32_t largestHeader = 16'384;
constexpr std::chrono::seconds handshakeTime(10);
constexpr std::chrono::milliseconds acceptPause(100);
/// What the last answers may take once the server ends.
constexpr std::chrono::milliseconds farewellTime(500);

/// Whether a browser tells that the page of another site asks; programs tell nothing. A name that is not this machine's
/// own counts as another site, although page and server have it in common: anybody can have a name point here.
bool isForeign(const http::request<http::empty_body> &request) {
  if (request.count(http::field::origin) == 0) return false;
  const std::string host(request[http::field::host]);
  if (request[http::field::origin] != "http://" + host) return true;
  const std::string name = host.substr(0, host.starts_with('[') ? host.find(']') + 1 : host.find(':'));
  return name != "localhost" && name != "127.0.0.1" && name != "[::1]";
}

/// What lets the page's own script and style run, and nothing that got into it.
std::string newNonce() {
  std::random_device random;
  std::string nonce;
  char digits[9];
  for (int word = 0; word < 4; ++word) {
    std::snprintf(digits, sizeof digits, "%08x", random());
    nonce += digits;
  }
  return nonce;
}

std::string pageWith(const std::string &nonce) {
  constexpr std::string_view mark = "{{nonce}}";
  std::string text(page);
  for (size_t place = 0; (place = text.find(mark, place)) != std::string::npos;)
    text.replace(place, mark.size(), nonce);
  return text;
}

using Response = http::response<http::string_body>;

Response pageResponse() {
  const std::string nonce = newNonce();
  Response response(http::status::ok, 11, pageWith(nonce));
  response.set(http::field::content_type, "text/html; charset=utf-8");
  response.set("Content-Security-Policy", "default-src 'none'; script-src 'nonce-" + nonce + "'; style-src 'nonce-" +
                                              nonce +
                                              "'; img-src data:; base-uri 'none'; "
                                              // not every browser counts a WebSocket among what is its own
                                              "connect-src 'self' ws://localhost:* ws://127.0.0.1:*; "
                                              "form-action 'none'; frame-ancestors 'none'");
  return response;
}

Response plainResponse(http::status status) {
  Response response(status, 11, std::string(http::obsolete_reason(status)) + "\n");
  response.set(http::field::content_type, "text/plain; charset=utf-8");
  if (status == http::status::method_not_allowed) response.set(http::field::allow, "GET, HEAD");
  return response;
}

Response responseTo(const http::request<http::empty_body> &request) {
  if (request.version() == 11 && request.count(http::field::host) != 1) return plainResponse(http::status::bad_request);
  const std::string target(request.target());
  if (target.substr(0, target.find('?')) != "/") return plainResponse(http::status::not_found);
  if (request.method() != http::verb::get && request.method() != http::verb::head)
    return plainResponse(http::status::method_not_allowed);
  return pageResponse();
}

/// Whether what came is at fault, rather than the connection.
bool isMalformed(error_code error) {
  return error.category() == http::make_error_code(http::error::bad_method).category() &&
         error != http::error::end_of_stream && error != http::error::partial_message;
}

http::status statusOf(error_code error) {
  if (error == http::error::header_limit) return http::status::request_header_fields_too_large;
  if (error == http::error::body_limit) return http::status::payload_too_large;
  return http::status::bad_request;
}

/// The requests that wait for the daemon's thread.
class Inbox {
 public:
  Inbox() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (event_ < 0) throw std::runtime_error("no descriptor left");
  }
  ~Inbox() { close(event_); }
  Inbox(const Inbox &) = delete;
  Inbox &operator=(const Inbox &) = delete;

  int descriptor() const { return event_; }
  void add(WebServer::Request request) {
    const qelnk::Lock lock(mutex_);
    waiting_.push_back(std::move(request));
    eventfd_write(event_, 1);
  }
  std::optional<WebServer::Request> take() {
    const qelnk::Lock lock(mutex_);
    if (waiting_.empty()) {
      eventfd_t ignored;
      eventfd_read(event_, &ignored);
      return std::nullopt;
    }
    std::optional<WebServer::Request> request(std::move(waiting_.front()));
    waiting_.pop_front();
    return request;
  }

 private:
  const int event_;
  qelnk::Mutex mutex_;
  std::deque<WebServer::Request> waiting_ QELNK_GUARDED_BY(mutex_);
};

class Client;
using Clients = std::map<WebServer::ClientID, std::shared_ptr<Client>>;

/// A connection: one HTTP request, which is answered, or from which on it is a WebSocket.
class Client : public std::enable_shared_from_this<Client> {
 public:
  Client(tcp::socket socket, WebServer::ClientID id, Clients &all, Inbox &inbox)
      : stream_(std::move(socket)), id_(id), all_(all), inbox_(inbox) {
    websocket::stream_base::timeout limits{handshakeTime, websocket::stream_base::none(), false};
    stream_.set_option(limits);
    stream_.read_message_max(largestRequest);
    parser_.header_limit(largestHeader);
  }
  void begin() {
    stream_.next_layer().expires_after(handshakeTime);
    http::async_read_header(stream_.next_layer(), received_, parser_,
                            [self = shared_from_this()](error_code error, size_t) { self->serve(error); });
  }
  /// Takes the next request.
  void read() {
    stream_.async_read(received_, [self = shared_from_this()](error_code error, size_t) {
      if (error) return self->end();
      std::string text = beast::buffers_to_string(self->received_.data());
      self->received_.clear();
      if (!self->stream_.got_text()) return self->read();
      self->inbox_.add({self->id_, std::move(text), self->isForeign_});
    });
  }
  void send(const Text &text) {
    if (!isOpen_ || isEnding_) return;
    if (queue_.size() >= longestQueue || (queued_ > 0 && queued_ + text->size() > largestQueue)) {
      std::fprintf(stderr, "orlin-sim: a WebSocket client is too slow and is let go\n");
      return end();
    }
    queued_ += text->size();
    queue_.push_back(text);
    if (isAccepted_ && !sending_) write();
  }
  /// Ends once what waits has been sent.
  void finish() {
    if (!isAccepted_) return end();
    isEnding_ = true;
    if (!sending_) close();
  }
  void watch() { watches_ = true; }
  bool watches() const { return watches_; }
  bool isOpen() const { return isOpen_; }
  void end() {
    isOpen_ = false;
    stream_.next_layer().close();
    all_.erase(id_);
  }

 private:
  void serve(error_code error) {
    const auto &request = parser_.get();
    if (!error && websocket::is_upgrade(request) && received_.size() == 0) return accept();
    if (error && !isMalformed(error)) return end();
    response_ = error ? plainResponse(statusOf(error)) : responseTo(request);
    response_.set(http::field::cache_control, "no-store");
    response_.set("X-Content-Type-Options", "nosniff");
    response_.set("Referrer-Policy", "no-referrer");
    response_.keep_alive(false);
    response_.prepare_payload();
    if (request.method() == http::verb::head) response_.body().clear();  // its length stays
    stream_.next_layer().expires_after(handshakeTime);
    http::async_write(stream_.next_layer(), response_, [self = shared_from_this()](error_code problem, size_t) {
      if (problem) return self->end();
      self->stream_.next_layer().socket().shutdown(tcp::socket::shutdown_send, problem);
      self->received_.clear();
      self->drain();
    });
  }
  /// Passes over what still comes: a connection that is closed before it was read takes the answer with it.
  void drain() {
    stream_.next_layer().async_read_some(
        received_.prepare(4096),
        [self = shared_from_this()](error_code error, size_t) { error ? self->end() : self->drain(); });
  }
  void accept() {
    isForeign_ = isForeign(parser_.get());
    stream_.next_layer().expires_never();  // the WebSocket has its own limits
    isOpen_ = true;                        // the client may see that before this side does, and counts on what follows
    stream_.async_accept(parser_.get(), [self = shared_from_this()](error_code error) {
      if (error || !self->isOpen_) return self->end();
      self->isAccepted_ = true;
      if (!self->queue_.empty()) self->write();
      self->read();
    });
  }
  void write() {
    sending_ = std::move(queue_.front());
    queue_.pop_front();
    queued_ -= sending_->size();
    stream_.async_write(asio::buffer(*sending_), [self = shared_from_this()](error_code error, size_t) {
      if (error || !self->isOpen_) return self->end();
      self->sending_.reset();
      if (!self->queue_.empty())
        self->write();
      else if (self->isEnding_)
        self->close();
    });
  }
  void close() {
    stream_.async_close(websocket::close_code::going_away, [self = shared_from_this()](error_code) { self->end(); });
  }

  websocket::stream<beast::tcp_stream> stream_;
  const WebServer::ClientID id_;
  Clients &all_;
  Inbox &inbox_;
  http::request_parser<http::empty_body> parser_;
  Response response_;
  beast::flat_buffer received_;
  Text sending_;
  std::deque<Text> queue_;  // behind it
  size_t queued_ = 0;       // the bytes of the queue
  bool isOpen_ = false;
  bool isAccepted_ = false;
  bool isForeign_ = false;
  bool isEnding_ = false;
  bool watches_ = false;
};

}  // namespace

class WebServer::State {
 public:
  explicit State(int port) : acceptor_(context_), pause_(context_) {
    const tcp::endpoint place(asio::ip::address_v4::loopback(), uint16_t(port));
    error_code error;
    acceptor_.open(place.protocol(), error);
    if (!error) acceptor_.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error) acceptor_.bind(place, error);
    if (!error) acceptor_.listen(tcp::acceptor::max_listen_connections, error);
    if (error)
      throw std::runtime_error("cannot serve WebSocket clients on port " + std::to_string(port) + ": " +
                               error.message());
    accept();
    thread_ = std::thread([this] { context_.run(); });
  }
  ~State() {
    context_.stop();
    thread_.join();
    context_.restart();
    acceptor_.close();
    pause_.cancel();
    asio::post(context_, [this] {  // behind the answers that are still to be sent
      for (const auto &[id, client] : Clients(clients_)) client->finish();
    });
    context_.run_for(farewellTime);
  }
  int port() const { return acceptor_.local_endpoint().port(); }
  Inbox &inbox() { return inbox_; }
  /// Has `action` done on the server's thread with a client that is still there.
  template <class Action>
  void with(ClientID id, Action action) {
    asio::post(context_, [this, id, action = std::move(action)] {
      const auto found = clients_.find(id);
      if (found == clients_.end()) return;
      const auto client = found->second;
      if (client->isOpen()) action(*client);
    });
  }
  void publish(std::string text, Audience audience) {
    asio::post(context_, [this, audience, shared = std::make_shared<const std::string>(std::move(text))] {
      const auto clients = clients_;  // one that is let go is taken out meanwhile
      for (const auto &[id, client] : clients)
        if (audience == Audience::everyone || client->watches()) client->send(shared);
    });
  }

 private:
  void accept() {
    acceptor_.async_accept([this](error_code error, tcp::socket socket) {
      if (!acceptor_.is_open()) return;
      if (error) {  // no descriptor left, for now
        pause_.expires_after(acceptPause);
        return pause_.async_wait([this](error_code) {
          if (acceptor_.is_open()) accept();
        });
      }
      socket.set_option(tcp::no_delay(true), error);
      const auto client = std::make_shared<Client>(std::move(socket), nextID_, clients_, inbox_);
      clients_.emplace(nextID_++, client);
      client->begin();
      accept();
    });
  }

  Inbox inbox_;
  asio::io_context context_{1};  // goes last but one, with what their pending operations hold
  Clients clients_;
  ClientID nextID_ = 0;
  tcp::acceptor acceptor_;
  asio::steady_timer pause_;
  std::thread thread_;
};

WebServer::WebServer(int port) : state_(std::make_unique<State>(port)) {}
WebServer::~WebServer() = default;
int WebServer::port() const { return state_->port(); }
int WebServer::descriptor() const { return state_->inbox().descriptor(); }

std::optional<WebServer::Request> WebServer::receive() {
  auto request = state_->inbox().take();
  if (request) state_->with(request->from, [](Client &client) { client.read(); });
  return request;
}

void WebServer::send(ClientID to, std::string text) {
  state_->with(to, [shared = std::make_shared<const std::string>(std::move(text))](Client &c) { c.send(shared); });
}

void WebServer::watch(ClientID client) {
  state_->with(client, [](Client &watcher) { watcher.watch(); });
}

void WebServer::publish(std::string text, Audience audience) { state_->publish(std::move(text), audience); }

}  // namespace sim
