#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace sim {

/// The daemon's web server, on the loopback interface: a page for browsers, and WebSocket clients, whose texts are
/// requests and who get what is published. One that does not take in what it gets is let go, the others do not wait for
/// it.
///
/// Threads: one of its own, which ends with it. No function waits.
class WebServer {
 public:
  using ClientID = uint64_t;
  struct Request {
    ClientID from;
    std::string text;
    bool isForeign;  ///< it comes from the page of another site
  };
  enum class Audience { everyone, watchers };

  /// Listens; throws std::runtime_error where that fails, with the reason. Port 0 has the system choose one.
  explicit WebServer(int port);
  ~WebServer();
  WebServer(const WebServer &) = delete;
  WebServer &operator=(const WebServer &) = delete;

  int port() const;
  /// Readable when requests wait.
  int descriptor() const;
  /// The next request, or none. A client's next one is read once this one was taken.
  std::optional<Request> receive();
  void send(ClientID to, std::string text);
  /// Has a client get what is for watchers, too, from now on.
  void watch(ClientID client);
  void publish(std::string text, Audience audience);

 private:
  class State;
  const std::unique_ptr<State> state_;
};

}  // namespace sim
