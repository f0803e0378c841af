// Listens to a WebSocket server, such as a daemon's web port, until three messages have come.
//   orlin-sim -tcp 5600 -web 5601 examples/studio.prj &           a server to try it with; it passes over the "hello"
//   web_socket ws://localhost:5601 &
//   qelnk daemon --connect localhost:5600 start-workflow Clock    has it send a message every 40 ms
// Change first: what webSocket() does with a message, and the options (a queue of your own, certificates).

#include <QELNetworkKit/QELNetworkKit.h>

#include <chrono>
#include <cstdio>

using namespace std::chrono_literals;

// Called on the main thread, for the options name no other queue.
struct Observer final : QELNKWebSocketDelegate {
  int messages = 0;
  void webSocketDidOpen(const std::shared_ptr<QELNKWebSocket> &webSocket) override {
    std::puts("open");
    webSocket->sendString(R"({"command": "getProject", "messageID": 1})");  // before this call it would be dropped
  }
  void webSocketDidClose(const std::shared_ptr<QELNKWebSocket> &) override {
    std::puts("failed");  // nothing connects again: a host that wants to makes another one, after a while
    qelnk::RunLoop::main()->stop();
  }
  void webSocket(const std::shared_ptr<QELNKWebSocket> &, const std::string &text) override {
    std::puts(text.c_str());
    if (++messages == 3) qelnk::RunLoop::main()->stop();
  }
};

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: web_socket URL\n");
    return 64;
  }
  const auto loop = qelnk::RunLoop::main();
  QELNKWebSocketOptions options;
  options.closedBlock = [&](auto &, uint16_t code, const std::string &reason, bool wasClean) {
    std::printf("%s: %u %s\n", wasClean ? "closed by the server" : "not closed in good order", code, reason.c_str());
    loop->stop();
  };
  auto observer = std::make_shared<Observer>();  // the WebSocket does not keep it
  auto webSocket = QELNKWebSocket::create(argv[1], observer, options);
  auto limit = loop->performAfter(30s, [&] { loop->stop(); });
  loop->run();
  limit->cancel();

  webSocket = nullptr;  // closes it, in the background
  QELNKWebSocket::waitUntilClosed(5s);
  return observer->messages >= 3 ? 0 : 1;
}
