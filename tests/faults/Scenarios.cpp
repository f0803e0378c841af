#include "faults/Scenarios.h"

#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKEncryption.h>
#include <QELNetworkKit/QELNKKORVALClient.h>
#include <QELNetworkKit/QELNKLegacyService.h>
#include <QELNetworkKit/QELNKMonitor.h>
#include <QELNetworkKit/QELNKNetworkInterfaceDiscovery.h>
#include <QELNetworkKit/QELNKOrlinDaemonSpawner.h>
#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/QELNKServer.h>
#include <QELNetworkKit/QELNKSubscriber.h>
#include <QELNetworkKit/QELNKWebSocket.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQSocket.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "daemon/FakeDaemon.h"
#include "legacy/Observers.h"
#include "netutil/Ping.h"
#include "netutil/WebSocketServer.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace qelnk::test {

namespace {

constexpr size_t large = 100'000;  // beyond what counts as a large buffer
// What ZeroMQ does to a connection that is up or coming up: it tries again.
constexpr Steps connecting = Step::connect | Step::send | Step::receive | Step::accept | Step::lookup;

std::shared_ptr<QELNKContext> newContext() {
  return std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), Queue::serial("faults"), Queue::main());
}

template <class Endpoint>
void hasten(Endpoint &endpoint) {
  endpoint.setSocketBlock([](auto &, ZMQSocket &socket) { socket.setInt(10, ZMQ_RECONNECT_IVL); });
}

void waitForRequests(Trial &trial, const std::optional<QELNKKeyPair> &serverKeys = {},
                     const std::optional<QELNKKeyPair> &clientKeys = {}) {
  trial.recoversFrom = connecting;
  const auto context = newContext();
  const auto server = QELNKServer::create(context);
  if (serverKeys)
    trial.require("encrypting", server->setEncryption({.keys = *serverKeys, .allowedKeys = {clientKeys->publicKey}}));
  server->setFallbackResponse(Value());
  Error error;
  trial.require("binding", server->bindToPort(
                               0, [](auto &, auto &message) { message->setResponse(message->request()); }, &error));
  const auto client = QELNKClient::create(context);
  hasten(*client);
  if (clientKeys)
    trial.require("encrypting", client->setEncryption({.keys = *clientKeys, .serverKey = serverKeys->publicKey}));
  client->setRequestTimeout(trial.isClean() ? 10s : 300ms);
  client->connectToHost("localhost", server->port(), nullptr);
  const Value request = Value::map({{"text", std::string(large, 'x')}});
  std::shared_ptr<QELNKMessage> message;
  trial.reach("an answer", [&] {
    if (message && message->isFinished()) {
      if (message->response() == request) return true;
      trial.tell();
      message = nullptr;
    }
    if (!message) message = client->sendRequest(request, nullptr);
    return false;
  });
}

void requests(Trial &trial) { waitForRequests(trial); }

void encryptedRequests(Trial &trial) {
  static const auto serverKeys = QELNKKeyPair::generate(), clientKeys = QELNKKeyPair::generate();
  waitForRequests(trial, serverKeys, clientKeys);
}

void broadcasts(Trial &trial) {
  trial.recoversFrom = connecting;
  const auto context = newContext();
  const auto publisher = QELNKPublisher::create(context);
  publisher->bindToPort(0);
  const auto subscriber = QELNKSubscriber::create(context);
  hasten(*subscriber);
  const auto clock = std::make_shared<ManualClock>();
  subscriber->setClock(clock);
  const Value text = Value::map({{"text", std::string(large, 'x')}});
  std::atomic<bool> heard = false;
  subscriber->setMessageBlock([&](auto &, const Value &message) { heard = message == text; });
  subscriber->connectToHost("localhost", publisher->port(), nullptr);
  trial.reach("a message", [&] {
    if (Error error; !publisher->publish(text, &error)) trial.tell();
    if (!trial.isClean()) clock->advance(50ms);  // the silence after which it connects anew
    return heard.load();
  });
}

