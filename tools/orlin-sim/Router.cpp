#include "Router.h"

#include <zmq.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace sim {
namespace {

void setOption(void *socket, int option, int value) { zmq_setsockopt(socket, option, &value, sizeof value); }

/// One frame; `more` tells whether another follows.
std::optional<std::string> receiveFrame(void *socket, bool &more) {
  zmq_msg_t frame;
  zmq_msg_init(&frame);
  std::optional<std::string> bytes;
  if (zmq_msg_recv(&frame, socket, ZMQ_DONTWAIT) >= 0) {
    bytes.emplace(static_cast<const char *>(zmq_msg_data(&frame)), zmq_msg_size(&frame));
    more = zmq_msg_more(&frame) != 0;
  }
  zmq_msg_close(&frame);
  return bytes;
}

}  // namespace

Router::Router(int port) : context_(zmq_ctx_new()), socket_(zmq_socket(context_, ZMQ_ROUTER)) {
  setOption(socket_, ZMQ_LINGER, 500);
  setOption(socket_, ZMQ_ROUTER_MANDATORY, 1);
  setOption(socket_, ZMQ_SNDHWM, 0);  // a client that reads late gets every reply all the same
  const std::string endpoint = "tcp://127.0.0.1:" + (port == 0 ? "*" : std::to_string(port));
  if (zmq_bind(socket_, endpoint.c_str()) != 0) {
    const std::string reason = zmq_strerror(zmq_errno());
    zmq_close(socket_);
    zmq_ctx_term(context_);
    throw std::runtime_error("port " + std::to_string(port) + ": " + reason);
  }
  char bound[256];
  size_t length = sizeof bound;
  zmq_getsockopt(socket_, ZMQ_LAST_ENDPOINT, bound, &length);
  const std::string_view text(bound);
  port_ = std::atoi(text.substr(text.rfind(':') + 1).data());
}

Router::~Router() {
  zmq_close(socket_);
  zmq_ctx_term(context_);
}

std::optional<Router::Request> Router::receive() {
  Request request;
  bool more = true;
  while (more) {
    auto frame = receiveFrame(socket_, more);
    if (!frame) return std::nullopt;
    if (more)
      request.from.push_back(std::move(*frame));
    else
      request.payload = std::move(*frame);
  }
  return request;
}

bool Router::send(const Address &to, std::span<const uint8_t> payload) {
  for (const std::string &frame : to)
    if (zmq_send(socket_, frame.data(), frame.size(), ZMQ_SNDMORE | ZMQ_DONTWAIT) < 0)
      return zmq_errno() != EHOSTUNREACH;
  zmq_send(socket_, payload.data(), payload.size(), ZMQ_DONTWAIT);
  return true;
}

}  // namespace sim
