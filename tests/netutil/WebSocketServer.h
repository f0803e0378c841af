#pragma once

#include <unistd.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace qelnk::test {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;
using tcp = asio::ip::tcp;

/// A server on the loopback interface, each connection of which is served by a script on a thread of its own. What the
/// other side's end throws ends the script.
class WebSocketServer {
 public:
  using RawScript = std::function<void(tcp::socket &)>;
  using Stream = websocket::stream<tcp::socket &>;
  using Script = std::function<void(Stream &)>;
  using TLSStream = websocket::stream<boost::beast::ssl_stream<tcp::socket &>>;

  /// One whose script sees what comes before the handshake.
  static RawScript raw(RawScript script) { return script; }
  /// One that has shaken hands.
  static RawScript shaken(Script script) {
    return [script](tcp::socket &socket) {
      Stream stream(socket);
      stream.read_message_max(0);
      stream.accept();
      script(stream);
    };
  }
  /// One that sends back what comes, encrypted.
  static RawScript encryptedEcho(asio::ssl::context &context) {
    return [&context](tcp::socket &socket) {
      TLSStream stream(socket, context);
      stream.next_layer().handshake(asio::ssl::stream_base::server);
      stream.accept();
      echo(stream);
    };
  }
  template <class AnyStream>
  static void echo(AnyStream &stream) {
    for (boost::beast::flat_buffer message;; message.clear()) {
      stream.read(message);
      stream.text(stream.got_text());
      stream.write(message.data());
    }
  }

  explicit WebSocketServer(RawScript script) : script_(std::move(script)) {
    acceptor_.listen();
    thread_ = std::thread([this] { accept(); });
  }
  ~WebSocketServer() {
    {
      const std::lock_guard lock(mutex_);
      isEnding_ = true;
      for (const int socket : sockets_) ::shutdown(socket, SHUT_RDWR);
    }
    ::shutdown(acceptor_.native_handle(), SHUT_RDWR);
    thread_.join();
    for (std::thread &served : served_) served.join();
  }
  WebSocketServer(const WebSocketServer &) = delete;
  WebSocketServer &operator=(const WebSocketServer &) = delete;

  uint16_t port() const { return acceptor_.local_endpoint().port(); }
  std::string url(const std::string &scheme = "ws", const std::string &host = "127.0.0.1") const {
    return scheme + "://" + host + ":" + std::to_string(port()) + "/path?query=1";
  }

  static std::string receive(Stream &stream) {
    boost::beast::flat_buffer message;
    stream.read(message);
    return boost::beast::buffers_to_string(message.data());
  }
  static void send(Stream &stream, std::string_view text) {
    stream.text(true);
    stream.write(asio::buffer(text.data(), text.size()));
  }
  /// Bytes below the WebSocket: frames by hand.
  static void sendBytes(Stream &stream, std::string_view bytes) {
    asio::write(stream.next_layer(), asio::buffer(bytes.data(), bytes.size()));
  }
  /// Reads on until the other side has ended.
  static void drain(tcp::socket &socket) {
    std::array<char, 4096> bytes;
    while (socket.read_some(asio::buffer(bytes)) > 0) {
    }
  }
  /// Has the connection end with a reset.
  static void reset(tcp::socket &socket) { socket.set_option(tcp::socket::linger(true, 0)); }

 private:
  void accept() {
    for (;;) {
      boost::system::error_code error;
      tcp::socket socket = acceptor_.accept(error);
      const std::lock_guard lock(mutex_);
      if (isEnding_ || error) return;
      served_.emplace_back([this, own = std::move(socket)]() mutable { serve(own); });
    }
  }
  void serve(tcp::socket &socket) {
    const int another = dup(socket.native_handle());  // the script may close its own
    {
      const std::lock_guard lock(mutex_);
      sockets_.push_back(another);
      if (isEnding_) ::shutdown(another, SHUT_RDWR);
    }
    try {
      script_(socket);
    } catch (const std::exception &) {
    }
    boost::system::error_code ignored;
    socket.close(ignored);
    const std::lock_guard lock(mutex_);
    std::erase(sockets_, another);
    ::close(another);
  }

  asio::io_context context_;
  tcp::acceptor acceptor_{context_, {asio::ip::address_v4::loopback(), 0}};
  const RawScript script_;
  std::mutex mutex_;  // guards the next three
  std::vector<int> sockets_;
  std::vector<std::thread> served_;
  bool isEnding_ = false;
  std::thread thread_;
};

/// A certificate for "localhost" that signs itself, for a server and in a file.
class TestCertificate {
 public:
  TestCertificate();
  ~TestCertificate() { unlink(file_.c_str()); }
  TestCertificate(const TestCertificate &) = delete;
  TestCertificate &operator=(const TestCertificate &) = delete;
  asio::ssl::context &server() { return server_; }
  const std::string &file() const { return file_; }

 private:
  asio::ssl::context server_{asio::ssl::context::tls_server};
  std::string file_;
};

}  // namespace qelnk::test