void monitors(Trial &trial) {
  const auto context = newContext();
  const auto server = QELNKServer::create(context);
  trial.require("binding", server->bindToPort(0, nullptr));
  const auto monitor = QELNKMonitor::create(context);
  monitor->connectToSocket(server, QELNKMonitorEventAccepted);
  std::atomic<bool> accepted = false;
  std::thread reader;
  try {
    reader = std::thread([&] { accepted = monitor->events() == QELNKMonitorEventAccepted; });
  } catch (const std::system_error &) {  // the test's own
    trial.require("a thread", false);
  }
  const std::shared_ptr<void> end(nullptr, [&](void *) {
    monitor->disconnect();
    reader.join();
  });
  const auto client = QELNKClient::create(context);
  hasten(*client);
  client->connectToHost("localhost", server->port(), nullptr);
  trial.reach("an event", [&] { return accepted.load(); });
}

void daemonClient(Trial &trial) {
  std::optional<Immune> immune(std::in_place);
  FakeDaemon daemon(exampleWorkflows());
  immune.reset();
  trial.recoversFrom = Step::connect | Step::lookup;
  const auto client = QELNKKORVALClient::create(newContext());
  hasten(*client);
  client->setRequestTimeout(trial.isClean() ? 10s : 300ms);
  std::atomic<bool> connected = false;
  client->connectToHost("localhost", daemon.port(), [&](auto &) { connected = true; });
  trial.reach("the mirror", [&] {
    if (connected) return true;
    if (trial.wasTold() && client->pendingMessages() == 0) client->updateWorkflows();  // as hosts do
    return false;
  });
  const auto workflow = client->workflowWithID("a");
  const auto port = workflow->portWithID("in");
  std::shared_ptr<QELNKMessage> message;
  trial.reach("a value", [&] {
    if (message && message->isFinished() && message->error()) {
      trial.tell();
      message = nullptr;
    }
    if (!message) message = client->setWorkflow(workflow, port, 5);
    return port->intValue() == 5;
  });
  client->quit();
}

