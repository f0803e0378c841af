#include "WebServer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <cstdio>
#include <deque>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

namespace sim {

namespace {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;
using tcp = asio::ip::tcp;
using Text = std::shared_ptr<const std::string>;

/// What may wait for a client.
constexpr size_t longestQueue = 10'000;
constexpr size_t largestQueue = size_t(16) << 20;
constexpr size_t largestRequest = size_t(1) << 20;
constexpr std::chrono::seconds handshakeTime(10);
constexpr std::chrono::milliseconds acceptPause(100);

class Client : public std::enable_shared_from_this<Client> {
 public:
  Client(tcp::socket socket, std::set<std::shared_ptr<Client>> &all) : stream_(std::move(socket)), all_(all) {
    websocket::stream_base::timeout limits{handshakeTime, websocket::stream_base::none(), false};
    stream_.set_option(limits);
    stream_.read_message_max(largestRequest);
  }
  void begin() {
    stream_.async_accept([self = shared_from_this()](error_code error) {
      if (error) return self->end();
      self->isOpen_ = true;
      self->read();
    });
  }
  void send(const Text &text) {
    if (!isOpen_) return;
    if (queue_.size() >= longestQueue || queued_ + text->size() > largestQueue) {
      std::fprintf(stderr, "orlin-sim: a WebSocket client is too slow and is let go\n");
      return end();
    }
    queued_ += text->size();
    queue_.push_back(text);
    if (queue_.size() == 1) write();
  }
  void end() {
    isOpen_ = false;
    error_code ignored;
    stream_.next_layer().close(ignored);
    all_.erase(shared_from_this());
  }

 private:
  void read() {
    stream_.async_read(received_, [self = shared_from_this()](error_code error, size_t) {
      if (error) return self->end();
      self->received_.clear();
      self->read();
    });
  }
  void write() {
    stream_.async_write(asio::buffer(*queue_.front()), [self = shared_from_this()](error_code error, size_t) {
      if (error || !self->isOpen_) return self->end();
      self->queued_ -= self->queue_.front()->size();
      self->queue_.pop_front();
      if (!self->queue_.empty()) self->write();
    });
  }

  websocket::stream<tcp::socket> stream_;
  std::set<std::shared_ptr<Client>> &all_;
  boost::beast::flat_buffer received_;
  std::deque<Text> queue_;  // the first one is being written
  size_t queued_ = 0;
  bool isOpen_ = false;
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
  }
  int port() const { return acceptor_.local_endpoint().port(); }
  void publish(std::string text) {
    asio::post(context_, [this, shared = std::make_shared<const std::string>(std::move(text))] {
      const auto clients = clients_;  // one that is let go is taken out meanwhile
      for (const auto &client : clients) client->send(shared);
    });
  }

 private:
  void accept() {
    acceptor_.async_accept([this](error_code error, tcp::socket socket) {
      if (error) {  // no descriptor left, for now
        pause_.expires_after(acceptPause);
        return pause_.async_wait([this](error_code) { accept(); });
      }
      socket.set_option(tcp::no_delay(true), error);
      const auto client = std::make_shared<Client>(std::move(socket), clients_);
      clients_.insert(client);
      client->begin();
      accept();
    });
  }

  asio::io_context context_{1};  // goes last, with what their pending operations hold
  std::set<std::shared_ptr<Client>> clients_;
  tcp::acceptor acceptor_;
  asio::steady_timer pause_;
  std::thread thread_;
};

WebServer::WebServer(int port) : state_(std::make_unique<State>(port)) {}
WebServer::~WebServer() = default;
int WebServer::port() const { return state_->port(); }
void WebServer::publish(std::string text) { state_->publish(std::move(text)); }

}  // namespace sim
