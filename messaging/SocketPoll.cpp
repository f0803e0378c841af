#include "messaging/SocketPoll.h"

#include <poll.h>
#include <zmq.h>

#include <array>
#include <ctime>

namespace qelnk {

SocketPoll::SocketPoll(void *socket, RunLoop &loop) : socket_(socket), wakeDescriptor_(loop.wakeDescriptor()) {
  size_t size = sizeof(descriptor_);
  if (zmq_getsockopt(socket, ZMQ_FD, &descriptor_, &size) != 0) descriptor_ = -1;
}

int SocketPoll::events() const {
  int events = 0;
  size_t size = sizeof(events);
  return zmq_getsockopt(socket_, ZMQ_EVENTS, &events, &size) == 0 ? events : -1;
}

int SocketPoll::wait(std::chrono::nanoseconds limit) const {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(limit);
  const timespec timeout{.tv_sec = seconds.count(), .tv_nsec = (limit - seconds).count()};
  std::array<pollfd, 2> descriptors{{{descriptor_, POLLIN, 0}, {wakeDescriptor_, POLLIN, 0}}};
  return ppoll(descriptors.data(), descriptors.size(), &timeout, nullptr);
}

}  // namespace qelnk