/// A daemon's bundle, whose Java is a script that sleeps, beside a project.
class Bundle {
 public:
  Bundle() {
    const Immune immune;
    std::string name = (fs::temp_directory_path() / "qelnk-faults-XXXXXX").string();
    folder_ = mkdtemp(name.data());
    const fs::path java = fs::path(daemon()) / "Contents/PlugIns/jdk1.8.0_131.jdk/Contents/Home/jre/bin/java";
    fs::create_directories(java.parent_path());
    std::ofstream(project()) << "{}";
    std::ofstream(java) << "#!/bin/sh\nexec sleep 600\n";
    fs::permissions(java, fs::perms::owner_all);
  }
  ~Bundle() {
    rlimit limit{};  // to look into a folder takes a descriptor
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  Bundle(const Bundle &) = delete;
  Bundle &operator=(const Bundle &) = delete;
  std::string daemon() const { return folder_ / "Orlin Daemon/orlin Daemon.app"; }
  std::string project() const { return folder_ / "show.prj"; }

 private:
  fs::path folder_;
};

void launcher(Trial &trial) {
  const Bundle bundle;
  QELNKOrlinDaemonSpawner spawner(bundle.daemon(), 5000);
  const auto daemon = spawner.spawnDaemonWithProject(bundle.project(), Value::map());
  trial.require("launching", daemon->task() != nullptr);
  daemon->task()->signal(SIGKILL);
  trial.reach("the end", [&] { return spawner.runningDaemons() == 0; });
  spawner.stopAllDaemons();
}

void waitForLegacy(Trial &trial, Value serverOptions, Value clientOptions) {
  trial.recoversFrom = connecting | Step::socket;
  const auto serving = std::make_shared<ServerObserver>();
  const auto server = QELNKLegacyServer::create("Studio", 0, serverOptions);
  server->setDelegate(serving);
  Error error;
  trial.require("listening", server->start(&error));
  const auto guest = std::make_shared<ClientObserver>();
  clientOptions.set("appID", "guest");
  clientOptions.set("attemptReconnect", true);
  clientOptions.set("maxRetryAttempts", 1000);
  clientOptions.set("autoRetryInterval", 0.01);
  clientOptions.set("autoConnectDelay", 0.01);
  const auto client = QELNKLegacyClient::create("guest", "localhost", server->port(), guest, clientOptions);
  client->connect();
  const Data block(std::string(large, 'x'));
  trial.reach("strings, blocks and heartbeats", [&] {
    for (const char *text : {"error 2 1", "error 3 1", "error 4 1", "terminated 1"})
      if (guest->has(text)) trial.tell();
    if (!client->isReady() || client->outgoingLength() > 0) return false;
    client->writeString("from client");
    server->writeString("from server");
    server->sendHeartbeatAtTimecode(QELProjectTimecode::timeOfDay(0), std::nullopt);
    server->writeBinaryData(block, "text", true);
    return serving->has("string from client") && guest->has("string from server") &&
           guest->has("binary text " + std::to_string(large));
  });
}

void legacyOnMainThread(Trial &trial) {
  waitForLegacy(trial, QELNKLegacyStream::defaultPlayoutOptionsForAppID("server"),
                QELNKLegacyClient::defaultPlayoutOptions());
}

void legacyOnThreadsOfItsOwn(Trial &trial) {
  waitForLegacy(trial, QELNKLegacyStream::defaultIngestOptions(), QELNKLegacyClient::defaultIngestOptions());
}

struct ServiceObserver final : NetServiceDelegate {
  void netServiceDidNotResolve(const Service &, std::error_code) override { ended = true; }
  std::atomic<bool> ended = false;
};

void services(Trial &trial) {
  const auto service = QELNKLegacyService::create("", "_faults._tcp", "Studio", 0,
                                                  QELNKLegacyStream::defaultPlayoutOptionsForAppID("server"));
  trial.require("listening", service->start());
  const auto observer = std::make_shared<ServiceObserver>();
  const auto sought = NetService::create("", "_faults._tcp", "nobody");
  sought->setDelegate(observer);
  sought->resolveWithTimeout(20ms);
  trial.reach("the end of the search", [&] { return observer->ended.load(); });
}

struct WebObserver final : QELNKWebSocketDelegate {
  using WebSocket = std::shared_ptr<QELNKWebSocket>;
  void webSocketDidOpen(const WebSocket &webSocket) override { webSocket->sendString(std::string(large, 'x')); }
  void webSocketDidClose(const WebSocket &) override { failed = true; }
  void webSocket(const WebSocket &, const std::string &text) override { heard = text.size() == large; }
  std::atomic<bool> failed = false, heard = false;
};

void webSocket(Trial &trial) {
  std::optional<Immune> immune(std::in_place);
  WebSocketServer server(WebSocketServer::shaken(WebSocketServer::echo<WebSocketServer::Stream>));
  immune.reset();
  {
    const auto observer = std::make_shared<WebObserver>();
    bool closed = false;
    QELNKWebSocketOptions options;
    options.openTimeout = trial.isClean() ? 10s : 1s;
    options.closeTimeout = 500ms;
    options.closedBlock = [&](auto &, auto, auto &, bool) { closed = true; };
    const auto webSocket = QELNKWebSocket::create(server.url("ws", "localhost"), observer, options);
    trial.reach("an echo", [&] {
      if (observer->failed || closed) trial.tell();
      return observer->heard.load();
    });
  }
  if (!QELNKWebSocket::waitUntilClosed(5s)) trial.require("closing", false);
}

void ping(Trial &trial) {
  int64_t received = 0;
  try {
    Ping once(PingOptions::parse({"", "-c", "1", "-W", "200", "127.0.0.1"}, geteuid() == 0), {});
    try {
      once.run();
    } catch (const PingExit &) {
    }
    received = once.received();
  } catch (const PingExit &) {
  }
  trial.require("a reply", received == 1);
}

void interfaces(Trial &trial) {
  // What cannot be read gives fewer interfaces.
  trial.require("interfaces", !QELNKNetworkInterfaceDiscovery::interfaces().empty());
}

}  // namespace

const std::vector<Scenario> &scenarios() {
  // What is left out:
  // ZeroMQ's encryption takes memory of a message's size, and ends the process when there is none.
  // Asio asks the kernel for what is new alone: a transfer that is only made to look short is none that the kernel ever
  // makes. And it does not look whether it may watch the descriptor by which it is woken.
  static const std::vector<Scenario> all{
      {"Requests", requests},
      {"EncryptedRequests", encryptedRequests, {"no memory"}},
      {"Broadcasts", broadcasts},
      {"Monitor", monitors},
      {"DaemonClient", daemonClient, {}, true},
      {"Launcher", launcher},
      {"LegacyOnMainThread", legacyOnMainThread},
      {"LegacyOnThreadsOfItsOwn", legacyOnThreadsOfItsOwn},
      {"Services", services},
      {"WebSocket", webSocket, {"short", "no memory to watch"}, true},
      {"Ping", ping},
      {"Interfaces", interfaces},
  };
  return all;
}

}  // namespace qelnk::test
