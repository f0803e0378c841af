#pragma once

#include <algorithm>
#include <array>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/buffers_range.hpp>
#include <boost/beast/core/role.hpp>
#include <boost/beast/websocket/teardown.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace qelnk {

namespace asio = boost::asio;

/// What a WebSocket's frames go over: a TCP connection, encrypted or not. A stream as Beast wants it.
class WebSocketTransport {
 public:
  using Socket = asio::basic_stream_socket<asio::ip::tcp, asio::io_context::executor_type>;
  using TLS = asio::ssl::stream<Socket &>;
  using executor_type = Socket::executor_type;

  /// Encrypts where a context is given.
  WebSocketTransport(Socket socket, asio::ssl::context *context) : socket_(std::move(socket)) {
    socket_.non_blocking(true);
    if (context) tls_ = std::make_unique<Encryption>(socket_, *context);
  }
  WebSocketTransport(const WebSocketTransport &) = delete;
  WebSocketTransport &operator=(const WebSocketTransport &) = delete;

  Socket &socket() { return socket_; }
  TLS *tls() { return tls_ ? &tls_->stream : nullptr; }
  executor_type get_executor() { return socket_.get_executor(); }

  /// Counts the writes begun: while it grows, the other side takes something in.
  uint64_t writes() const { return writes_; }
  /// The next write begins a message of so many bytes.
  void beginMessage(size_t size) { beginsShortMessage_ = size <= (size_t(64) << 10); }
  /// Whether the other side has said, or is to say, that it closes, so that its end is worth waiting for.
  void setClosing() { isClosing_ = true; }

  /// While the answer to the opening is awaited its begin is kept: of one that does not come whole nothing else is
  /// seen.
  void setAnswerAwaited(bool is) { isAnswerAwaited_ = is; }
  const std::string &answer() const { return answer_; }

  template <class Buffers, class Handler>
  void async_read_some(const Buffers &buffers, Handler &&handler) {
    if (isAnswerAwaited_) {
      const auto executor = asio::get_associated_executor(handler, get_executor());
      readSome(buffers, asio::bind_executor(executor, [this, buffers, own = std::forward<Handler>(handler)](
                                                          boost::system::error_code error, size_t size) mutable {
                 keep(buffers, size);
                 own(error, size);
               }));
    } else {
      readSome(buffers, std::forward<Handler>(handler));
    }
  }

  template <class Buffers, class Handler>
  void readSome(const Buffers &buffers, Handler &&handler) {
    if (tls_)
      tls_->stream.async_read_some(buffers, std::forward<Handler>(handler));
    else
      socket_.async_read_some(buffers, std::forward<Handler>(handler));
  }

  template <class Buffers, class Handler>
  void async_write_some(const Buffers &buffers, Handler &&handler) {
    ++writes_;
    if (!tls_) return writeSome(buffers, std::forward<Handler>(handler));
    // Each write is a record of its own: a frame's header goes with its payload.
    const size_t size = asio::buffer_copy(asio::buffer(tls_->record), buffers);
    tls_->stream.async_write_some(asio::buffer(tls_->record.data(), size), std::forward<Handler>(handler));
  }

  /// A short message is written by whoever sends it, for waking another thread costs more than that. What does not go
  /// at once, and long ones, leave at the pace of the other side.
  template <class Buffers, class Handler>
  void writeSome(const Buffers &buffers, Handler &&handler) {
    boost::system::error_code error = asio::error::would_block;
    size_t size = 0;
    if (std::exchange(beginsShortMessage_, false)) size = socket_.write_some(buffers, error);
    if (error == asio::error::would_block) return socket_.async_write_some(buffers, std::forward<Handler>(handler));
    const auto executor = asio::get_associated_executor(handler, get_executor());
    asio::post(executor, boost::beast::bind_front_handler(std::forward<Handler>(handler), error, size));
  }

  /// What a closed or failed WebSocket does at last.
  template <class Handler>
  friend void async_teardown(boost::beast::role_type role, WebSocketTransport &transport, Handler &&handler) {
    using boost::beast::websocket::async_teardown;
    if (!transport.isClosing_) {
      boost::system::error_code error;
      transport.socket_.shutdown(Socket::shutdown_both, error);
      asio::post(transport.get_executor(),
                 boost::beast::bind_front_handler(std::forward<Handler>(handler), boost::system::error_code()));
    } else if (transport.tls_) {
      transport.tls_->stream.async_shutdown(std::forward<Handler>(handler));
    } else {
      async_teardown(role, transport.socket_, std::forward<Handler>(handler));
    }
  }
  friend void beast_close_socket(WebSocketTransport &transport) {
    boost::system::error_code ignored;
    transport.socket_.close(ignored);
  }

 private:
  struct Encryption {
    Encryption(Socket &socket, asio::ssl::context &context) : stream(socket, context) {}
    TLS stream;
    std::array<uint8_t, 16384> record;
  };
  template <class Buffers>
  void keep(const Buffers &buffers, size_t size) {
    constexpr size_t longest = 128;
    for (const asio::const_buffer part : boost::beast::buffers_range_ref(buffers)) {
      const size_t count = std::min({size, part.size(), longest - answer_.size()});
      answer_.append(static_cast<const char *>(part.data()), count);
      size -= std::min(size, part.size());
    }
  }

  Socket socket_;
  std::unique_ptr<Encryption> tls_;
  bool isAnswerAwaited_ = false;
  std::string answer_;
  uint64_t writes_ = 0;
  bool beginsShortMessage_ = false;
  bool isClosing_ = false;
};

}  // namespace qelnk
