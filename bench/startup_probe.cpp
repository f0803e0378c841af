// What startup_bench starts and looks at from outside: a program that links nothing, the libraries that ours needs, or
// ours. Arguments: what it makes, and the port of what that connects to. It then does nothing until it is killed.

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string_view>

#include "StartUp.h"

#ifdef PROBE_ZMQ
#include <zmq.h>

#include <string>
#endif

#ifdef PROBE_OURS
#include <QELNetworkKit/QELNetworkKit.h>

#include <thread>
#endif

namespace {

void report(int port = 0) {
  const StartUpReport report{StartUpReport::now(), port};
  if (write(STDOUT_FILENO, &report, sizeof report) != sizeof report) _exit(1);
}

[[maybe_unused]] void waitForever() {
  while (true) pause();
}

#ifdef PROBE_ZMQ
void make(std::string_view what, int port) {
  void *context = zmq_ctx_new(), *socket = zmq_socket(context, ZMQ_REQ);
  if (what != "request" || zmq_connect(socket, ("tcp://127.0.0.1:" + std::to_string(port)).c_str()) != 0 ||
      zmq_send(socket, "first", 5, 0) != 5)
    _exit(1);
  char answer[5];
  if (zmq_recv(socket, answer, sizeof answer, 0) != 5) _exit(1);
  report();
  waitForever();
}
#elif defined(PROBE_OURS)
struct Watcher final : QELNKPingletonDelegate {
  void pingleton(const std::shared_ptr<QELNKPingleton> &, const std::string &) override { _exit(1); }
};
struct Opened final : QELNKWebSocketDelegate {
  void webSocketDidOpen(const std::shared_ptr<QELNKWebSocket> &) override { report(); }
  void webSocketDidClose(const std::shared_ptr<QELNKWebSocket> &) override { _exit(1); }
  void webSocket(const std::shared_ptr<QELNKWebSocket> &, const std::string &) override {}
};
struct Nobody final : QELNKLegacyServerDelegate {
  void networkService(const Server &, const Stream &, const std::string &) override {}
  void networkService(const Server &, const Stream &, const QELProjectTimecode &,
                      const std::optional<std::string> &) override {}
  void networkServiceNetworkStreamIsReady(const Server &, const Stream &) override {}
  void networkServiceNetworkStreamWasTerminated(const Server &, const Stream &) override {}
};

void make(std::string_view what, int port) {
  using qelnk::Value;
  const auto context = [] { return QELNKContext::contextWithBackgroundQueue(); };
  const auto loop = qelnk::RunLoop::main();
  // What is here lives as long as the loop runs.
  std::vector<std::shared_ptr<void> > kept;
  const auto keep = [&](auto object) {
    kept.push_back(object);
    return object;
  };
  if (what == "request") {
    const auto client = keep(QELNKClient::create(context()));
    client->setMessageBody(QELNKMessageBodyData);
    client->connectToHost("127.0.0.1", port, [](auto &connected) {
      connected->sendRequest(qelnk::Data(std::string("first")), [](auto &, auto &) { report(); });
    });
  } else if (what == "server") {
    const auto server = keep(QELNKServer::create(context()));
    server->bindToPort(0, [](auto &, auto &) {});
    report(server->port());
  } else if (what == "publisher") {
    const auto publisher = keep(QELNKPublisher::create(context()));
    publisher->bindToPort(0);
    report(publisher->port());
  } else if (what == "subscriber") {
    const auto subscriber = keep(QELNKSubscriber::create(context()));
    subscriber->setMessageBlock([](auto &, auto &) {});
    subscriber->connectToHost("127.0.0.1", port, nullptr);
    report();
  } else if (what == "daemon") {
    keep(QELNKKORVALClient::create(context()))->connectToHost("127.0.0.1", port, [](auto &) { report(); });
  } else if (what == "legacy") {
    const auto server = keep(QELNKLegacyServer::create("idle", 0, QELNKLegacyStream::defaultIngestOptions()));
    server->setDelegate(keep(std::make_shared<Nobody>()));
    if (!server->start()) _exit(1);
    report(server->port());
  } else if (what == "websocket") {
    keep(QELNKWebSocket::create("ws://127.0.0.1:" + std::to_string(port) + "/", keep(std::make_shared<Opened>())));
  } else if (what == "watch") {
    QELNKPingleton::sharedPingleton()->startWatchingIP("127.0.0.1", keep(std::make_shared<Watcher>()));
    report();
  } else {
    _exit(1);
  }
  loop->run();
}
#else
void make(std::string_view, int) { _exit(1); }
#endif

}  // namespace

int main(int count, char **words) {
  report();
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (count < 2) return 0;
  if (std::string_view(words[1]) == "nothing") {
    report();
    waitForever();
  }
#ifdef PROBE_OURS
  QLGetHandle().setLevel(qelnk::LogLevel::off);
#endif
  make(words[1], count > 2 ? std::atoi(words[2]) : 0);
}
