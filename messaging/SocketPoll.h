#pragma once

#include <QELNetworkKit/RunLoop.h>

#include <chrono>

namespace qelnk {

/// Waits for a ZeroMQ socket and for work on the calling thread's run loop at once.
///
/// The socket's own descriptor is waited for in place of zmq_poll(), which costs two system calls more each time and
/// counts in whole milliseconds. Threads: the one that owns the socket.
class SocketPoll {
 public:
  SocketPoll() = default;
  SocketPoll(void *socket, RunLoop &loop);
  explicit operator bool() const { return socket_ != nullptr; }

  /// Which of ZMQ_POLLIN and ZMQ_POLLOUT are ready; -1 on failure, with the error number in errno.
  int events() const;
  /// Returns once events() may have changed, the run loop has work, or `limit` has passed; -1 on failure.
  int wait(std::chrono::nanoseconds limit) const;

 private:
  void *socket_ = nullptr;
  int descriptor_ = -1, wakeDescriptor_ = -1;
};

}  // namespace qelnk
