#pragma once

#include <QELNetworkKit/QELNKSocket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qelnk::test {

/// The other end of a connection: a socket of bare ZeroMQ on a thread of its own.
class Peer {
 public:
  using Frames = std::vector<std::string>;
  /// Gets each message on the peer's thread.
  using Handler = std::function<void(Peer &peer, Frames frames)>;

  /// Binds to a port that the system chooses, or to `port`.
  Peer(int type, Handler handler, int32_t port = 0);
  /// Closes at once: what it was about to send is lost.
  ~Peer();

  int32_t port() const { return port_; }
  /// Number of messages received.
  size_t received() const { return received_; }
  /// Sends one message. In the handler or in perform().
  void send(const Frames &frames);
  /// Runs `task` on the peer's thread, some time.
  void perform(std::function<void()> task);

  /// A handler that sends back what it gets.
  static void echo(Peer &peer, Frames frames) { peer.send(frames); }
  static void ignore(Peer &, Frames) {}

 private:
  void serve();
  bool receive();

  void *context_, *socket_;
  Handler handler_;
  int32_t port_;
  std::atomic<bool> stop_{false};
  std::atomic<size_t> received_{0};
  std::mutex mutex_;
  std::vector<std::function<void()>> tasks_;
  std::thread thread_;
};

/// A bare ZeroMQ socket of the test's own thread, connected to a port here.
class Wire {
 public:
  Wire(int type, int32_t port);
  /// Closes at once.
  ~Wire();
  Wire(const Wire &) = delete;
  Wire &operator=(const Wire &) = delete;

  void send(const Peer::Frames &frames);
  /// The next message; none when there is none within `limit`.
  std::optional<Peer::Frames> receive(std::chrono::milliseconds limit = std::chrono::seconds(10));
  void *socket() const { return socket_; }

 private:
  void *context_, *socket_;
};

}  // namespace qelnk::test
