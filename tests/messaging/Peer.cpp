#include "messaging/Peer.h"

#include <QELNetworkKit/Log.h>
#include <zmq.h>

#include <stdexcept>

namespace qelnk::test {

// Keeps the lifecycle lines of hundreds of clients out of the tests' output.
[[maybe_unused]] static const bool quiet = (QLGetHandle().setLevel(LogLevel::off), true);

Peer::Peer(int type, Handler handler, int32_t port)
    : context_(zmq_ctx_new()), socket_(zmq_socket(context_, type)), handler_(std::move(handler)) {
  const int none = 0;
  zmq_setsockopt(socket_, ZMQ_LINGER, &none, sizeof(none));
  zmq_setsockopt(socket_, ZMQ_SNDHWM, &none, sizeof(none));
  zmq_setsockopt(socket_, ZMQ_RCVHWM, &none, sizeof(none));
  const std::string wanted = "tcp://127.0.0.1:" + (port ? std::to_string(port) : "*");
  if (zmq_bind(socket_, wanted.c_str()) != 0) throw std::runtime_error(zmq_strerror(zmq_errno()));
  char endpoint[64];
  size_t size = sizeof(endpoint);
  zmq_getsockopt(socket_, ZMQ_LAST_ENDPOINT, endpoint, &size);
  port_ = std::stoi(std::string(endpoint).substr(std::string(endpoint).rfind(':') + 1));
  thread_ = std::thread([this] { serve(); });
}

Peer::~Peer() {
  stop_ = true;
  thread_.join();
  zmq_ctx_term(context_);
}

void Peer::serve() {
  while (!stop_) {
    std::vector<std::function<void()>> tasks;
    {
      const std::lock_guard lock(mutex_);
      tasks.swap(tasks_);
    }
    for (const auto &task : tasks) task();
    zmq_pollitem_t item{socket_, 0, ZMQ_POLLIN, 0};
    zmq_poll(&item, 1, 2);
    while (!stop_ && receive()) {
    }
  }
  zmq_close(socket_);
}

static Peer::Frames receiveFrom(void *socket) {
  Peer::Frames frames;
  zmq_msg_t message;
  zmq_msg_init(&message);
  bool more = true;
  while (more && zmq_msg_recv(&message, socket, ZMQ_DONTWAIT) >= 0) {
    frames.emplace_back(static_cast<const char *>(zmq_msg_data(&message)), zmq_msg_size(&message));
    more = zmq_msg_more(&message);
  }
  zmq_msg_close(&message);
  return frames;
}

static void sendTo(void *socket, const Peer::Frames &frames) {
  for (size_t i = 0; i < frames.size(); i++)
    zmq_send(socket, frames[i].data(), frames[i].size(), i + 1 < frames.size() ? ZMQ_SNDMORE : 0);
}

bool Peer::receive() {
  Frames frames = receiveFrom(socket_);
  if (frames.empty()) return false;
  ++received_;
  handler_(*this, std::move(frames));
  return true;
}

void Peer::send(const Frames &frames) { sendTo(socket_, frames); }

void Peer::perform(std::function<void()> task) {
  const std::lock_guard lock(mutex_);
  tasks_.push_back(std::move(task));
}

Wire::Wire(int type, int32_t port) : context_(zmq_ctx_new()), socket_(zmq_socket(context_, type)) {
  const int none = 0;
  zmq_setsockopt(socket_, ZMQ_LINGER, &none, sizeof(none));
  zmq_setsockopt(socket_, ZMQ_RCVHWM, &none, sizeof(none));
  if (type == ZMQ_SUB) zmq_setsockopt(socket_, ZMQ_SUBSCRIBE, "", 0);
  zmq_connect(socket_, ("tcp://127.0.0.1:" + std::to_string(port)).c_str());
}

Wire::~Wire() {
  zmq_close(socket_);
  zmq_ctx_term(context_);
}

void Wire::send(const Peer::Frames &frames) { sendTo(socket_, frames); }

std::optional<Peer::Frames> Wire::receive(std::chrono::milliseconds limit) {
  zmq_pollitem_t item{socket_, 0, ZMQ_POLLIN, 0};
  if (zmq_poll(&item, 1, limit.count()) <= 0) return std::nullopt;
  return receiveFrom(socket_);
}

}  // namespace qelnk::test
