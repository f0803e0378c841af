#pragma once

#include <memory>
#include <string>

namespace sim {

/// The daemon's WebSocket server, on the loopback interface: what is published goes to every client as text. What
/// clients send is passed over. One that does not take in what it gets is let go, the others do not wait for it.
///
/// Threads: one of its own, which ends with it. publish() does not wait.
class WebServer {
 public:
  /// Listens; throws std::runtime_error where that fails, with the reason. Port 0 has the system choose one.
  explicit WebServer(int port);
  ~WebServer();
  WebServer(const WebServer &) = delete;
  WebServer &operator=(const WebServer &) = delete;

  int port() const;
  void publish(std::string text);

 private:
  class State;
  const std::unique_ptr<State> state_;
};

}  // namespace sim
