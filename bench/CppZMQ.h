#pragma once

#include <zmq.hpp>

#include "Support.h"

namespace bench {

/// The same through cppzmq: its contexts, sockets, messages and poll.
struct CppZMQ {
  class Context {
   public:
    zmq::context_t &get() { return context_; }
    void shutdown() { context_.shutdown(); }

   private:
    zmq::context_t context_;
  };

  class Socket {
   public:
    Socket(Context &context, int type) : socket_(context.get(), zmq::socket_type(type)) {
      socket_.set(zmq::sockopt::linger, 0);
    }
    zmq::socket_t &socket() { return socket_; }
    void *get() { return socket_.handle(); }
    void waitForRoom() { socket_.set(zmq::sockopt::xpub_nodrop, true); }
    void subscribe(std::string_view prefix) { socket_.set(zmq::sockopt::subscribe, prefix); }
    int bindToLoopback() {
      socket_.bind("tcp://127.0.0.1:*");
      const std::string endpoint = socket_.get(zmq::sockopt::last_endpoint);
      return std::atoi(endpoint.c_str() + endpoint.rfind(':') + 1);
    }
    void connectToLoopback(int port) { socket_.connect("tcp://127.0.0.1:" + std::to_string(port)); }

   private:
    zmq::socket_t socket_;
  };

  class Frame {
   public:
    Frame() = default;
    explicit Frame(std::string_view bytes) : message_(bytes.data(), bytes.size()) {}
    bool receive(Socket &socket, int flags = 0) {
      try {
        return socket.socket().recv(message_, zmq::recv_flags(flags)).has_value();
      } catch (const zmq::error_t &) {  // the context has been shut down
        return false;
      }
    }
    bool send(Socket &socket, int flags = 0) {
      return socket.socket().send(std::move(message_), zmq::send_flags(flags)).has_value();
    }
    std::string_view bytes() const { return message_.to_string_view(); }

   private:
    zmq::message_t message_;
  };

  /// Returns false once the context has been shut down.
  static bool poll(zmq_pollitem_t *items, size_t count, int milliseconds) {
    try {
      zmq::poll(items, count, std::chrono::milliseconds(milliseconds));
      return true;
    } catch (const zmq::error_t &error) {
      return error.num() == EINTR;
    }
  }
};

}  // namespace bench
